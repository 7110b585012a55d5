#include "OutputGroup.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <system_error>
#include <utility>

namespace tools {
namespace {

// Every member has an open descriptor until it is in place. Most of those that the process may have are left to others.
std::size_t MostMembers() {
    constexpr std::size_t kMost = kMostTemporaryFiles / 2;
    constexpr rlim_t kShare = 4;
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return 1;
    }
    return std::clamp<std::size_t>(limit.rlim_cur / kShare, 1, kMost);
}

}  // namespace

OutputGroup::OutputGroup(Failed fnFailed) : m_fnFailed(std::move(fnFailed)), m_cMost(MostMembers()) {}

void OutputGroup::Add(std::unique_ptr<OutputFile> file, std::size_t nNumber) {
    m_members.push_back({std::move(file), nNumber});
    if (m_members.size() >= m_cMost) {
        Commit();
    }
}

void OutputGroup::Commit() {
    // The members may be on several file systems: an output may be a symbolic link.
    std::map<dev_t, int> errors;
    const std::vector<Member> members = std::exchange(m_members, {});
    for (const Member& member : members) {
        try {
            struct stat status = {};
            if (fstat(member.file->Descriptor(), &status) != 0) {
                throw std::system_error(errno, std::generic_category(), "fstat");
            }
            if (S_ISREG(status.st_mode)) {
                const auto [place, bNew] = errors.try_emplace(status.st_dev, 0);
                if (bNew && syncfs(member.file->Descriptor()) != 0) {
                    place->second = errno;
                }
                if (place->second != 0) {
                    throw std::system_error(place->second, std::generic_category(), "cannot write to the disk");
                }
            }
            member.file->CommitSynced();
        } catch (const std::exception& reason) {
            m_fnFailed(member.nNumber, reason);
        }
    }
}

}  // namespace tools
