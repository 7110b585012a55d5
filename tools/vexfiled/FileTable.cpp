#include "FileTable.h"

#include <sys/random.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace vexfiled {

FileTable::FileTable(Limits limits, IdSource fnIds, Clock fnClock)
    : m_limits(limits), m_fnIds(std::move(fnIds)), m_fnClock(std::move(fnClock)) {}

bool FileTable::HasRoom() {
    if (m_files.size() >= m_limits.cMaxFiles) {
        CloseExpired();
    }
    return m_files.size() < m_limits.cMaxFiles;
}

DWORD FileTable::Add(vexposix::FileDescriptor descriptor, const std::string& strName) {
    std::uint64_t uId = 0;
    while (uId == 0 || m_files.contains(uId)) {
        uId = m_fnIds();
    }
    m_files.try_emplace(uId, std::move(descriptor), strName, m_fnClock());
    return uId;
}

OpenFile* FileTable::Use(DWORD dwFileID) {
    const auto found = m_files.find(dwFileID);
    if (found == m_files.end()) {
        return nullptr;
    }
    if (IsExpired(found->second)) {
        m_files.erase(found);
        return nullptr;
    }
    found->second.lastUse = m_fnClock();
    return &found->second.file;
}

std::size_t FileTable::CloseExpired() {
    return std::erase_if(m_files, [this](const auto& item) { return IsExpired(item.second); });
}

std::uint64_t FileTable::RandomId() {
    std::uint64_t uId = 0;
    while (getrandom(&uId, sizeof uId, 0) != static_cast<ssize_t>(sizeof uId)) {
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "getrandom");
        }
    }
    return uId;
}

}  // namespace vexfiled
