// The directory below which the server has its files. There is no way out of it: a name is walked down component by
// component from the directory's descriptor, and no symbolic link is followed. Any thread.
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
    // Throws std::system_error when there is no such directory, or files cannot be made in it. A path that leads
    // through links is fine here.
    explicit Root(const std::string& strPath);

    // Whether users other than the server's own may make files and links in it.
    bool IsWritableByOthers() const { return m_bWritableByOthers; }

    // The user to whom it belongs.
    uid_t Owner() const { return m_owner; }

    // Opens a regular file, making it (mode 0600) and its parent directories (0700) when they are missing. Never waits
    // on a pipe or device. Links are refused: symbolic ones anywhere in the name, and a file that has a second name,
    // which may be a file of somebody else outside.
    std::variant<vexposix::OpenedFile, Refusal> Open(std::string_view strName) const;

private:
    vexposix::FileDescriptor m_descriptor;
    bool m_bWritableByOthers = false;
    uid_t m_owner = 0;
};

}  // namespace vexfiled
