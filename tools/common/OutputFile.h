// An output file that appears only when it is complete. A file that it replaces stays unchanged until then.
#pragma once

#include <optional>
#include <string>

#include "TemporaryFile.h"
#include "posix/FileDescriptor.h"

namespace tools {

// A new file has the rights that the umask allows. A replaced file keeps its rights, the symbolic links that lead to it
// and, where allowed, its owner and group; other hard links keep the old content. Devices, pipes, standard output ("-")
// and other descriptors of this process (/dev/stdout) are written to directly.
class OutputFile {
public:
    // Throws std::system_error with the path, also if the user may not write to the existing file.
    explicit OutputFile(const std::string& strPath);

    int Descriptor() const { return m_temporary ? m_temporary->Descriptor() : m_direct.Get(); }

    // Call this when all is written. Without it nothing changes, except an output that is written to directly. Throws
    // std::system_error with the path.
    void Commit();
    // The same for a file that the caller has already brought to the disk (OutputGroup.h).
    void CommitSynced();

private:
    const std::string m_strName;  // as messages show it
    std::string m_strPath;        // after the symbolic links are resolved
    std::optional<TemporaryFile> m_temporary;
    vexposix::FileDescriptor m_direct;
};

}  // namespace tools
