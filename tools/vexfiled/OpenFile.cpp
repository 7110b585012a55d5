#include "OpenFile.h"

namespace vexfiled {

void OpenFile::SeekTo(off_t nPosition) {
    m_file.SeekTo(nPosition);
    m_bAtEnd = false;
}

OpenFile::Transfer OpenFile::Read(void* pBuffer, std::size_t cbBuffer) {
    off_t nEnd = 0;
    const int nErrno = m_bAtEnd ? FindEnd(nEnd) : 0;
    m_bAtEnd = false;
    return nErrno == 0 ? m_file.Read(pBuffer, cbBuffer) : Transfer{0, nErrno};
}

OpenFile::Transfer OpenFile::Write(const void* pData, std::size_t cbData) {
    off_t nBefore = 0;
    const int nErrno = m_bAtEnd ? FindEnd(nBefore) : 0;
    if (nErrno != 0) {
        return {0, nErrno};
    }
    Transfer transfer = m_file.Write(pData, cbData);
    if (m_bAtEnd && transfer.nErrno != 0 && transfer.cb > 0) {
        m_file.SeekTo(nBefore);
        transfer.cb = m_file.EndAtPosition() == 0 ? 0 : transfer.cb;
    }
    return transfer;
}

int OpenFile::EndAtPosition() {
    return m_bAtEnd ? 0 : m_file.EndAtPosition();
}

// The end is asked for anew each time: other clients may have moved it. Between this and the write nothing of theirs
// can come, as the server does one thing at a time.
int OpenFile::FindEnd(off_t& nEnd) {
    const int nErrno = m_file.GetSize(nEnd);
    if (nErrno == 0) {
        m_file.SeekTo(nEnd);
    }
    return nErrno;
}

}  // namespace vexfiled
