// Owns a file descriptor.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace vexposix {

class FileDescriptor {
public:
    explicit FileDescriptor(int nDescriptor = -1) noexcept : m_nDescriptor(nDescriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_nDescriptor(other.Release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(m_nDescriptor, other.m_nDescriptor);
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (IsOpen()) {
            close(m_nDescriptor);
        }
    }

    bool IsOpen() const noexcept { return m_nDescriptor >= 0; }
    int Get() const noexcept { return m_nDescriptor; }

    // The caller must close it.
    int Release() noexcept { return std::exchange(m_nDescriptor, -1); }

    // Returns errno. Some file systems report a failed write only here.
    int Close() noexcept { return close(Release()) == 0 ? 0 : errno; }

private:
    int m_nDescriptor;
};

}  // namespace vexposix
