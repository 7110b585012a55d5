// Texts that hold a PIN.
#pragma once

#include <string.h>

#include <string>
#include <utility>

namespace vexsign {

// The destructor wipes the text. Reserve room before you append: a string that grows leaves a copy behind.
class Secret {
public:
    Secret() = default;
    explicit Secret(std::string strText) : m_strText(std::move(strText)) {}
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    ~Secret() { explicit_bzero(m_strText.data(), m_strText.capacity()); }

    std::string& Text() { return m_strText; }
    const std::string& Text() const { return m_strText; }

private:
    std::string m_strText;
};

}  // namespace vexsign
