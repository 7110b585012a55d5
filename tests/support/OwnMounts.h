// Mounts that no other process sees. For child processes: they keep them to their end.
#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <string>

// False where the system does not allow them.
inline bool HaveOwnMounts() {
    if (unshare(geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return false;
    }
    return mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0;
}

// A file system in memory, for everybody to write to.
inline bool MountSmall(const std::string& strPath, unsigned long nFlags = 0) {
    return mount("vextest", strPath.c_str(), "tmpfs", nFlags, "size=64k,mode=777") == 0;
}
