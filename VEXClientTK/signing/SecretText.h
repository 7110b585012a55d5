// Bytes that are wiped from memory when they are no longer needed: PINs, private key files.
#pragma once

#include <openssl/crypto.h>

#include <string_view>
#include <utility>
#include <vector>

namespace vextk {

class SecretText {
public:
    // cbCapacity: the most that will ever be appended, so that growing never leaves an unwiped copy behind.
    explicit SecretText(size_t cbCapacity = 0) { m_data.reserve(cbCapacity); }
    SecretText(SecretText&& other) noexcept : m_data(std::exchange(other.m_data, {})) {}
    SecretText& operator=(SecretText&& other) noexcept {
        m_data.swap(other.m_data);
        return *this;
    }
    SecretText(const SecretText&) = delete;
    SecretText& operator=(const SecretText&) = delete;
    ~SecretText() { OPENSSL_cleanse(m_data.data(), m_data.size()); }

    // The capacity given at construction must suffice.
    void Append(char ch) { m_data.push_back(ch); }

    // Room for cbSize bytes, all 0, to be filled through Data(); for a text that is still empty.
    void Resize(size_t cbSize) { m_data.resize(cbSize); }

    // Drops bytes from the end, wiping them.
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
