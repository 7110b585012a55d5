// Mounts that no other process sees. For child processes: the mounts stay until the process ends.
#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <fstream>
#include <string>

// False when the system does not allow such mounts. An ordinary user keeps the user and group IDs.
inline bool HaveOwnMounts() {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return false;
    }
    if (user != 0) {
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << user << " " << user << " 1";
        std::ofstream("/proc/self/gid_map") << group << " " << group << " 1";
    }
    return mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0;
}

// Mounts a file system in memory to which everybody may write.
inline bool MountSmall(const std::string& strPath, unsigned long nFlags = 0,
                       const char* pszOptions = "size=64k,mode=777") {
    return mount("vextest", strPath.c_str(), "tmpfs", nFlags, pszOptions) == 0;
}
