// A regular file with a position of its own. Results called errno are errno values, 0 for success.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <utility>

#include "VEXMutex.h"
#include "VEXThreadSafety.h"
#include "compat/FileLock.h"
#include "posix/FileDescriptor.h"
#include "posix/FileIo.h"

namespace vextk {

// Any thread may call any member. The calls run one after the other.
class RegularFile {
public:
    // lock: the lock of the descriptor's file.
    RegularFile(vexposix::FileDescriptor descriptor, FileLock lock)
        : m_descriptor(std::move(descriptor)), m_lock(std::move(lock)) {}
    RegularFile(const RegularFile&) = delete;
    RegularFile& operator=(const RegularFile&) = delete;
    ~RegularFile() { m_lock.EndByClosing(m_descriptor); }

    // Both start at the position and move it forward.
    vexposix::Transfer Read(void* pBuffer, std::size_t cbBuffer);
    vexposix::Transfer Write(const void* pData, std::size_t cbData);

    void SeekTo(off_t nPosition);

    // Cuts the file, or extends it with zeroes, to the position. Returns errno.
    int EndAtPosition();

    // Returns errno.
    int GetSize(off_t& cbSize);

    // Releases the lock for others, unless something was written since the last Flush. The next Read, Write, GetSize or
    // EndAtPosition takes it again.
    void Flush();

private:
    vexposix::FileDescriptor m_descriptor;
    CVEXMutex m_mutex;
    FileLock m_lock VEX_GUARDED_BY(m_mutex);
    off_t m_nPosition VEX_GUARDED_BY(m_mutex) = 0;
    bool m_bWritten VEX_GUARDED_BY(m_mutex) = false;  // since the last Flush
};

}  // namespace vextk
