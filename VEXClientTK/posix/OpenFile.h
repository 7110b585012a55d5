// The one way to open a regular file: what stands at the name is checked before anybody uses it. Any thread.
#pragma once

#include <fcntl.h>

#include <functional>

#include "posix/FileDescriptor.h"

namespace vexposix {

enum class Owner {
    kAnybody,
    kUserOrRoot,
    kUser,  // the effective one
};

// What a file has to be like. Whatever the rules are, pipes and devices of the name are refused without waiting for
// them, and a new program does not inherit the descriptor.
struct FileRules {
    int nAccess;         // O_RDONLY or O_RDWR
    bool bFollowsLink;   // through a symbolic link at the name itself
    bool bMayHaveLinks;  // a file with several names (hard links)
    Owner owner;
    bool bMadePrivate;  // its mode becomes 0600
};

// A file that the user names, to be read.
inline constexpr FileRules kInput{O_RDONLY, true, true, Owner::kAnybody, false};
// A file that only this user reads and writes.
inline constexpr FileRules kPrivateInput{O_RDONLY, false, true, Owner::kUser, true};
inline constexpr FileRules kPrivate{O_RDWR, false, true, Owner::kUser, true};
// A file whose name everybody on the machine knows. Another user could grow or lock a file of his own at any time; one
// of root's is shared on purpose. A second name may be that of a file that its owner keeps elsewhere.
inline constexpr FileRules kKnownName{O_RDWR, false, false, Owner::kUserOrRoot, false};
// A file below a directory that others may not leave.
inline constexpr FileRules kConfined{O_RDWR, false, false, Owner::kAnybody, false};

struct OpenedFile {
    FileDescriptor descriptor;  // not open: nErrno says why
    bool bCreated = false;
    int nErrno = 0;
};

// nDirectory: where a relative name starts; AT_FDCWD is the current directory.
//
// The errno of a file that breaks a rule: ELOOP, a symbolic link; EISDIR or EINVAL, no regular file; EMLINK, hard
// links; EPERM, the owner. EBUSY: signals interrupt the call again and again.
OpenedFile OpenFile(int nDirectory, const char* pszName, const FileRules& rules) noexcept;

// Creates a missing file with mode 0600. ENOENT: there is no such directory. EBUSY: others create and remove the file
// again and again, or signals interrupt the calls. May throw std::bad_alloc.
//
// fnBeforeName, if there is one, gets a new file's descriptor before the file has its name, so that nobody else can
// come first. Where the file system has no nameless files, it comes after; bCreated is false then if somebody else has
// written to the file.
OpenedFile OpenOrCreateFile(int nDirectory, const char* pszName, const FileRules& rules,
                            const std::function<void(int nDescriptor)>& fnBeforeName = {});

}  // namespace vexposix
