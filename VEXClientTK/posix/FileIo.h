// Reads and writes that continue after signals and short counts. Any thread; nothing here throws or allocates.
//
// Results called errno are errno values, 0 for success.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string_view>

namespace vexposix {

// The bytes that were transferred before the end of the file or an error.
struct Transfer {
    std::size_t cb = 0;
    int nErrno = 0;
};

// Neither moves the descriptor's position. A short write without an error fails with EIO.
Transfer ReadAt(int nDescriptor, void* pBuffer, std::size_t cbBuffer, off_t nPosition) noexcept;
Transfer WriteAt(int nDescriptor, const void* pData, std::size_t cbData, off_t nPosition) noexcept;

// One read, repeated only after a signal. Returns what read does. Waits for the bytes also if the descriptor does not
// block (O_NONBLOCK), as one that was inherited from another program may be.
ssize_t ReadSome(int nDescriptor, void* pBuffer, std::size_t cbBuffer) noexcept;

// Writes all of the bytes at the descriptor's position. Waits like ReadSome. Returns errno.
int WriteAll(int nDescriptor, std::string_view bytes) noexcept;

// Cuts a file, or extends it with zeroes. Returns errno.
int SetSize(int nDescriptor, off_t cbSize) noexcept;

// Moves the descriptor's position, but takes half the time of fstat. Returns errno.
int GetSize(int nDescriptor, off_t& cbSize) noexcept;

}  // namespace vexposix
