// The digest name that the user gives: [prehashed:]NAME[/PSS], in any case.
#pragma once

#include <string>
#include <string_view>

namespace vexsign {

class DigestName {
public:
    explicit DigestName(std::string_view strText);

    // The data to sign is the digest itself.
    bool IsPrehashed() const { return m_bPrehashed; }
    bool IsPss() const { return m_bPss; }

    // NAME as OpenSSL spells it; "" stays "".
    std::string OpenSsl() const;
    // The option of "openssl dgst" for NAME: "SHA-256" and "sha2-256" are "-sha256", "SHA3-256" is "-sha3-256",
    // "SHA-512/256" is "-sha512-256".
    std::string DgstOption() const;

private:
    bool m_bPrehashed = false;
    bool m_bPss = false;
    std::string m_strName;  // in lower case
};

}  // namespace vexsign
