// An output that is there whole or not at all: a file that it replaces stays as it was until all is written.
#pragma once

#include <optional>
#include <string>

#include "TemporaryFile.h"
#include "posix/FileDescriptor.h"

namespace tools {

// A new file has the rights that the umask leaves. One that is replaced keeps its rights, its owner and group where
// that is allowed, and the symbolic links that lead to it; other hard links keep the old content. What is no regular
// file, standard output ("-") and the descriptors of this process (/dev/stdout) are written to as they are.
class OutputFile {
public:
    // Throws std::system_error with the path: also for a file that must not be written.
    explicit OutputFile(const std::string& strPath);

    int Descriptor() const { return m_temporary ? m_temporary->Descriptor() : m_direct.Get(); }

    // All is written. Without this call nothing has changed, except what was written to no regular file. Throws
    // std::system_error with the path.
    void Commit();

private:
    const std::string m_strName;  // as it was given
    std::string m_strPath;        // behind the symbolic links
    std::optional<TemporaryFile> m_temporary;
    vexposix::FileDescriptor m_direct;
};

}  // namespace tools
