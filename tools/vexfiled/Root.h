// The directory that holds the server's files. No name leads out of it: each component is opened from the descriptor of
// its parent, and no symbolic link is followed. Any thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <variant>

#include "FileName.h"
#include "posix/OpenFile.h"

namespace vexfiled {

class Root {
public:
    // Throws std::system_error if the directory does not exist or is not writable. Here strPath may contain symbolic
    // links.
    explicit Root(const std::string& strPath);

    // Whether its mode lets other users create files and links in it.
    bool IsWritableByOthers() const { return m_bWritableByOthers; }

    // The user who owns it.
    uid_t Owner() const { return m_owner; }

    // Opens a regular file. Creates it (mode 0600) and its parent directories (0700) if they are missing. Never waits
    // on a pipe or device. Refuses symbolic links anywhere in the name, and files with hard links: such a file may be
    // somebody else's, from outside the root.
    std::variant<vexposix::OpenedFile, Refusal> Open(std::string_view strName) const;

private:
    vexposix::FileDescriptor m_descriptor;
    bool m_bWritableByOthers = false;
    uid_t m_owner = 0;
};

}  // namespace vexfiled
