#include "signing/Filter.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cwctype>

#include "VCTKFilter.h"
#include "signing/Failure.h"

namespace vextk {
namespace {

struct KeyUsageName {
    const char* pszName;
    std::uint32_t dwBit;
};
constexpr KeyUsageName kKeyUsages[] = {
    {"digitalSignature", KU_DIGITAL_SIGNATURE},
    {"nonRepudiation", KU_NON_REPUDIATION},
    {"keyEncipherment", KU_KEY_ENCIPHERMENT},
    {"dataEncipherment", KU_DATA_ENCIPHERMENT},
    {"keyAgreement", KU_KEY_AGREEMENT},
    {"keyCertSign", KU_KEY_CERT_SIGN},
    {"cRLSign", KU_CRL_SIGN},
    {"encipherOnly", KU_ENCIPHER_ONLY},
    {"decipherOnly", KU_DECIPHER_ONLY},
};

[[noreturn]] void Malformed(const char* pszDetail) {
    throw Failure(VCTK_E_FILTER_VALUE, pszDetail);
}

std::wstring LowerCase(std::wstring text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](wchar_t ch) { return static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(ch))); });
    return text;
}

std::wstring WideFromLocale(const std::string& text) {
    const size_t cch = std::mbstowcs(nullptr, text.c_str(), 0);
    if (cch == static_cast<size_t>(-1)) {
        Malformed("it is not text in the encoding of the process locale");
    }
    std::wstring wide(cch, L'\0');
    if (std::mbstowcs(wide.data(), text.c_str(), cch) != cch) {
        Malformed("the process locale has changed meanwhile");
    }
    return wide;
}

// Names are printed by OpenSSL in well-formed UTF-8.
std::wstring WideFromUtf8(const std::string& text) {
    std::wstring wide;
    const auto* pbText = reinterpret_cast<const unsigned char*>(text.data());
    for (size_t i = 0; i < text.size();) {
        unsigned long ulCharacter = 0;
        const int cb = UTF8_getc(pbText + i, static_cast<int>(text.size() - i), &ulCharacter);
        wide += static_cast<wchar_t>(cb > 0 ? ulCharacter : pbText[i]);
        i += cb > 0 ? static_cast<size_t>(cb) : 1;
    }
    return wide;
}

// A name copied from the certificate list has its blanks escaped.
std::wstring NamePart(std::string_view strValue) {
    std::wstring text = WideFromLocale(std::string(strValue));
    constexpr std::wstring_view kEscapedBlank = L"\\20";
    for (size_t n = text.find(kEscapedBlank); n != std::wstring::npos; n = text.find(kEscapedBlank, n + 1)) {
        text.replace(n, kEscapedBlank.size(), L" ");
    }
    return LowerCase(std::move(text));
}

bool ContainsName(const std::string& strName, const std::wstring& strPart) {
    return LowerCase(WideFromUtf8(strName)).find(strPart) != std::wstring::npos;
}

// Upper case digits without the colons that may stand between pairs.
std::string HexDigits(std::string_view strValue) {
    std::string digits;
    for (size_t i = 0; i < strValue.size(); ++i) {
        const char ch = strValue[i];
        if (ch == ':' && !digits.empty() && digits.size() % 2 == 0 && i + 1 < strValue.size() &&
            strValue[i - 1] != ':') {
            continue;
        }
        if (std::string_view("0123456789abcdefABCDEF").find(ch) == std::string_view::npos) {
            Malformed("it is not a hexadecimal number");
        }
        digits += ch >= 'a' ? static_cast<char>(ch - 'a' + 'A') : ch;
    }
    return digits;
}

std::string SerialDigits(std::string_view strValue) {
    std::string digits = HexDigits(strValue);
    digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size()));
    // As BN_bn2hex writes it: whole bytes, and "0" for nothing.
    return digits.empty() ? "0" : digits.size() % 2 == 0 ? digits : "0" + digits;
}

std::string FingerprintDigits(std::string_view strValue) {
    std::string digits = HexDigits(strValue);
    if (digits.size() != 64) {
        Malformed("a SHA-256 fingerprint has 64 hexadecimal digits");
    }
    return digits;
}

std::uint32_t KeyUsageBit(std::string_view strValue) {
    for (const KeyUsageName& usage : kKeyUsages) {
        if (strcasecmp(usage.pszName, std::string(strValue).c_str()) == 0) {
            return usage.dwBit;
        }
    }
    Malformed("it is not a key usage, such as digitalSignature");
}

std::string AlgorithmName(std::string_view strValue) {
    for (const char* pszName : {"RSA", "EC"}) {
        if (strcasecmp(pszName, std::string(strValue).c_str()) == 0) {
            return pszName;
        }
    }
    Malformed("a key algorithm is RSA or EC");
}

}  // namespace

Filter::Filter(ULONG ulType, std::string_view strValue) : m_ulType(ulType) {
    if (ulType < VCTK_FILTER_ISSUER || ulType > VCTK_FILTER_KEY_ALGORITHM) {
        throw Failure(VCTK_E_FILTER_TYPE, std::to_string(ulType));
    }
    if (strValue.empty()) {
        Malformed("it is empty, or the process locale cannot encode it");
    }
    switch (ulType) {
        case VCTK_FILTER_ISSUER:
        case VCTK_FILTER_SUBJECT:
            m_strText = NamePart(strValue);
            break;
        case VCTK_FILTER_SERIAL:
            m_strHex = SerialDigits(strValue);
            break;
        case VCTK_FILTER_FINGERPRINT:
            m_strHex = FingerprintDigits(strValue);
            break;
        case VCTK_FILTER_KEY_USAGE:
            m_dwKeyUsage = KeyUsageBit(strValue);
            break;
        default:
            m_strAlgorithm = AlgorithmName(strValue);
            break;
    }
}

bool Filter::Passes(const Identity& identity) const {
    switch (m_ulType) {
        case VCTK_FILTER_ISSUER:
            return ContainsName(identity.Issuer(), m_strText);
        case VCTK_FILTER_SUBJECT:
            return ContainsName(identity.Subject(), m_strText);
        case VCTK_FILTER_SERIAL:
            return identity.SerialHex() == m_strHex;
        case VCTK_FILTER_FINGERPRINT:
            return identity.FingerprintHex() == m_strHex;
        case VCTK_FILTER_KEY_USAGE:
            return (X509_get_key_usage(identity.Certificate()) & m_dwKeyUsage) != 0;
        default:
            return identity.KeyAlgorithm() == m_strAlgorithm;
    }
}

}  // namespace vextk
