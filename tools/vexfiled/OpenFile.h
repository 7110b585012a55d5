// A file as one client has opened it: with a position, or at its end whatever that is. For one thread.
//
// Results called errno are errno values, 0 for success.
#pragma once

#include <string>

#include "FileDescriptor.h"
#include "compat/RegularFile.h"

namespace vexfiled {

class OpenFile {
public:
    // strName: for the log.
    OpenFile(vextk::FileDescriptor descriptor, std::string strName)
        : m_file(std::move(descriptor)), m_strName(std::move(strName)) {}

    const std::string& Name() const { return m_strName; }

    void SeekTo(off_t nPosition);

    // Until the next SeekTo or Read the position is the end of the file, also when others move that.
    void SeekToEnd() { m_bAtEnd = true; }

    // Returns errno.
    int GetSize(off_t& cbSize) { return m_file.GetSize(cbSize); }

    // At the position, which moves on. A write at the end that does not fit leaves nothing in the file, so that no
    // record is there in part.
    using Transfer = vextk::RegularFile::Transfer;
    Transfer Read(void* pBuffer, std::size_t cbBuffer);
    Transfer Write(const void* pData, std::size_t cbData);

    // Cuts the file, or extends it with zeroes, to the position. Returns errno.
    int EndAtPosition();

private:
    int FindEnd(off_t& nEnd);

    vextk::RegularFile m_file;
    std::string m_strName;
    bool m_bAtEnd = false;
};

}  // namespace vexfiled
