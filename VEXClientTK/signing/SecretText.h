// Secret bytes, such as PINs and private key files. The destructor wipes them from memory.
#pragma once

#include <openssl/crypto.h>

#include <string_view>
#include <utility>
#include <vector>

namespace vextk {

class SecretText {
public:
    // cbCapacity: the most that will ever be appended. Growing beyond it would leave an unwiped copy in memory.
    explicit SecretText(size_t cbCapacity = 0) { m_data.reserve(cbCapacity); }
    SecretText(SecretText&& other) noexcept : m_data(std::exchange(other.m_data, {})) {}
    SecretText& operator=(SecretText&& other) noexcept {
        m_data.swap(other.m_data);
        return *this;
    }
    SecretText(const SecretText&) = delete;
    SecretText& operator=(const SecretText&) = delete;
    ~SecretText() { OPENSSL_cleanse(m_data.data(), m_data.size()); }

    // Must not exceed the capacity given at construction.
    void Append(char ch) { m_data.push_back(ch); }

    // Makes an empty text cbSize zero bytes long, to be filled through Data().
    void Resize(size_t cbSize) { m_data.resize(cbSize); }

    // Wipes the bytes after the first cbSize ones and drops them.
    void Truncate(size_t cbSize) {
        OPENSSL_cleanse(m_data.data() + cbSize, m_data.size() - cbSize);
        m_data.resize(cbSize);
    }

    char* Data() { return m_data.data(); }
    std::string_view View() const { return {m_data.data(), m_data.size()}; }

private:
    std::vector<char> m_data;
};

}  // namespace vextk
