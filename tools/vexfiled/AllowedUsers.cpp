#include "AllowedUsers.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <utility>

#include "Text.h"

namespace vexfiled {
namespace {

constexpr uid_t kRoot = 0;

bool IsNumber(const std::string& strText) {
    return !strText.empty() &&
           std::all_of(strText.begin(), strText.end(), [](char ch) { return ch >= '0' && ch <= '9'; });
}

}  // namespace

std::optional<uid_t> FindUser(const std::string& strUser) {
    if (IsNumber(strUser)) {
        uid_t user = 0;
        const auto [pEnd, error] = std::from_chars(strUser.data(), strUser.data() + strUser.size(), user);
        // The largest number means "no user" to the system.
        if (error != std::errc() || user == std::numeric_limits<uid_t>::max()) {
            return std::nullopt;
        }
        return user;
    }
    const passwd* const pEntry = getpwnam(strUser.c_str());
    return pEntry == nullptr ? std::nullopt : std::optional(pEntry->pw_uid);
}

std::optional<uid_t> StandInForHiddenUsers() {
    std::uint64_t cMapped = 0;
    std::ifstream map("/proc/self/uid_map");
    for (std::uint64_t uInside = 0, uOutside = 0, cUsers = 0; map >> uInside >> uOutside >> cUsers;) {
        cMapped += cUsers;
    }
    if (cMapped >= std::numeric_limits<uid_t>::max()) {
        return std::nullopt;
    }
    constexpr uid_t kUsual = 65534;
    uid_t standIn = kUsual;
    std::ifstream setting("/proc/sys/kernel/overflowuid");
    return setting >> standIn ? standIn : kUsual;
}

AllowedUsers::AllowedUsers(std::vector<std::string> users) : m_users(std::move(users)) {
    LookUp();
}

void AllowedUsers::LookUp() {
    std::set<uid_t> allowed{geteuid(), kRoot};
    for (const std::string& strUser : m_users) {
        const auto user = FindUser(strUser);
        if (!user) {
            throw std::runtime_error(vexfiled::Text("there is no user ", Quoted(strUser)));
        }
        allowed.insert(*user);
    }
    m_allowed = std::move(allowed);
}

std::string AllowedUsers::Text() const {
    std::string strText =
        geteuid() == kRoot ? "root (its own)" : vexfiled::Text("user ", geteuid(), " (its own), root");
    for (const std::string& strUser : m_users) {
        strText += ", user ";
        strText += strUser;
        if (const auto user = FindUser(strUser); !IsNumber(strUser) && user) {
            strText += vexfiled::Text(" (", *user, ")");
        }
    }
    return strText;
}

}  // namespace vexfiled
