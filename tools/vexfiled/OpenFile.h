// A file that one client has opened, with its position. For one thread.
//
// Results called errno are errno values, 0 for success.
#pragma once

#include <string>
#include <utility>

#include "posix/FileDescriptor.h"
#include "posix/FileIo.h"

namespace vexfiled {

class OpenFile {
public:
    // strName: for the log.
    OpenFile(vexposix::FileDescriptor descriptor, std::string strName)
        : m_descriptor(std::move(descriptor)), m_strName(std::move(strName)) {}

    const std::string& Name() const { return m_strName; }

    void SeekTo(off_t nPosition);

    // Until the next SeekTo or Read the position is the end of the file, even if others move the end.
    void SeekToEnd() { m_bAtEnd = true; }

    // Returns errno.
    int GetSize(off_t& cbSize) const { return vexposix::GetSize(m_descriptor.Get(), cbSize); }

    // Both start at the position and advance it. If a write at the end fails halfway, its bytes are removed, so that no
    // partial record stays in the file.
    vexposix::Transfer Read(void* pBuffer, std::size_t cbBuffer);
    vexposix::Transfer Write(const void* pData, std::size_t cbData);

    // Cuts the file, or extends it with zeroes, to the position. Returns errno.
    int EndAtPosition();

private:
    vexposix::FileDescriptor m_descriptor;
    std::string m_strName;
    off_t m_nPosition = 0;
    bool m_bAtEnd = false;
};

}  // namespace vexfiled
