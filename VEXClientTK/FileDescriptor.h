// An owned POSIX file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace vextk {

class FileDescriptor {
public:
    explicit FileDescriptor(int nDescriptor = -1) noexcept : m_nDescriptor(nDescriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_nDescriptor(std::exchange(other.m_nDescriptor, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(m_nDescriptor, other.m_nDescriptor);
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (m_nDescriptor >= 0) {
            close(m_nDescriptor);
        }
    }

    bool IsOpen() const noexcept { return m_nDescriptor >= 0; }
    int Get() const noexcept { return m_nDescriptor; }

private:
    int m_nDescriptor;
};

}  // namespace vextk
