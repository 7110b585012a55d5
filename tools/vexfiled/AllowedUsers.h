// The users whose programs are served. For one thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace vexfiled {

// The user with this name or number. Nothing: there is no user with this name. May ask the network.
std::optional<uid_t> FindUser(const std::string& strUser);

// The number that the kernel shows for every user that is missing in this process's user namespace. Nothing: no user is
// missing.
std::optional<uid_t> StandInForHiddenUsers();

class AllowedUsers {
public:
    // The server's own user and root are always among them. Throws std::runtime_error for an unknown name.
    explicit AllowedUsers(std::vector<std::string> users);

    bool Contains(uid_t user) const { return !IsHidden(user) && m_allowed.contains(user); }

    // Whether this number may be any user. Such a number is never served, not even the server's own.
    bool IsHidden(uid_t user) const { return m_standIn == user; }

    // Looks the names up again. Throws std::runtime_error for a name that is unknown by now; nothing changes then.
    void LookUp();

    // "user 1000 (its own), root, user 1001 (bob)"
    std::string Text() const;

private:
    std::vector<std::string> m_users;
    std::set<uid_t> m_allowed;
    std::optional<uid_t> m_standIn = StandInForHiddenUsers();
};

}  // namespace vexfiled
