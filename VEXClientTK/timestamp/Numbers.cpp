#include "timestamp/Numbers.h"

#include <array>
#include <cstdio>

namespace vextimestamp {

std::optional<Bytes> PositiveBytes(const ASN1_INTEGER* pNumber) {
    if (pNumber == nullptr) {
        return std::nullopt;
    }
    const BignumPtr number(RequireMemory(ASN1_INTEGER_to_BN(pNumber, nullptr)));
    if (BN_is_negative(number.get()) != 0 || BN_is_zero(number.get())) {
        return std::nullopt;
    }
    Bytes bytes(static_cast<std::size_t>(BN_num_bytes(number.get())));
    BN_bn2bin(number.get(), bytes.data());
    return bytes;
}

View ViewOf(const ASN1_STRING* pString) {
    return {ASN1_STRING_get0_data(pString), static_cast<std::size_t>(ASN1_STRING_length(pString))};
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
    std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02dZ", fields.tm_year + 1900, fields.tm_mon + 1,
                  fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec);
    return text.data();
}

namespace {

bool IsValueEnd(const std::string& strName, std::size_t n) {
    return n >= strName.size() || strName[n] == ',' || strName[n] == '+';
}

// OpenSSL does not escape "#" when it is a whole value. RFC 4514 demands it, because a value that begins with "#" is
// its DER in hexadecimal.
std::string WithEscapedMarks(const std::string& strName) {
    std::string strEscaped;
    bool bInType = true;
    for (std::size_t i = 0; i < strName.size(); ++i) {
        const char ch = strName[i];
        if (bInType) {
            bInType = ch != '=';
            strEscaped += ch;
            strEscaped += !bInType && strName.compare(i + 1, 1, "#") == 0 && IsValueEnd(strName, i + 2) ? "\\" : "";
        } else if (ch == '\\' && i + 1 < strName.size()) {
            strEscaped.append(strName, i++, 2);
        } else {
            bInType = ch == ',' || ch == '+';
            strEscaped += ch;
        }
    }
    return strEscaped;
}

}  // namespace

std::optional<std::string> NameText(const X509_NAME* pName) {
    const BioPtr text(RequireMemory(BIO_new(BIO_s_mem())));
    constexpr unsigned long kFlags = XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB);
    if (X509_NAME_print_ex(text.get(), pName, 0, kFlags) < 0) {
        return std::nullopt;
    }
    const char* pch = nullptr;
    const long cch = BIO_get_mem_data(text.get(), &pch);
    return cch > 0 ? WithEscapedMarks(std::string(pch, static_cast<std::size_t>(cch))) : std::string();
}

}  // namespace vextimestamp
