// Names of subjects and issuers, compared by the rules of RFC 5280 section 7.1. Relative names have an order; the
// attributes of each one have none. Text is compared without regard to case and insignificant blanks, other values byte
// by byte.
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

    // From RFC 4514 text in UTF-8; blanks around its separators do not matter. Nothing: the text is malformed or has an
    // unknown attribute type.
    static std::optional<DistinguishedName> Parse(const std::string& strText);

    bool operator==(const DistinguishedName&) const = default;

private:
    struct Value {
        std::string strBytes;  // type and content of a value that is not text
        std::wstring strText;  // text in the form that is compared

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
