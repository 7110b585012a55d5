// Who holds sockets, for log lines.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "SocketOwners.h"

namespace vexfiled {

struct Process {
    int nId = 0;
    std::string strName;
};

// The processes that have these sockets open, by inode. Only processes that the server may look into are found: those
// of its own user, or all of them if it runs as root. Looks at every process of the machine, so it takes time.
std::map<std::uint32_t, Process> FindProcesses(const std::set<std::uint32_t>& inodes);

// "process 123 (java) of user 1000", or "a process of user 1000"
std::string HolderText(const SocketOwner& owner);

// "60 by process 123 (java) of user 1000, 4 by a process of user 1001", the largest number first.
std::string HoldersText(const std::vector<SocketOwner>& owners);

}  // namespace vexfiled
