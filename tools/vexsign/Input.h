// The file that is signed, read once from its beginning to its end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "posix/FileDescriptor.h"

namespace vexsign {

class Input {
public:
    // strName "-" is standard input. All members throw std::runtime_error with the name and the reason.
    explicit Input(const std::string& strName);

    // The name for messages.
    const std::string& Name() const { return m_strName; }

    // What a regular file still has to read now; 0 for anything else. A file may change while it is read.
    std::uint64_t BytesLeft() const;

    // The size of a buffer that makes the file take few calls, at most cbMost. Small for a small file: clearing a
    // large buffer takes longer than reading such a file.
    std::size_t GoodBuffer(std::size_t cbMost) const;

    // Fills the buffer, less only at the end of the file. Returns the number of bytes.
    std::size_t Read(char* pchBuffer, std::size_t cbBuffer);

private:
    std::string m_strName;
    vexposix::FileDescriptor m_file;
    int m_nDescriptor;
    bool m_bEnd = false;  // a terminal would have to be told its end again
};

}  // namespace vexsign
