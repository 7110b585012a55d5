#include "crypto/Values.h"

#include <array>
#include <cstdio>

#include "crypto/Errors.h"
#include "crypto/Owned.h"
#include "posix/Hexadecimal.h"

namespace vexcrypto {

std::string DottedText(const ASN1_OBJECT* pObject) {
    const int cch = pObject == nullptr ? 0 : OBJ_obj2txt(nullptr, 0, pObject, 1);
    if (cch <= 0) {
        return {};
    }
    std::string strText(static_cast<std::size_t>(cch) + 1, '\0');
    OBJ_obj2txt(strText.data(), cch + 1, pObject, 1);
    strText.pop_back();
    return strText;
}

std::string HexText(const ASN1_INTEGER* pNumber) {
    const BignumPtr number(RequireMemory(ASN1_INTEGER_to_BN(pNumber, nullptr)));
    const MemoryPtr<char> text(RequireMemory(BN_bn2hex(number.get())));
    return text.get();
}

std::optional<std::time_t> MomentOf(const ASN1_TIME* pTime) {
    std::tm fields = {};
    // OpenSSL takes null for the current time.
    if (pTime == nullptr || ASN1_TIME_to_tm(pTime, &fields) != 1) {
        return std::nullopt;
    }
    return timegm(&fields);
}

std::string TextOf(std::time_t nTime) {
    std::tm fields = {};
    gmtime_r(&nTime, &fields);
    std::array<char, 80> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02dZ", fields.tm_year + 1900,
                                    fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec));
    return text.data();
}

std::optional<std::string> FingerprintText(const X509* pCertificate) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int cbDigest = 0;
    if (X509_digest(pCertificate, EVP_sha256(), digest.data(), &cbDigest) != 1) {
        return std::nullopt;
    }
    std::string strText;
    for (unsigned int i = 0; i < cbDigest; ++i) {
        vexposix::AppendHexByte(strText, digest[i]);
    }
    return strText;
}

namespace {

constexpr unsigned long kValueFlags = ASN1_STRFLGS_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB);

// Nothing: OpenSSL cannot show it.
std::optional<std::string> ValueText(const ASN1_STRING* pValue, unsigned long ulFlags) {
    const BioPtr bio(RequireMemory(BIO_new(BIO_s_mem())));
    if (ASN1_STRING_print_ex(bio.get(), pValue, ulFlags) < 0) {
        return std::nullopt;
    }
    const char* pch = nullptr;
    const long cch = BIO_get_mem_data(bio.get(), &pch);
    std::string strText(pch, static_cast<std::size_t>(cch));
    // A value that begins with "#" is its DER in hexadecimal. OpenSSL escapes the mark except when it is all there is.
    return strText == "#" ? "\\#" : strText;
}

// Null: OpenSSL has none. A host may have given OpenSSL a type with a long name alone.
const char* ShortName(const ASN1_OBJECT* pType) {
    const int nType = OBJ_obj2nid(pType);
    return nType == NID_undef ? nullptr : OBJ_nid2sn(nType);
}

}  // namespace

// X509_NAME_print_ex cuts the text of an unknown attribute type at 79 characters.
std::optional<std::string> NameText(const X509_NAME* pName) {
    std::string strName;
    int nRelativeName = -1;
    for (int i = X509_NAME_entry_count(pName) - 1; i >= 0; --i) {
        const X509_NAME_ENTRY* const pEntry = X509_NAME_get_entry(pName, i);
        const ASN1_OBJECT* const pType = X509_NAME_ENTRY_get_object(pEntry);
        const char* const pszType = ShortName(pType);
        const std::optional<std::string> strValue = ValueText(
            X509_NAME_ENTRY_get_data(pEntry), pszType == nullptr ? kValueFlags | ASN1_STRFLGS_DUMP_ALL : kValueFlags);
        if (!strValue) {
            return std::nullopt;
        }
        if (!strName.empty()) {
            strName += X509_NAME_ENTRY_set(pEntry) == nRelativeName ? '+' : ',';
        }
        nRelativeName = X509_NAME_ENTRY_set(pEntry);
        strName += (pszType == nullptr ? DottedText(pType) : pszType) + '=' + *strValue;
    }
    return strName;
}

}  // namespace vexcrypto
