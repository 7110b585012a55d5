#include "signing/DistinguishedName.h"

#include <algorithm>
#include <string_view>

#include "posix/Hexadecimal.h"
#include "posix/Utf8.h"
#include "signing/AsciiCase.h"
#include "signing/WideText.h"

namespace vextk {
namespace {

constexpr bool IsText(int nType) {
    switch (nType) {
        case V_ASN1_UTF8STRING:
        case V_ASN1_NUMERICSTRING:
        case V_ASN1_PRINTABLESTRING:
        case V_ASN1_IA5STRING:
        case V_ASN1_VISIBLESTRING:
        case V_ASN1_T61STRING:
        case V_ASN1_BMPSTRING:
        case V_ASN1_UNIVERSALSTRING:
            return true;
        default:
            return false;
    }
}

// Lower case, without blanks at the ends. Several blanks in a row become one.
std::wstring Fold(const std::wstring& strText) {
    std::wstring folded;
    for (const wchar_t ch : FoldCase(strText)) {
        if (!IsBlank(ch)) {
            folded += ch;
        } else if (!folded.empty() && folded.back() != L' ') {
            folded += L' ';
        }
    }
    if (!folded.empty() && folded.back() == L' ') {
        folded.pop_back();
    }
    return folded;
}

// The dotted OID of an attribute type. strName is a name, in any case, or an OID. Empty: the type is unknown.
std::string FindType(const std::string& strName) {
    if (const ObjectPtr object = FindDottedOid(strName)) {
        return strName;
    }
    const ErrorMark mark;
    // OpenSSL has types whose names differ only in case: UID is the user's identifier, uid is another type.
    const int nShort = OBJ_sn2nid(strName.c_str());
    const int nExact = nShort != NID_undef ? nShort : OBJ_ln2nid(strName.c_str());
    if (nExact != NID_undef) {
        return DottedText(OBJ_nid2obj(nExact));
    }
    const int nEnd = OBJ_new_nid(0);
    for (int nId = NID_undef + 1; nId < nEnd; ++nId) {
        const char* pszShort = OBJ_nid2sn(nId);
        const char* pszLong = OBJ_nid2ln(nId);
        if ((pszShort != nullptr && EqualIgnoringCase(pszShort, strName)) ||
            (pszLong != nullptr && EqualIgnoringCase(pszLong, strName))) {
            return DottedText(OBJ_nid2obj(nId));
        }
    }
    return {};
}

}  // namespace

DistinguishedName::Value DistinguishedName::ValueOf(const std::wstring& strText) {
    return {{}, Fold(strText)};
}

DistinguishedName::Value DistinguishedName::ValueOf(const ASN1_STRING* pString) {
    if (IsText(ASN1_STRING_type(pString))) {
        unsigned char* pbUtf8 = nullptr;
        const int cb = ASN1_STRING_to_UTF8(&pbUtf8, pString);
        const MemoryPtr<unsigned char> utf8(pbUtf8);
        if (cb >= 0) {
            return ValueOf(WideFromUtf8(std::string(reinterpret_cast<const char*>(pbUtf8), static_cast<size_t>(cb))));
        }
        RequireMemory();
    }
    const auto* pchData = reinterpret_cast<const char*>(ASN1_STRING_get0_data(pString));
    std::string bytes = std::to_string(ASN1_STRING_type(pString)) + ":";
    bytes.append(pchData, static_cast<size_t>(ASN1_STRING_length(pString)));
    return {std::move(bytes), {}};
}

DistinguishedName::DistinguishedName(const X509_NAME* pName) {
    int nRelativeName = -1;
    for (int i = 0; i < X509_NAME_entry_count(pName); ++i) {
        const X509_NAME_ENTRY* pEntry = X509_NAME_get_entry(pName, i);
        if (X509_NAME_ENTRY_set(pEntry) != nRelativeName) {
            nRelativeName = X509_NAME_ENTRY_set(pEntry);
            m_relativeNames.emplace_back();
        }
        m_relativeNames.back().emplace_back(DottedText(X509_NAME_ENTRY_get_object(pEntry)),
                                            ValueOf(X509_NAME_ENTRY_get_data(pEntry)));
    }
    SortAttributes();
}

void DistinguishedName::SortAttributes() {
    for (RelativeName& relativeName : m_relativeNames) {
        std::sort(relativeName.begin(), relativeName.end());
    }
}

// Parses RFC 4514 section 3. Its members return false, or nothing, when the text is malformed.
class NameParser {
public:
    explicit NameParser(const std::string& strText) : m_text(strText) {}

    std::optional<DistinguishedName> Parse() {
        DistinguishedName name;
        name.m_relativeNames.emplace_back();
        for (;;) {
            if (!ParseAttribute(name.m_relativeNames.back())) {
                return std::nullopt;
            }
            if (m_n == m_text.size()) {
                break;
            }
            if (m_text[m_n++] == ',') {
                name.m_relativeNames.emplace_back();
            }
        }
        // The text begins with the least significant relative name.
        std::reverse(name.m_relativeNames.begin(), name.m_relativeNames.end());
        name.SortAttributes();
        return name;
    }

private:
    using Value = DistinguishedName::Value;

    // Stops at "," or "+" or the end.
    bool ParseAttribute(DistinguishedName::RelativeName& relativeName) {
        SkipBlanks();
        const size_t nEquals = m_text.find('=', m_n);
        if (nEquals == std::string::npos) {
            return false;
        }
        std::string_view name = std::string_view(m_text).substr(m_n, nEquals - m_n);
        name = name.substr(0, name.find_last_not_of(' ') + 1);
        std::string strType = name.empty() ? std::string() : FindType(std::string(name));
        m_n = nEquals + 1;
        SkipBlanks();
        std::optional<Value> value = m_n < m_text.size() && m_text[m_n] == '#' ? ParseHexValue() : ParseText();
        if (strType.empty() || !value) {
            return false;
        }
        relativeName.emplace_back(std::move(strType), std::move(*value));
        return true;
    }

    std::optional<Value> ParseText() {
        std::string bytes;
        for (; m_n < m_text.size() && m_text[m_n] != ',' && m_text[m_n] != '+'; ++m_n) {
            if (std::string_view("\";<>").find(m_text[m_n]) != std::string_view::npos) {
                return std::nullopt;
            }
            if (m_text[m_n] != '\\') {
                bytes += m_text[m_n];
                continue;
            }
            const std::optional<char> ch = ParseEscape();
            if (!ch) {
                return std::nullopt;
            }
            bytes += *ch;
        }
        if (!vexposix::IsPlainUtf8(bytes)) {
            return std::nullopt;
        }
        return DistinguishedName::ValueOf(WideFromUtf8(bytes));
    }

    // Starts at the backslash and stops at the last character of the escape.
    std::optional<char> ParseEscape() {
        if (++m_n == m_text.size()) {
            return std::nullopt;
        }
        if (std::string_view("\\\"+,;<> #=").find(m_text[m_n]) != std::string_view::npos) {
            return m_text[m_n];
        }
        const std::optional<char> ch = HexPair(m_n);
        ++m_n;
        return ch;
    }

    // "#" and the DER of the value in hexadecimal.
    std::optional<Value> ParseHexValue() {
        std::string der;
        for (++m_n; m_n < m_text.size() && vexposix::HexValue(m_text[m_n]) >= 0; m_n += 2) {
            const std::optional<char> ch = HexPair(m_n);
            if (!ch) {
                return std::nullopt;
            }
            der += *ch;
        }
        SkipBlanks();
        if (m_n < m_text.size() && m_text[m_n] != ',' && m_text[m_n] != '+') {
            return std::nullopt;
        }
        const auto* pbDer = reinterpret_cast<const unsigned char*>(der.data());
        const auto* const pbEnd = pbDer + der.size();
        const ErrorMark mark;
        const AnyPtr type(d2i_ASN1_TYPE(nullptr, &pbDer, static_cast<long>(der.size())));
        // Types that hold no string do not occur in names.
        if (!type || pbDer != pbEnd || ASN1_TYPE_get(type.get()) == V_ASN1_BOOLEAN ||
            ASN1_TYPE_get(type.get()) == V_ASN1_NULL || ASN1_TYPE_get(type.get()) == V_ASN1_OBJECT) {
            return std::nullopt;
        }
        return DistinguishedName::ValueOf(type->value.asn1_string);
    }

    std::optional<char> HexPair(size_t n) const {
        const int nByte = vexposix::HexByteAt(m_text, n);
        return nByte < 0 ? std::nullopt : std::optional(static_cast<char>(nByte));
    }

    void SkipBlanks() { m_n = std::min(m_text.find_first_not_of(' ', m_n), m_text.size()); }

    const std::string& m_text;
    size_t m_n = 0;
};

std::optional<DistinguishedName> DistinguishedName::Parse(const std::string& strText) {
    return NameParser(strText).Parse();
}

}  // namespace vextk
