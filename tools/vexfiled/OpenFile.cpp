#include "OpenFile.h"

namespace vexfiled {

using vexposix::Transfer;

void OpenFile::SeekTo(off_t nPosition) {
    m_nPosition = nPosition;
    m_bAtEnd = false;
}

// Read and Write ask for the end each time, because other clients may have moved it. They cannot move it before the
// transfer, because the server does one thing at a time.
Transfer OpenFile::Read(void* pBuffer, std::size_t cbBuffer) {
    if (m_bAtEnd) {
        m_bAtEnd = false;
        if (const int nErrno = GetSize(m_nPosition); nErrno != 0) {
            return {0, nErrno};
        }
    }
    const Transfer transfer = vexposix::ReadAt(m_descriptor.Get(), pBuffer, cbBuffer, m_nPosition);
    m_nPosition += static_cast<off_t>(transfer.cb);
    return transfer;
}

Transfer OpenFile::Write(const void* pData, std::size_t cbData) {
    if (m_bAtEnd) {
        if (const int nErrno = GetSize(m_nPosition); nErrno != 0) {
            return {0, nErrno};
        }
    }
    Transfer transfer = vexposix::WriteAt(m_descriptor.Get(), pData, cbData, m_nPosition);
    const bool bTornAtEnd = m_bAtEnd && transfer.nErrno != 0 && transfer.cb > 0;
    if (bTornAtEnd && vexposix::SetSize(m_descriptor.Get(), m_nPosition) == 0) {
        transfer.cb = 0;
    }
    m_nPosition += static_cast<off_t>(transfer.cb);
    return transfer;
}

int OpenFile::EndAtPosition() {
    return m_bAtEnd ? 0 : vexposix::SetSize(m_descriptor.Get(), m_nPosition);
}

}  // namespace vexfiled
