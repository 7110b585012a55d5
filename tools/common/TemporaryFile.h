// A new file beside another one, to take its place when it is complete. A signal that ends the process removes it.
#pragma once

#include <optional>
#include <string>

#include "posix/ReplacementFile.h"

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

    int Descriptor() const { return m_file->Descriptor(); }

    // On the disk, and in the place of strPath, which is in the same directory. Throws std::system_error with strPath.
    void MoveTo(const std::string& strPath);

private:
    std::optional<vexposix::ReplacementFile> m_file;
};

}  // namespace tools
