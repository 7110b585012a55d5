#include "DigestName.h"

namespace vexsign {
namespace {

std::string InLowerCase(std::string_view text) {
    std::string strLower;
    for (const char ch : text) {
        strLower += ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
    }
    return strLower;
}

}  // namespace

DigestName::DigestName(std::string_view strText) : m_strName(InLowerCase(strText)) {
    constexpr std::string_view kPrehashed = "prehashed:";
    constexpr std::string_view kPss = "/pss";
    m_bPrehashed = m_strName.starts_with(kPrehashed);
    m_strName.erase(0, m_bPrehashed ? kPrehashed.size() : 0);
    m_bPss = m_strName.ends_with(kPss);
    m_strName.erase(m_strName.size() - (m_bPss ? kPss.size() : 0));
}

std::string DigestName::OpenSsl() const {
    // The JCA's names without a hyphen are the only ones that OpenSSL does not know.
    if (m_strName == "sha512/224" || m_strName == "sha512/256") {
        return "sha2-" + m_strName.substr(std::string_view("sha").size());
    }
    return m_strName;
}

std::string DigestName::DgstOption() const {
    std::string strOption = m_strName;
    for (char& ch : strOption) {
        ch = ch == '/' ? '-' : ch;
    }
    for (const std::string_view prefix : {"sha2-", "sha-"}) {
        if (strOption.starts_with(prefix)) {
            strOption.replace(0, prefix.size(), "sha");
        }
    }
    return "-" + strOption;
}

}  // namespace vexsign
