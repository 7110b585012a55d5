#include "SocketUsers.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <functional>
#include <system_error>
#include <utility>

#include "Text.h"

namespace vexfiled {
namespace {

namespace fs = std::filesystem;

// Calls fnEntry for each entry. A process may end meanwhile, and those of other users cannot be read.
template <typename Function>
void ForEachEntry(const fs::path& directory, Function fnEntry) {
    std::error_code error;
    for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
        fnEntry(it->path());
    }
}

// The number in "socket:[number]"; 0 for other texts.
std::uint32_t InodeIn(const std::string& strLink) {
    constexpr std::string_view kBefore = "socket:[";
    std::uint32_t uInode = 0;
    if (strLink.starts_with(kBefore)) {
        std::from_chars(strLink.data() + kBefore.size(), strLink.data() + strLink.size(), uInode);
    }
    return uInode;
}

std::string NameOf(const fs::path& process) {
    std::string strName;
    std::getline(std::ifstream(process / "comm"), strName);
    return strName;
}

std::string HolderText(const SocketOwner& owner, const Process& process) {
    if (process.nId == 0) {
        return Text("a process of user ", owner.user);
    }
    return Text("process ", process.nId, " (", Quoted(process.strName), ") of user ", owner.user);
}

}  // namespace

std::map<std::uint32_t, Process> FindProcesses(const std::set<std::uint32_t>& inodes) {
    std::map<std::uint32_t, Process> found;
    ForEachEntry("/proc", [&](const fs::path& process) {
        int nId = 0;
        const std::string strNumber = process.filename();
        if (std::from_chars(strNumber.data(), strNumber.data() + strNumber.size(), nId).ec != std::errc()) {
            return;
        }
        ForEachEntry(process / "fd", [&](const fs::path& descriptor) {
            std::error_code ignored;
            const std::uint32_t uInode = InodeIn(fs::read_symlink(descriptor, ignored));
            if (uInode != 0 && inodes.contains(uInode) && !found.contains(uInode)) {
                found[uInode] = {nId, NameOf(process)};
            }
        });
    });
    return found;
}

std::string HolderText(const SocketOwner& owner) {
    return HolderText(owner, FindProcesses({owner.uInode})[owner.uInode]);
}

std::string HoldersText(const std::vector<SocketOwner>& owners) {
    std::set<std::uint32_t> inodes;
    for (const SocketOwner& owner : owners) {
        inodes.insert(owner.uInode);
    }
    auto processes = FindProcesses(inodes);
    std::map<std::string, int> counts;
    for (const SocketOwner& owner : owners) {
        ++counts[HolderText(owner, processes[owner.uInode])];
    }
    std::vector<std::pair<int, std::string>> holders;
    holders.reserve(counts.size());
    for (const auto& [strHolder, c] : counts) {
        holders.emplace_back(c, strHolder);
    }
    std::sort(holders.begin(), holders.end(), std::greater<>());
    constexpr std::size_t kMost = 5;
    std::string strText;
    for (std::size_t i = 0; i < holders.size() && i < kMost; ++i) {
        strText += Text(i == 0 ? "" : ", ", holders[i].first, " by ", holders[i].second);
    }
    return holders.size() > kMost ? strText + ", and others" : strText;
}

}  // namespace vexfiled
