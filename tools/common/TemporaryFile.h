// A temporary file that replaces another file when it is complete. A signal that ends the process removes it.
#pragma once

#include <array>
#include <csignal>
#include <cstddef>
#include <optional>
#include <string>

#include "posix/ReplacementFile.h"

namespace tools {

// The signals that remove temporary files, unless the process ignores or handles them.
inline constexpr std::array kEndingSignals = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

// A signal removes as many files as this that exist at the same time.
inline constexpr std::size_t kMostTemporaryFiles = 256;

// The destructor removes the file; so does a signal that ends the process (kEndingSignals). SIGKILL leaves it behind.
// One thread at a time; in a process with several threads, the others block these signals.
class TemporaryFile {
public:
    // Creates the file in the directory of strPath, with the bits of nMode that the umask allows. Throws
    // std::system_error with strPath.
    TemporaryFile(const std::string& strPath, mode_t nMode);
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    int Descriptor() const { return m_file->Descriptor(); }

    // Writes the file to the disk and renames it to strPath, which must be in the same directory. Throws
    // std::system_error with strPath.
    void MoveTo(const std::string& strPath);
    // The same for a file that the caller has already brought to the disk.
    void MoveSyncedTo(const std::string& strPath);

private:
    std::optional<vexposix::ReplacementFile> m_file;
};

}  // namespace tools
