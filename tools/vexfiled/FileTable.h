// The open files and their IDs. Every connection may use every ID, until the ID is closed or unused for a while.
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
        std::chrono::seconds maxIdle{60};  // an ID that is unused for this time expires
    };
    using Clock = std::function<std::chrono::steady_clock::time_point()>;
    using IdSource = std::function<std::uint64_t()>;

    // IDs come from fnIds; 0 and numbers in use are skipped.
    explicit FileTable(Limits limits, IdSource fnIds = RandomId, Clock fnClock = std::chrono::steady_clock::now);

    // Whether another file can be opened. Closes expired files when the table is full.
    bool HasRoom();

    // Call this only if HasRoom. Returns the ID, which is not 0.
    DWORD Add(vexposix::FileDescriptor descriptor, const std::string& strName);

    // Null: the ID was never given out, is closed or has expired. The pointer is valid until another member is called.
    OpenFile* Use(DWORD dwFileID);

    void Close(DWORD dwFileID) { m_files.erase(dwFileID); }

    // Returns the number of files it closed.
    std::size_t CloseExpired();

    std::size_t Count() const { return m_files.size(); }

    // A number that no other user can guess. Throws std::system_error if the kernel gives none.
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
