// The least that writing a queued line to the log file can cost. For every line it opens, locks, writes and closes the
// file by hand, with nine system calls. It cuts a file that has grown too long.
//
// One thread.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cwchar>
#include <memory>
#include <string>
#include <utility>

#include "VEXType.h"

namespace bench {

class FloorWriter {
public:
    FloorWriter(std::wstring strFileName, off_t cbMost) : m_strFileName(std::move(strFileName)), m_cbMost(cbMost) {}

    // FALSE if the file cannot be opened.
    BOOL Write(const std::wstring& strLine) {
        if (IsDirectory()) {
            return FALSE;
        }
        // Callers have the name as wide text, and open() needs narrow text in the locale's encoding.
        const auto szName = Narrow(m_strFileName);
        m_nFile = open(szName.get(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (m_nFile < 0) {
            return FALSE;
        }
        m_strOpenName = m_strFileName;
        struct stat status {};
        flock(m_nFile, LOCK_EX);
        fstat(m_nFile, &status);
        lseek(m_nFile, status.st_size, SEEK_SET);
        std::size_t cbText = 0;
        const auto szText = Narrow(strLine, &cbText);
        Put(szText.get(), cbText);
        Put("\r\n\r\n", 4);
        fstat(m_nFile, &status);
        if (status.st_size > m_cbMost) {
            Cut(status.st_size);
        }
        m_strOpenName.clear();
        close(m_nFile);
        return TRUE;
    }

private:
    bool IsDirectory() const {
        char szName[PATH_MAX];
        struct stat status {};
        std::wcstombs(szName, m_strFileName.c_str(), sizeof szName);
        return stat(szName, &status) == 0 && S_ISDIR(status.st_mode);
    }

    // Asks libc for the length first.
    static std::unique_ptr<char[]> Narrow(const std::wstring& strWide, std::size_t* pcb = nullptr) {
        const std::size_t cb = std::wcstombs(nullptr, strWide.c_str(), 0);
        auto szNarrow = std::make_unique_for_overwrite<char[]>(cb + 1);
        std::wcstombs(szNarrow.get(), strWide.c_str(), cb + 1);
        if (pcb != nullptr) {
            *pcb = cb;
        }
        return szNarrow;
    }

    struct Free {
        void operator()(void* p) const { std::free(p); }
    };

    void Put(const char* pchData, std::size_t cbData) const {
        if (write(m_nFile, pchData, cbData) != static_cast<ssize_t>(cbData)) {
            std::abort();
        }
    }

    // Reads the whole file into zeroed memory and writes a header and the newest four fifths back.
    void Cut(off_t cbFile) const {
        const auto cbAll = static_cast<std::size_t>(cbFile);
        const std::unique_ptr<char, Free> contents(static_cast<char*>(std::calloc(cbAll, 1)));
        lseek(m_nFile, 0, SEEK_SET);
        if (read(m_nFile, contents.get(), cbAll) != cbFile) {
            return;
        }
        lseek(m_nFile, 0, SEEK_SET);
        const std::size_t cbLines = cbAll - 2;
        const auto cbCut = static_cast<std::size_t>(static_cast<float>(cbLines) * 0.2F);
        const std::size_t cbKeep = (cbLines - cbCut + 1) / 2 * 2;
        Put("\xFF\xFE", 2);
        Put(contents.get() + (cbLines - cbKeep), cbKeep);
        if (ftruncate(m_nFile, static_cast<off_t>(cbKeep) + 2) != 0) {
            std::abort();
        }
    }

    std::wstring m_strFileName;
    std::wstring m_strOpenName;  // while a file is open
    off_t m_cbMost;
    int m_nFile = -1;
};

}  // namespace bench
