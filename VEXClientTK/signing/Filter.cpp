#include "signing/Filter.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <iterator>
#include <vector>

#include "VCTKFilter.h"
#include "posix/Hexadecimal.h"
#include "signing/AsciiCase.h"
#include "signing/DistinguishedName.h"
#include "signing/Failure.h"
#include "signing/KeyTypes.h"
#include "signing/WideText.h"

namespace vextk {
namespace {

using Predicate = std::function<bool(const Identity&)>;
using PoliciesPtr = std::unique_ptr<CERTIFICATEPOLICIES, Deleter<CERTIFICATEPOLICIES_free>>;

struct KeyUsageName {
    const char* pszName;
    std::uint32_t dwBit;
};
constexpr KeyUsageName kKeyUsages[] = {
    {"digitalSignature", KU_DIGITAL_SIGNATURE}, {"nonRepudiation", KU_NON_REPUDIATION},
    {"contentCommitment", KU_NON_REPUDIATION},  {"keyEncipherment", KU_KEY_ENCIPHERMENT},
    {"dataEncipherment", KU_DATA_ENCIPHERMENT}, {"keyAgreement", KU_KEY_AGREEMENT},
    {"keyCertSign", KU_KEY_CERT_SIGN},          {"cRLSign", KU_CRL_SIGN},
    {"encipherOnly", KU_ENCIPHER_ONLY},         {"decipherOnly", KU_DECIPHER_ONLY},
};

[[noreturn]] void Malformed(const char* pszDetail) {
    RequireMemory();
    throw Failure(VCTK_E_FILTER_VALUE, pszDetail);
}

std::wstring WideValue(std::string_view strValue) {
    std::optional<std::wstring> wide = WideFromLocale(std::string(strValue));
    if (!wide) {
        Malformed("it is not text in the encoding of the process locale");
    }
    return std::move(*wide);
}

// The text without regard to case, and with blanks that are not escaped. In a name copied from the certificate list,
// all blanks are escaped, as "\20". In a certificate's name, those at an end of a value are, as "\ ".
std::wstring NameText(const std::wstring& strText) {
    std::wstring plain;
    for (size_t i = 0; i < strText.size(); ++i) {
        if (strText[i] != L'\\' || i + 1 == strText.size()) {
            plain += strText[i];
        } else if (strText.compare(i, 3, L"\\20") == 0) {
            plain += L' ';
            i += 2;
        } else if (strText[++i] == L' ') {
            plain += L' ';
        } else {
            plain.append(strText, i - 1, 2);
        }
    }
    return FoldCase(std::move(plain));
}

std::wstring NamePart(std::string_view strValue) {
    return NameText(WideValue(strValue));
}

bool ContainsName(const std::string& strName, const std::wstring& strPart) {
    return NameText(WideFromUtf8(strName)).find(strPart) != std::wstring::npos;
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
        if (vexposix::HexValue(ch) < 0) {
            Malformed("it is not a hexadecimal number");
        }
        digits += ch >= 'a' ? static_cast<char>(ch - 'a' + 'A') : ch;
    }
    return digits;
}

// The form of the certificate list, which is that of BN_bn2hex: whole bytes; "0" for zero; "-" before the digits of a
// negative number. RFC 5280 forbids negative numbers, but old certificates have them.
std::string SerialText(std::string_view strValue) {
    const bool bNegative = strValue.size() > 1 && strValue.front() == '-';
    std::string digits = HexDigits(strValue.substr(bNegative ? 1 : 0));
    digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size()));
    if (digits.empty()) {
        return "0";
    }
    digits.insert(0, digits.size() % 2, '0');
    return bNegative ? "-" + digits : digits;
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
        if (EqualIgnoringCase(usage.pszName, strValue)) {
            return usage.dwBit;
        }
    }
    Malformed("it is not a key usage, such as digitalSignature");
}

std::string AlgorithmName(std::string_view strValue) {
    for (const KeyType& type : kKeyTypes) {
        if (EqualIgnoringCase(type.pszName, strValue)) {
            return type.pszName;
        }
    }
    Malformed("a key algorithm is RSA, RSA-PSS, EC, ED25519 or ED448");
}

// The parts of a list: at least one, none of them empty.
std::vector<std::string_view> CommaSeparated(std::string_view strValue) {
    std::vector<std::string_view> parts;
    for (;;) {
        const size_t nEnd = strValue.find(',');
        parts.push_back(strValue.substr(0, nEnd));
        if (parts.back().empty()) {
            Malformed("a name is missing before or after a comma");
        }
        if (nEnd == std::string_view::npos) {
            return parts;
        }
        strValue.remove_prefix(nEnd + 1);
    }
}

std::uint32_t KeyUsageBits(std::string_view strValue) {
    std::uint32_t dwBits = 0;
    for (const std::string_view part : CommaSeparated(strValue)) {
        dwBits |= KeyUsageBit(part);
    }
    return dwBits;
}

bool HasKeyUsages(const Identity& identity, std::uint32_t dwBits) {
    const bool bRestricts = (X509_get_extension_flags(identity.Certificate()) & EXFLAG_KUSAGE) != 0;
    return bRestricts && (X509_get_key_usage(identity.Certificate()) & dwBits) == dwBits;
}

using SharedObject = std::shared_ptr<const ASN1_OBJECT>;

SharedObject DottedOid(std::string_view strValue, const char* pszDetail) {
    ObjectPtr object = FindDottedOid(std::string(strValue));
    if (!object) {
        Malformed(pszDetail);
    }
    return object;
}

SharedObject ExtendedKeyUsage(std::string_view strValue) {
    struct Purpose {
        const char* pszName;
        int nId;
    };
    constexpr Purpose kPurposes[] = {
        {"serverAuth", NID_server_auth},        {"clientAuth", NID_client_auth},  {"codeSigning", NID_code_sign},
        {"emailProtection", NID_email_protect}, {"timeStamping", NID_time_stamp}, {"OCSPSigning", NID_OCSP_sign},
    };
    for (const Purpose& purpose : kPurposes) {
        if (EqualIgnoringCase(purpose.pszName, strValue)) {
            return SharedObject(OBJ_nid2obj(purpose.nId), [](const ASN1_OBJECT*) {});
        }
    }
    return DottedOid(strValue, "it is not an extended key usage, such as emailProtection or a dotted OID");
}

bool HasExtendedKeyUsages(const Identity& identity, const std::vector<SharedObject>& wanted) {
    const ExtendedUsagePtr usages(static_cast<EXTENDED_KEY_USAGE*>(
        X509_get_ext_d2i(identity.Certificate(), NID_ext_key_usage, nullptr, nullptr)));
    if (!usages) {
        RequireMemory();
    }
    return std::all_of(wanted.begin(), wanted.end(), [&](const SharedObject& object) {
        for (int i = 0; i < sk_ASN1_OBJECT_num(usages.get()); ++i) {
            if (OBJ_cmp(sk_ASN1_OBJECT_value(usages.get(), i), object.get()) == 0) {
                return true;
            }
        }
        return false;
    });
}

bool HasPolicy(const Identity& identity, const ASN1_OBJECT* pPolicy) {
    const PoliciesPtr policies(static_cast<CERTIFICATEPOLICIES*>(
        X509_get_ext_d2i(identity.Certificate(), NID_certificate_policies, nullptr, nullptr)));
    if (!policies) {
        RequireMemory();
    }
    for (int i = 0; i < sk_POLICYINFO_num(policies.get()); ++i) {
        if (OBJ_cmp(sk_POLICYINFO_value(policies.get(), i)->policyid, pPolicy) == 0) {
            return true;
        }
    }
    return false;
}

// Decimal digits and nothing else.
unsigned int Number(std::string_view strDigits, const char* pszDetail) {
    unsigned int nNumber = 0;
    const char* const pchEnd = strDigits.data() + strDigits.size();
    const auto [pchStop, error] = std::from_chars(strDigits.data(), pchEnd, nNumber);
    if (error != std::errc() || pchStop != pchEnd) {
        Malformed(pszDetail);
    }
    return nNumber;
}

// 2026-11-21T05:00:00Z
std::time_t UtcTime(std::string_view strValue) {
    constexpr const char* kDetail = "it is not a UTC time such as 2026-11-21T05:00:00Z";
    constexpr std::string_view kForm = "0000-00-00T00:00:00Z";
    if (strValue.size() != kForm.size()) {
        Malformed(kDetail);
    }
    for (size_t i = 0; i < kForm.size(); ++i) {
        if (kForm[i] != '0' && strValue[i] != kForm[i]) {
            Malformed(kDetail);
        }
    }
    const auto part = [&](size_t nBegin, size_t cch) {
        return static_cast<int>(Number(strValue.substr(nBegin, cch), kDetail));
    };
    std::tm parts{};
    parts.tm_year = part(0, 4) - 1900;
    parts.tm_mon = part(5, 2) - 1;
    parts.tm_mday = part(8, 2);
    parts.tm_hour = part(11, 2);
    parts.tm_min = part(14, 2);
    parts.tm_sec = part(17, 2);
    const std::tm asked = parts;
    const std::time_t time = timegm(&parts);
    // timegm has changed a part that does not exist, and with it the next larger part.
    if (parts.tm_mon != asked.tm_mon || parts.tm_mday != asked.tm_mday || parts.tm_hour != asked.tm_hour ||
        parts.tm_min != asked.tm_min) {
        Malformed(kDetail);
    }
    return time;
}

DistinguishedName WholeName(std::string_view strValue) {
    const std::optional<DistinguishedName> name = DistinguishedName::Parse(Utf8FromWide(WideValue(strValue)));
    if (!name) {
        Malformed("it is not a name as RFC 4514 writes it, such as CN=Anna Weiss,O=Acme");
    }
    return *name;
}

Predicate MakePredicate(ULONG ulType, std::string_view strValue) {
    switch (ulType) {
        case VCTK_FILTER_ISSUER:
            return [part = NamePart(strValue)](const Identity& i) { return ContainsName(i.Issuer(), part); };
        case VCTK_FILTER_SUBJECT:
            return [part = NamePart(strValue)](const Identity& i) { return ContainsName(i.Subject(), part); };
        case VCTK_FILTER_SERIAL:
            return [text = SerialText(strValue)](const Identity& i) { return i.SerialHex() == text; };
        case VCTK_FILTER_FINGERPRINT:
            return [digits = FingerprintDigits(strValue)](const Identity& i) { return i.FingerprintHex() == digits; };
        case VCTK_FILTER_KEY_USAGE:
            return [dwBit = KeyUsageBit(strValue)](const Identity& i) {
                return (X509_get_key_usage(i.Certificate()) & dwBit) != 0;
            };
        case VCTK_FILTER_KEY_ALGORITHM:
            return [name = AlgorithmName(strValue)](const Identity& i) { return i.KeyAlgorithm() == name; };
        case VCTK_FILTER_KEY_USAGE_ALL:
            return [dwBits = KeyUsageBits(strValue)](const Identity& i) { return HasKeyUsages(i, dwBits); };
        case VCTK_FILTER_EXTENDED_KEY_USAGE: {
            std::vector<SharedObject> wanted;
            const std::vector<std::string_view> parts = CommaSeparated(strValue);
            std::transform(parts.begin(), parts.end(), std::back_inserter(wanted), ExtendedKeyUsage);
            return [wanted](const Identity& i) { return HasExtendedKeyUsages(i, wanted); };
        }
        case VCTK_FILTER_VALID_AT:
            return [time = UtcTime(strValue)](const Identity& i) { return i.IsValidAt(time); };
        case VCTK_FILTER_POLICY:
            return [policy = DottedOid(strValue, "it is not a dotted OID")](const Identity& i) {
                return HasPolicy(i, policy.get());
            };
        case VCTK_FILTER_KEY_SIZE:
            return [nBits = Number(strValue, "it is not a number of bits")](const Identity& i) {
                return i.KeyBits() >= nBits;
            };
        case VCTK_FILTER_SUBJECT_NAME:
            return [name = WholeName(strValue)](const Identity& i) {
                return DistinguishedName(X509_get_subject_name(i.Certificate())) == name;
            };
        case VCTK_FILTER_ISSUER_NAME:
            return [name = WholeName(strValue)](const Identity& i) {
                return DistinguishedName(X509_get_issuer_name(i.Certificate())) == name;
            };
        default:
            throw Failure(VCTK_E_FILTER_TYPE, std::to_string(ulType));
    }
}

// Refuses an empty value: a conversion may have lost the value, and the filter would pass every certificate.
std::string_view RequireValue(ULONG ulType, std::string_view strValue) {
    if (strValue.empty() && ulType >= VCTK_FILTER_ISSUER && ulType <= VCTK_FILTER_ISSUER_NAME) {
        Malformed("it is empty, or the process locale cannot encode it");
    }
    return strValue;
}

}  // namespace

Filter::Filter(ULONG ulType, std::string_view strValue)
    : m_passes(MakePredicate(ulType, RequireValue(ulType, strValue))) {}

}  // namespace vextk
