// The one way to open a regular file. The file is checked before anybody uses it. Any thread.
#pragma once

#include <fcntl.h>

#include <cstddef>
#include <functional>

#include "posix/FileDescriptor.h"
#include "posix/FileIo.h"

namespace vexposix {

enum class Owner {
    kAnybody,
    kUserOrRoot,
    kUser,  // the effective user of the process
};

// What a file must be like. All rules refuse pipes and devices without waiting for them, and programs that the process
// starts do not inherit the descriptor.
struct FileRules {
    int nAccess;         // O_RDONLY or O_RDWR
    bool bFollowsLink;   // if the name itself is a symbolic link
    bool bMayHaveLinks;  // a file with several names (hard links)
    Owner owner;
    bool bMadePrivate;  // its mode becomes 0600
};

// A file that the user names, to be read.
inline constexpr FileRules kInput{O_RDONLY, true, true, Owner::kAnybody, false};
// A file that only this user reads and writes.
inline constexpr FileRules kPrivateInput{O_RDONLY, false, true, Owner::kUser, true};
inline constexpr FileRules kPrivate{O_RDWR, false, true, Owner::kUser, true};
// A file whose name everybody on the machine knows. Another user's file is refused, because that user could grow or
// lock it at any time. A file of root is shared on purpose. A file with hard links is refused, because its other name
// may be one that its owner uses for something else.
inline constexpr FileRules kKnownName{O_RDWR, false, false, Owner::kUserOrRoot, false};
// A file below a directory that clients must not leave.
inline constexpr FileRules kConfined{O_RDWR, false, false, Owner::kAnybody, false};

struct OpenedFile {
    FileDescriptor descriptor;  // not open: nErrno says why
    bool bCreated = false;
    int nErrno = 0;
    std::size_t cbSize = 0;  // when it was opened
};

// nDirectory: the directory of a relative name; AT_FDCWD is the current directory.
//
// The errno of a file that breaks a rule: ELOOP, a symbolic link; EISDIR or EINVAL, not a regular file; EMLINK, hard
// links; EPERM, the owner. EBUSY: signals interrupt the call again and again.
OpenedFile OpenFile(int nDirectory, const char* pszName, const FileRules& rules) noexcept;

// Creates a missing file with mode 0600. ENOENT: there is no such directory. EBUSY: others create and remove the file
// again and again, or signals interrupt the calls. May throw std::bad_alloc.
//
// fnBeforeName, if there is one, is called with a new file's descriptor before the file has its name, so that nobody
// else can use the file earlier. On a file system without nameless files, it is called when the file has its name;
// bCreated is then false if somebody else has written to the file.
OpenedFile OpenOrCreateFile(int nDirectory, const char* pszName, const FileRules& rules,
                            const std::function<void(int nDescriptor)>& fnBeforeName = {});

// Reads a whole file. fnRoom(size) makes room for so many bytes. The result has fewer if the file was cut meanwhile.
// Its errno: that of opening; EFBIG: the file is larger than cbLimit.
Transfer ReadWhole(const OpenedFile& file, std::size_t cbLimit, const std::function<char*(std::size_t cb)>& fnRoom);

}  // namespace vexposix
