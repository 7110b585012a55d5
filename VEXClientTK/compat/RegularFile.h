// A regular file with a position of its own. Results called errno are errno values, 0 for success.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <mutex>

#include "compat/FileLock.h"
#include "posix/FileDescriptor.h"
#include "posix/FileIo.h"

namespace vextk {

// Any thread may call any member; calls that use the position run one after the other.
class RegularFile {
public:
    // The lock is the descriptor's.
    RegularFile(vexposix::FileDescriptor descriptor, FileLock lock)
        : m_descriptor(std::move(descriptor)), m_lock(std::move(lock)) {}
    RegularFile(const RegularFile&) = delete;
    RegularFile& operator=(const RegularFile&) = delete;
    ~RegularFile() { m_lock.EndByClosing(m_descriptor); }

    // At the position, which moves on.
    vexposix::Transfer Read(void* pBuffer, std::size_t cbBuffer);
    vexposix::Transfer Write(const void* pData, std::size_t cbData);

    void SeekTo(off_t nPosition);

    // Cuts the file, or extends it with zeroes, to the position. Returns errno.
    int EndAtPosition();

    // Returns errno.
    int GetSize(off_t& cbSize);

    // When nothing was written since the last time: lets other openings have the lock. The next Read, Write, GetSize or
    // EndAtPosition takes it again.
    void Flush();

private:
    vexposix::FileDescriptor m_descriptor;
    std::mutex m_mutex;
    FileLock m_lock;  // guarded by m_mutex, as is the next
    off_t m_nPosition = 0;
    bool m_bWritten = false;  // since Flush; guarded by m_mutex
};

}  // namespace vextk
