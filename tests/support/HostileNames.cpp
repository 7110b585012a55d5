#include "HostileNames.h"

#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <stdexcept>
#include <string_view>

#include "Tlv.h"

namespace {

constexpr unsigned char kSequence = 0x30;
constexpr unsigned char kSet = 0x31;
constexpr unsigned char kUtf8 = V_ASN1_UTF8STRING;

// What has meaning for a reader of a list, a terminal, a shell, a page, a table or a format.
constexpr std::u32string_view kTraps[] = {
    U"=",
    U",",
    U"+",
    U"\"",
    U"\\",
    U"<",
    U">",
    U"#",
    U";",
    U" ",
    U"  ",
    U"'",
    U"/",
    U"%",
    U"&",
    U"\t",
    U"\n",
    U"\r",
    U"\r\n",
    U"\r\n\r\n",
    U"\x1b[2J",
    U"\x1b]0;title\a",
    U"\x1b[31m",
    U"\b\b\b",
    U"\a",
    U"\x7f",
    U"\x85",
    U"\x9b"
    U"2J",
    U"\\20",
    U"\\\\20",
    U"\\0A",
    U"\\,",
    U"#0C0141",
    U"CN=Somebody",
    U",CN=Else",
    U"+O=More",
    U"CN=\\20",
    U"/CN=x",
    U"$(touch canary)",
    U"`touch canary`",
    U"; touch canary ;",
    U"| touch canary",
    U"&& touch canary",
    U"\ntouch canary\n",
    U"'; touch canary; '",
    U"<script>alert(1)</script>",
    U"</script><script>",
    U"<!--",
    U"]]>",
    U"\" onload=\"x",
    U"&lt;",
    U"javascript:alert(1)",
    U"=cmd|' /C calc'!A0",
    U"\",\"",
    U"%n%n%s%s%d",
    U"%ls",
    U"%00",
    U"%0d%0a",
    U"%2e",
    U"../../etc/passwd",
    U"-",
    U"--",
    U"{}",
    U"[]",
    U"{\"a\":1}",
    U"\\u0000",
    U"\\x1b",
    U"\r\n0102 ABCD 2026",
    U"-----END",
    U"\x202e"
    U"gpj",
    U"\x2066",
    U"\x200b",
    U"\x200d",
    U"\xfeff",
    U"\x2028",
    U"\x2029",
    U"\xad",
    U"\x61c",
    U"\xfffd",
    U"\xfffe",
    U"\xffff",
    U"\xfdd0",
    U"e\x301\x302\x303\x304\x305\x306\x307\x308\x309",
    U"\x1f600",
    U"\x1f468\x200d\x1f469",
    U"\xe0041",
    U"\x10ffff",
    U"\x130\x131\x17f\x1e9e",
    U"\xdf\x3c2\x3a3",
};

// A script, or a block of several.
struct Script {
    char32_t chFirst;
    char32_t chLast;
};
constexpr Script kScripts[] = {
    {0x20, 0x7E},       {0x20, 0x7E},       {0xA0, 0x24F},      {0x370, 0x3FF}, {0x400, 0x52F},   {0x530, 0x58F},
    {0x590, 0x5FF},     {0x600, 0x6FF},     {0x900, 0x97F},     {0xE00, 0xE7F}, {0x10A0, 0x10FF}, {0x1200, 0x137F},
    {0x3040, 0x30FF},   {0x4E00, 0x9FFF},   {0xAC00, 0xD7A3},   {0x300, 0x36F}, {0x2000, 0x206F}, {0xFF00, 0xFFEF},
    {0x1D400, 0x1D7FF}, {0x1F300, 0x1F6FF}, {0x20000, 0x2A6DF}, {0x01, 0x1F},   {0x7F, 0x9F},     {0x00, 0xD7FF},
    {0xE000, 0xFFFF},   {0x10000, 0x10FFFF}};

void AppendUtf8(std::string& strText, char32_t ch) {
    const auto put = [&strText](char32_t uByte) { strText += static_cast<char>(uByte); };
    if (ch < 0x80) {
        put(ch);
    } else if (ch < 0x800) {
        put(0xC0 | ch >> 6U);
        put(0x80 | (ch & 0x3FU));
    } else if (ch < 0x10000) {
        put(0xE0 | ch >> 12U);
        put(0x80 | (ch >> 6U & 0x3FU));
        put(0x80 | (ch & 0x3FU));
    } else {
        put(0xF0 | ch >> 18U);
        put(0x80 | (ch >> 12U & 0x3FU));
        put(0x80 | (ch >> 6U & 0x3FU));
        put(0x80 | (ch & 0x3FU));
    }
}

std::string Utf8(std::u32string_view text) {
    std::string strText;
    for (const char32_t ch : text) {
        AppendUtf8(strText, ch);
    }
    return strText;
}

// The low bytes of each character.
std::string BigEndian(std::u32string_view text, unsigned int cbCharacter) {
    std::string bytes;
    for (const char32_t ch : text) {
        for (unsigned int i = cbCharacter; i-- > 0;) {
            bytes += static_cast<char>(ch >> (8 * i) & 0xFFU);
        }
    }
    return bytes;
}

std::string Utf16(std::u32string_view text) {
    std::u32string units;
    for (const char32_t ch : text) {
        if (ch > 0xFFFF) {
            units += 0xD800 + ((ch - 0x10000) >> 10U);
            units += 0xDC00 + ((ch - 0x10000) & 0x3FFU);
        } else {
            units += ch;
        }
    }
    return BigEndian(units, 2);
}

std::string OidDer(const std::string& strDotted) {
    ASN1_OBJECT* const pObject = OBJ_txt2obj(strDotted.c_str(), 1);
    unsigned char* pbDer = nullptr;
    const int cbDer = i2d_ASN1_OBJECT(pObject, &pbDer);
    ASN1_OBJECT_free(pObject);
    if (cbDer <= 0) {
        throw std::runtime_error("no OID " + strDotted);
    }
    std::string der(reinterpret_cast<const char*>(pbDer), static_cast<std::size_t>(cbDer));
    OPENSSL_free(pbDer);
    return der;
}

std::string TimeDer(std::time_t time) {
    std::tm parts{};
    gmtime_r(&time, &parts);
    std::array<char, 32> text{};
    static_cast<void>(std::strftime(text.data(), text.size(), "%Y%m%d%H%M%SZ", &parts));
    // Until 2049, RFC 5280 wants the short form.
    return Tlv(V_ASN1_UTCTIME, text.data() + 2);
}

std::string PublicKeyDer(EVP_PKEY* pKey) {
    unsigned char* pbDer = nullptr;
    const int cbDer = i2d_PUBKEY(pKey, &pbDer);
    std::string der(reinterpret_cast<const char*>(pbDer), static_cast<std::size_t>(cbDer));
    OPENSSL_free(pbDer);
    return der;
}

std::string Sign(EVP_PKEY* pKey, const std::string& strData) {
    EVP_MD_CTX* const pContext = EVP_MD_CTX_new();
    std::array<unsigned char, 128> signature{};
    std::size_t cb = signature.size();
    const bool bSigned = EVP_DigestSignInit(pContext, nullptr, EVP_sha256(), nullptr, pKey) == 1 &&
                         EVP_DigestSign(pContext, signature.data(), &cb,
                                        reinterpret_cast<const unsigned char*>(strData.data()), strData.size()) == 1;
    EVP_MD_CTX_free(pContext);
    if (!bSigned) {
        throw std::runtime_error("cannot sign a certificate");
    }
    return {reinterpret_cast<const char*>(signature.data()), cb};
}

std::string TextOf(BIO* pBio) {
    char* pch = nullptr;
    const long cch = BIO_get_mem_data(pBio, &pch);
    std::string strText(pch, static_cast<std::size_t>(cch));
    BIO_free(pBio);
    return strText;
}

}  // namespace

HostileNames::HostileNames(std::uint32_t uSeed) : m_random(uSeed), m_key(EVP_EC_gen("P-256")) {}

std::string HostileNames::Bytes(std::size_t cb) {
    std::string bytes;
    for (std::size_t i = 0; i < cb; ++i) {
        bytes += static_cast<char>(Below(256));
    }
    return bytes;
}

std::u32string HostileNames::Characters() {
    std::u32string text;
    if (OneIn(20)) {
        return text;
    }
    if (OneIn(400)) {
        constexpr std::size_t kLong = 65536;
        text.assign(kLong, U'x');
        for (int i = 0; i < 100; ++i) {
            text[Below(kLong)] = kTraps[Below(std::size(kTraps))][0];
        }
        return text;
    }
    for (std::uint32_t n = 1 + Below(6); n > 0; --n) {
        if (OneIn(2)) {
            text += kTraps[Below(std::size(kTraps))];
            continue;
        }
        const Script script = kScripts[Below(std::size(kScripts))];
        for (std::uint32_t i = Below(12); i > 0; --i) {
            text += script.chFirst + Below(script.chLast - script.chFirst + 1);
        }
    }
    if (OneIn(10)) {
        text.insert(Below(static_cast<std::uint32_t>(text.size()) + 1), 1, U'\0');
    }
    return text;
}

std::string HostileNames::Text() {
    std::u32string text = Characters();
    std::erase(text, U'\0');
    return Utf8(text);
}

std::string HostileNames::Oid() {
    constexpr const char* kUsual[] = {"2.5.4.3",
                                      "2.5.4.3",
                                      "2.5.4.3",
                                      "2.5.4.10",
                                      "2.5.4.11",
                                      "2.5.4.6",
                                      "2.5.4.7",
                                      "2.5.4.8",
                                      "2.5.4.4",
                                      "2.5.4.42",
                                      "2.5.4.12",
                                      "2.5.4.5",
                                      "2.5.4.9",
                                      "2.5.4.97",
                                      "2.5.4.65",
                                      "0.9.2342.19200300.100.1.25",
                                      "0.9.2342.19200300.100.1.1",
                                      "1.2.840.113549.1.9.1",
                                      "1.2.840.113549.1.9.2",
                                      "1.3.6.1.4.1.311.60.2.1.3"};
    switch (Below(8)) {
        case 0:
            return "1.3.6.1.4.1.99999." + std::to_string(Below(1000));
        case 1: {
            // Any type that OpenSSL has a name for.
            const int nEnd = OBJ_new_nid(0);
            const ASN1_OBJECT* const pObject = OBJ_nid2obj(static_cast<int>(Below(static_cast<std::uint32_t>(nEnd))));
            std::array<char, 80> text{};
            if (pObject != nullptr && OBJ_length(pObject) > 0 &&
                OBJ_obj2txt(text.data(), text.size(), pObject, 1) > 0) {
                return text.data();
            }
            ERR_clear_error();
            return "2.999.1";
        }
        default:
            return kUsual[Below(std::size(kUsual))];
    }
}

HostileValue HostileNames::Value() {
    const std::u32string text = Characters();
    const std::string strUtf8 = Utf8(text);
    std::u32string latin1;
    std::u32string basicPlane;
    for (const char32_t ch : text) {
        latin1 += ch & 0xFFU;
        basicPlane += ch > 0xFFFF ? U'\xfffd' : ch;
    }
    HostileValue value{Oid(), {}, {}};
    const auto set = [&value](unsigned char uTag, const std::string& strContent, std::optional<std::string> utf8) {
        value.strDer = Tlv(uTag, strContent);
        value.strUtf8 = std::move(utf8);
    };
    constexpr std::uint32_t kFirstMalformed = 7;
    constexpr std::uint32_t kWellFormed = 12;
    const std::uint32_t uKind = Below(20);
    switch (OneIn(25) ? kFirstMalformed + Below(5) : uKind < kFirstMalformed ? uKind : kWellFormed) {
        case 0:
            set(V_ASN1_BMPSTRING, BigEndian(basicPlane, 2), Utf8(basicPlane));
            break;
        case 1:
            // Surrogates are not allowed.
            set(V_ASN1_BMPSTRING, Utf16(text), text == basicPlane ? std::optional(strUtf8) : std::nullopt);
            break;
        case 2:
            set(V_ASN1_UNIVERSALSTRING, BigEndian(text, 4), strUtf8);
            break;
        case 3:
            set(V_ASN1_T61STRING, BigEndian(latin1, 1), Utf8(latin1));
            break;
        case 4:
            set(V_ASN1_PRINTABLESTRING, BigEndian(latin1, 1), Utf8(latin1));
            break;
        case 5:
            set(V_ASN1_IA5STRING, BigEndian(latin1, 1), Utf8(latin1));
            break;
        case 6:
            set(V_ASN1_NUMERICSTRING, BigEndian(latin1, 1), Utf8(latin1));
            break;
        case kFirstMalformed:
            // Not allowed in names.
            set(V_ASN1_VISIBLESTRING, BigEndian(latin1, 1), Utf8(latin1));
            break;
        case 8:
            // Cut off, or random bytes in it.
            set(kUtf8, OneIn(2) ? strUtf8.substr(0, strUtf8.size() / 2) + "\xE2" : strUtf8 + Bytes(3), {});
            break;
        case 9:
            set(kUtf8, OneIn(2) ? "\xED\xA0\xBD\xED\xB8\x80" : "\xC0\x80\xF4\x90\x80\x80", {});
            break;
        case 10:
            set(OneIn(2) ? V_ASN1_BMPSTRING : V_ASN1_UNIVERSALSTRING, Bytes(Below(9)), {});
            break;
        case 11:
            // A type that holds no text.
            set(static_cast<unsigned char>(1 + Below(30)), Bytes(Below(6)), {});
            break;
        default:
            set(kUtf8, strUtf8, strUtf8);
            break;
    }
    return value;
}

HostileName HostileNames::Name() {
    HostileName name;
    const std::uint32_t cNames = OneIn(40) ? 50 : Below(5);
    for (std::uint32_t i = 0; i < cNames; ++i) {
        std::vector<HostileValue>& values = name.relativeNames.emplace_back();
        std::string strBody;
        for (std::uint32_t n = OneIn(6) ? 2 + Below(2) : 1; n > 0; --n) {
            values.push_back(Value());
            strBody += Tlv(kSequence, OidDer(values.back().strOid) + values.back().strDer);
        }
        name.strDer += Tlv(kSet, strBody);
    }
    name.strDer = Tlv(kSequence, name.strDer);
    return name;
}

HostileCertificate HostileNames::Next() {
    HostileCertificate certificate;
    certificate.subject = Name();
    certificate.issuer = OneIn(2) ? certificate.subject : Name();
    certificate.bExpired = OneIn(5);
    const std::u32string friendly = Characters();
    if (OneIn(8)) {
        certificate.strFriendlyName = Bytes(2 * Below(10));
    } else {
        certificate.strFriendlyName = Utf16(friendly);
        if (friendly.find(U'\0') == std::u32string::npos) {
            certificate.strFriendlyUtf8 = Utf8(friendly);
        }
    }

    constexpr std::uint32_t kFirstSerial = 0x10000000;
    const std::uint32_t uSerial = kFirstSerial + ++m_uSerial;
    std::array<char, 16> hex{};
    static_cast<void>(std::snprintf(hex.data(), hex.size(), "%08X", uSerial));
    certificate.strSerialHex = hex.data();
    constexpr std::time_t kDay = 86400;
    const std::time_t now = std::time(nullptr);
    const std::string strAlgorithm = Tlv(kSequence, OidDer("1.2.840.10045.4.3.2"));
    const std::string strBody = Tlv(
        kSequence,
        Tlv(0xA0, Tlv(V_ASN1_INTEGER, "\x02")) + Tlv(V_ASN1_INTEGER, BigEndian(std::u32string(1, uSerial), 4)) +
            strAlgorithm + certificate.issuer.strDer +
            Tlv(kSequence, TimeDer(now - 30 * kDay) + TimeDer(certificate.bExpired ? now - kDay : now + 30 * kDay)) +
            certificate.subject.strDer + PublicKeyDer(m_key.get()));
    certificate.strDer = Tlv(
        kSequence, strBody + strAlgorithm + Tlv(V_ASN1_BIT_STRING, std::string(1, '\0') + Sign(m_key.get(), strBody)));
    return certificate;
}

std::string HostileNames::KeyPem() const {
    BIO* const pBio = BIO_new(BIO_s_mem());
    PEM_write_bio_PKCS8PrivateKey(pBio, m_key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    return TextOf(pBio);
}

std::string HostileNames::CertificatePem(const std::string& strDer) {
    BIO* const pBio = BIO_new(BIO_s_mem());
    PEM_write_bio(pBio, PEM_STRING_X509, "", reinterpret_cast<const unsigned char*>(strDer.data()),
                  static_cast<long>(strDer.size()));
    return TextOf(pBio);
}

// Written byte for byte, because OpenSSL's functions take only friendly names and certificates that it can read.
std::string HostileNames::Pkcs12(const std::vector<HostileCertificate>& certificates) const {
    const std::string strData = OidDer("1.2.840.113549.1.7.1");
    const auto wrap = [](const std::string& strContent) { return Tlv(0xA0, strContent); };
    const auto contentInfo = [&](const std::string& strContent) {
        return Tlv(kSequence, strData + wrap(Tlv(V_ASN1_OCTET_STRING, strContent)));
    };
    PKCS8_PRIV_KEY_INFO* const pKeyInfo = EVP_PKEY2PKCS8(m_key.get());
    unsigned char* pbKey = nullptr;
    const int cbKey = i2d_PKCS8_PRIV_KEY_INFO(pKeyInfo, &pbKey);
    std::string bags = Tlv(kSequence, OidDer("1.2.840.113549.1.12.10.1.1") + wrap({reinterpret_cast<const char*>(pbKey),
                                                                                   static_cast<std::size_t>(cbKey)}));
    OPENSSL_free(pbKey);
    PKCS8_PRIV_KEY_INFO_free(pKeyInfo);
    for (const HostileCertificate& certificate : certificates) {
        const std::string strBag =
            Tlv(kSequence, OidDer("1.2.840.113549.1.9.22.1") + wrap(Tlv(V_ASN1_OCTET_STRING, certificate.strDer)));
        const std::string strName = Tlv(
            kSequence, OidDer("1.2.840.113549.1.9.20") + Tlv(kSet, Tlv(V_ASN1_BMPSTRING, certificate.strFriendlyName)));
        bags += Tlv(kSequence, OidDer("1.2.840.113549.1.12.10.1.3") + wrap(strBag) + Tlv(kSet, strName));
    }
    const std::string strSafe = Tlv(kSequence, contentInfo(Tlv(kSequence, bags)));
    return Tlv(kSequence, Tlv(V_ASN1_INTEGER, "\x03") + contentInfo(strSafe));
}
