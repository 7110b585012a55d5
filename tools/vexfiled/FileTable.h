// The open files and their IDs. An ID belongs to no connection; it ends when it is closed or was not used for a while.
// For one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <utility>

#include "OpenFile.h"
#include "VEXType.h"
#include "posix/FileDescriptor.h"

namespace vexfiled {

class FileTable {
public:
    struct Limits {
        std::size_t cMaxFiles = 256;
        std::chrono::seconds maxIdle{60};  // after so long without a use an ID is no more
    };
    using Clock = std::function<std::chrono::steady_clock::time_point()>;
    using IdSource = std::function<std::uint64_t()>;

    // IDs come from fnIds; 0 and numbers in use are passed over.
    explicit FileTable(Limits limits, IdSource fnIds = RandomId, Clock fnClock = std::chrono::steady_clock::now);

    // Whether another file can be opened; closes expired ones.
    bool HasRoom();

    // To be called when there is room. The ID is not 0.
    DWORD Add(vexposix::FileDescriptor descriptor, const std::string& strName);

    // Null: never given out, closed or expired. The file stays at its place until the next call of another member.
    OpenFile* Use(DWORD dwFileID);

    void Close(DWORD dwFileID) { m_files.erase(dwFileID); }

    // Returns how many were closed.
    std::size_t CloseExpired();

    std::size_t Count() const { return m_files.size(); }

    // A number that no other user can guess. Throws std::system_error when the kernel has none.
    static std::uint64_t RandomId();

private:
    using Time = std::chrono::steady_clock::time_point;

    struct Entry {
        Entry(vexposix::FileDescriptor descriptor, std::string strName, Time now)
            : file(std::move(descriptor), std::move(strName)), lastUse(now) {}
        OpenFile file;
        Time lastUse;
    };

    bool IsExpired(const Entry& entry) const { return m_fnClock() - entry.lastUse >= m_limits.maxIdle; }

    Limits m_limits;
    IdSource m_fnIds;
    Clock m_fnClock;
    std::unordered_map<std::uint64_t, Entry> m_files;
};

}  // namespace vexfiled
