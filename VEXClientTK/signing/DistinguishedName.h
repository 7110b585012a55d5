// Names of subjects and issuers, to be compared as RFC 5280 section 7.1 has it: relative names in their order, each as
// a set of attributes; text without regard to case and insignificant blanks, values of other types byte by byte.
#pragma once

#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "signing/OpenSsl.h"

namespace vextk {

class DistinguishedName {
public:
    explicit DistinguishedName(const X509_NAME* pName);

    // From RFC 4514 text in UTF-8; blanks around its separators do not matter. Nothing when it is malformed or names an
    // attribute type that is unknown.
    static std::optional<DistinguishedName> Parse(const std::string& strText);

    bool operator==(const DistinguishedName&) const = default;

private:
    struct Value {
        std::string strBytes;  // DER, of what is not text
        std::wstring strText;  // folded

        bool operator==(const Value&) const = default;
        bool operator<(const Value& other) const {
            return std::tie(strBytes, strText) < std::tie(other.strBytes, other.strText);
        }
    };
    using Attribute = std::pair<std::string, Value>;  // type as dotted OID, value
    using RelativeName = std::vector<Attribute>;      // sorted

    friend class NameParser;

    DistinguishedName() = default;
    static Value ValueOf(const ASN1_STRING* pString);
    static Value ValueOf(const std::wstring& strText);
    void SortAttributes();

    std::vector<RelativeName> m_relativeNames;  // the most significant first, as in a certificate
};

}  // namespace vextk
