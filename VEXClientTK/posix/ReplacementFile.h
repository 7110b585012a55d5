// A new file beside another one. It takes the other one's place when it is complete. One thread at a time.
#pragma once

#include <sys/types.h>

#include <string>

#include "posix/FileDescriptor.h"

namespace vexposix {

class ReplacementFile {
public:
    // Creates strName, which must not exist, with nMode as the umask leaves it. nDirectory, which stays the caller's:
    // as for openat. Not open, with errno, on failure.
    ReplacementFile(int nDirectory, std::string strName, mode_t nMode) noexcept;
    // Removes the file unless it has moved.
    ~ReplacementFile();
    ReplacementFile(const ReplacementFile&) = delete;
    ReplacementFile& operator=(const ReplacementFile&) = delete;

    bool IsOpen() const { return m_file.IsOpen(); }
    int Descriptor() const { return m_file.Get(); }
    const std::string& Name() const { return m_strName; }

    // Waits until the file is on the disk, closes it and gives it the name pszTarget, in the same directory. Readers
    // see the old file or the whole new one. Returns errno.
    int MoveTo(const char* pszTarget) noexcept;

private:
    int m_nDirectory;
    std::string m_strName;
    FileDescriptor m_file;
    bool m_bThere;  // the file has its first name
};

}  // namespace vexposix
