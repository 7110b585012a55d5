// Other users of the machine, for tests that root runs.
#pragma once

#include <grp.h>
#include <unistd.h>

inline constexpr uid_t kSomebody = 65534;
inline constexpr uid_t kSomebodyElse = 65533;

// Gives up root's rights for good; for child processes. Does nothing for an ordinary user. False when it fails.
inline bool BecomeUser(uid_t user) {
    return geteuid() != 0 || (setgroups(0, nullptr) == 0 && setgid(user) == 0 && setuid(user) == 0);
}
