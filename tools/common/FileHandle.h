// Owns a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace tools {

class FileHandle {
public:
    FileHandle() = default;
    explicit FileHandle(int nDescriptor) : m_nDescriptor(nDescriptor) {}
    FileHandle(FileHandle&& other) noexcept : m_nDescriptor(std::exchange(other.m_nDescriptor, -1)) {}
    FileHandle& operator=(FileHandle&& other) noexcept {
        std::swap(m_nDescriptor, other.m_nDescriptor);
        return *this;
    }
    ~FileHandle() {
        if (m_nDescriptor >= 0) {
            close(m_nDescriptor);
        }
    }

    bool IsOpen() const { return m_nDescriptor >= 0; }
    int Get() const { return m_nDescriptor; }
    // The caller closes it.
    int Release() { return std::exchange(m_nDescriptor, -1); }

private:
    int m_nDescriptor = -1;
};

}  // namespace tools
