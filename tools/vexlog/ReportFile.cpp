#include "ReportFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "FileHandle.h"

namespace vexlog {
namespace {

[[noreturn]] void ThrowError(const std::string& strPath) {
    throw std::system_error(errno, std::generic_category(), strPath);
}

// Removes a file unless it was kept.
class TemporaryName {
public:
    explicit TemporaryName(std::string strPath) : m_strPath(std::move(strPath)) {}
    TemporaryName(const TemporaryName&) = delete;
    TemporaryName& operator=(const TemporaryName&) = delete;
    ~TemporaryName() {
        if (!m_bKept) {
            unlink(m_strPath.c_str());
        }
    }
    void RenameTo(const std::string& strPath) {
        if (rename(m_strPath.c_str(), strPath.c_str()) != 0) {
            ThrowError(strPath);
        }
        m_bKept = true;
    }

private:
    std::string m_strPath;
    bool m_bKept = false;
};

mode_t UsualMode() {
    const mode_t nMask = umask(0);
    umask(nMask);
    return 0666 & ~nMask;
}

void WriteTo(int nDescriptor, const std::function<void(OutputBuffer&)>& fnWrite) {
    OutputBuffer output(nDescriptor);
    fnWrite(output);
    output.Flush();
}

void Replace(const std::string& strPath, const std::function<void(OutputBuffer&)>& fnWrite) {
    std::string strTemporary = strPath + ".XXXXXX";
    FileHandle file(mkostemp(strTemporary.data(), O_CLOEXEC));
    if (!file.IsOpen()) {
        ThrowError(strPath);
    }
    TemporaryName name(strTemporary);
    WriteTo(file.Get(), fnWrite);
    if (fchmod(file.Get(), UsualMode()) != 0 || close(file.Release()) != 0) {
        ThrowError(strPath);
    }
    name.RenameTo(strPath);
}

}  // namespace

void WriteReportFile(const std::string& strPath, const std::function<void(OutputBuffer&)>& fnWrite) {
    struct stat status = {};
    if (strPath == "-") {
        WriteTo(STDOUT_FILENO, fnWrite);
    } else if (stat(strPath.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        const FileHandle file(open(strPath.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY));
        if (!file.IsOpen()) {
            ThrowError(strPath);
        }
        WriteTo(file.Get(), fnWrite);
    } else {
        Replace(strPath, fnWrite);
    }
}

}  // namespace vexlog
