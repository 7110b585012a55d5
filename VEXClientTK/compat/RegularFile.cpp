#include "compat/RegularFile.h"

#include <utility>

namespace vextk {

vexposix::Transfer RegularFile::Read(void* pBuffer, std::size_t cbBuffer) {
    const CVEXLock lock(m_mutex);
    m_lock.Take(m_descriptor.Get());
    const vexposix::Transfer transfer = vexposix::ReadAt(m_descriptor.Get(), pBuffer, cbBuffer, m_nPosition);
    m_nPosition += static_cast<off_t>(transfer.cb);
    return transfer;
}

vexposix::Transfer RegularFile::Write(const void* pData, std::size_t cbData) {
    const CVEXLock lock(m_mutex);
    m_lock.Take(m_descriptor.Get());
    const vexposix::Transfer transfer = vexposix::WriteAt(m_descriptor.Get(), pData, cbData, m_nPosition);
    m_nPosition += static_cast<off_t>(transfer.cb);
    m_bWritten = true;
    return transfer;
}

void RegularFile::SeekTo(off_t nPosition) {
    const CVEXLock lock(m_mutex);
    m_nPosition = nPosition;
}

int RegularFile::EndAtPosition() {
    const CVEXLock lock(m_mutex);
    m_lock.Take(m_descriptor.Get());
    return vexposix::SetSize(m_descriptor.Get(), m_nPosition);
}

// There is no buffer to write.
void RegularFile::Flush() {
    const CVEXLock lock(m_mutex);
    if (!std::exchange(m_bWritten, false)) {
        m_lock.Release(m_descriptor.Get());
    }
}

// This moves the descriptor's position, which nothing else uses.
int RegularFile::GetSize(off_t& cbSize) {
    const CVEXLock lock(m_mutex);
    m_lock.Take(m_descriptor.Get());
    return vexposix::GetSize(m_descriptor.Get(), cbSize);
}

}  // namespace vextk
