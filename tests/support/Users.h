// Other users of the machine, for tests that root runs.
#pragma once

#include <grp.h>
#include <unistd.h>

#include <cstdlib>

inline constexpr uid_t kSomebody = 65534;
inline constexpr uid_t kSomebodyElse = 65533;

// Gives up root's rights for good; for child processes. Does nothing for an ordinary user. False when it fails.
inline bool BecomeUser(uid_t user) {
    return geteuid() != 0 || (setgroups(0, nullptr) == 0 && setgid(user) == 0 && setuid(user) == 0);
}

// Acts as the user while it exists; for root. The sockets and files made meanwhile belong to the user.
class AsUser {
public:
    explicit AsUser(uid_t user) : m_before(geteuid()), m_bDone(seteuid(user) == 0) {}
    AsUser(const AsUser&) = delete;
    AsUser& operator=(const AsUser&) = delete;
    ~AsUser() {
        if (m_bDone && seteuid(m_before) != 0) {
            std::abort();
        }
    }
    bool Done() const { return m_bDone; }

private:
    uid_t m_before;
    bool m_bDone;
};
