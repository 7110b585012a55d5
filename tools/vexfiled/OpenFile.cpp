#include "OpenFile.h"

namespace vexfiled {

void OpenFile::SeekTo(off_t nPosition) {
    m_file.SeekTo(nPosition);
    m_bAtEnd = false;
}

OpenFile::Transfer OpenFile::Read(void* pBuffer, std::size_t cbBuffer) {
    const int nErrno = FindPosition();
    m_bAtEnd = false;
    return nErrno == 0 ? m_file.Read(pBuffer, cbBuffer) : Transfer{0, nErrno};
}

OpenFile::Transfer OpenFile::Write(const void* pData, std::size_t cbData) {
    const int nErrno = FindPosition();
    return nErrno == 0 ? m_file.Write(pData, cbData) : Transfer{0, nErrno};
}

int OpenFile::EndAtPosition() {
    return m_bAtEnd ? 0 : m_file.EndAtPosition();
}

// The end is asked for anew each time: other clients may have moved it. Between this and the write nothing of theirs
// can come, as the server does one thing at a time.
int OpenFile::FindPosition() {
    if (!m_bAtEnd) {
        return 0;
    }
    off_t cbSize = 0;
    const int nErrno = m_file.GetSize(cbSize);
    if (nErrno == 0) {
        m_file.SeekTo(cbSize);
    }
    return nErrno;
}

}  // namespace vexfiled
