// A new file beside another one, to take its place when it is complete.
#pragma once

#include <sys/types.h>

#include <string>

#include "FileHandle.h"

namespace tools {

// The file is removed at the object's end, and when a signal ends the process (SIGHUP, SIGINT, SIGQUIT, SIGTERM, unless
// the process ignores or handles it). SIGKILL leaves it behind. One thread at a time.
class TemporaryFile {
public:
    // Made in the directory of strPath, with nMode as the umask leaves it. Throws std::system_error with strPath.
    TemporaryFile(const std::string& strPath, mode_t nMode);
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    int Descriptor() const { return m_file.Get(); }

    // On the disk, and in the place of strPath, which is in the same directory. Throws std::system_error with strPath.
    void MoveTo(const std::string& strPath);

private:
    FileHandle m_file;
    std::string m_strName;
    bool m_bMoved = false;
};

}  // namespace tools
