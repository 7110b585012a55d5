#include "Encoding.h"

#include <openssl/pem.h>

#include <array>
#include <limits>
#include <stdexcept>

#include "Ber.h"
#include "vexsign/Base64.h"

namespace vexsign::verify {
namespace {

constexpr std::string_view kPemBegin = "-----BEGIN ";

// Those of RFC 7468 and OpenSSL, and the one that GnuPG's gpgsm writes.
constexpr std::array kSignatureLabels = {PEM_STRING_CMS, PEM_STRING_PKCS7, PEM_STRING_PKCS7_SIGNED, "SIGNED MESSAGE"};

// Windows exports chains in this form.
constexpr const char* kBundle =
    "it is a bundle of certificates (PKCS #7); give the file that \"openssl pkcs7 -print_certs\" makes of it";

constexpr const char* kTrustedCertificate =
    "it is a certificate with trust settings of OpenSSL; give the file that \"openssl x509\" makes of it";

struct PemBlock {
    std::string strLabel;
    std::string strBytes;
};

// The next block; nothing at the end. Throws std::runtime_error if it is damaged or encrypted.
std::optional<PemBlock> NextBlock(BIO* pBio) {
    char* pszLabel = nullptr;
    char* pszHeader = nullptr;
    unsigned char* pbBytes = nullptr;
    long cbBytes = 0;
    if (PEM_read_bio(pBio, &pszLabel, &pszHeader, &pbBytes, &cbBytes) != 1) {
        const bool bEnd = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
        const std::string strReason = TakeReason();
        if (bEnd) {
            return std::nullopt;
        }
        throw std::runtime_error("the PEM is damaged: " + strReason);
    }
    const MemoryPtr<char> label(pszLabel);
    const MemoryPtr<char> header(pszHeader);
    const MemoryPtr<unsigned char> bytes(pbBytes);
    if (*pszHeader != '\0') {
        throw std::runtime_error("the PEM has headers, as if it were encrypted");
    }
    return PemBlock{pszLabel, std::string(reinterpret_cast<const char*>(pbBytes), static_cast<std::size_t>(cbBytes))};
}

BioPtr MemoryBio(std::string_view bytes) {
    if (bytes.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        throw std::runtime_error("the PEM is larger than 2 GiB");
    }
    return BioPtr(RequireMemory(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size()))));
}

X509Ptr CertificateOf(std::string_view der) {
    const auto* pb = reinterpret_cast<const unsigned char*>(der.data());
    const auto* const pbEnd = pb + der.size();
    X509Ptr certificate(d2i_X509(nullptr, &pb, static_cast<long>(der.size())));
    return certificate && pb == pbEnd ? std::move(certificate) : nullptr;
}

// Editors of Windows begin a text in UTF-8 with a mark. Bytes that are no text may begin so by chance.
std::string_view WithoutMark(std::string_view text) {
    constexpr std::string_view kMark = "\xEF\xBB\xBF";
    return text.starts_with(kMark) ? text.substr(kMark.size()) : text;
}

// Whether one sequence fills the file, or a P7 begins in it. Text with PEM is longer than the 127 bytes that its second
// character could mean as the sequence's length.
bool IsBinary(std::string_view file) {
    constexpr char kSequence = 0x30;
    if (!file.starts_with(kSequence)) {
        return false;
    }
    std::string_view rest = file;
    const bool bWhole = TakeElement(rest) && rest.empty();
    ERR_clear_error();
    return bWhole || KindOf(file) == Kind::kP7;
}

bool IsPem(std::string_view file) {
    // PEM may have text before it. The content of a signature may be PEM, and must not stand for the signature.
    const std::size_t nBegin = file.find(kPemBegin);
    return nBegin != std::string_view::npos && (nBegin == 0 || file[nBegin - 1] == '\n') &&
           file.substr(0, nBegin).find('\0') == std::string_view::npos && !IsBinary(file);
}

CertificatesPtr ReadPemCertificates(std::string_view text) {
    CertificatesPtr certificates = NewCertificates();
    const BioPtr bio = MemoryBio(text);
    const char* pszReason = "there is PEM in it, but no certificate";
    while (const std::optional<PemBlock> block = NextBlock(bio.get())) {
        if (block->strLabel == PEM_STRING_PKCS7) {
            pszReason = kBundle;
        } else if (block->strLabel == PEM_STRING_X509_TRUSTED) {
            pszReason = kTrustedCertificate;
        }
        if (block->strLabel != PEM_STRING_X509 && block->strLabel != PEM_STRING_X509_OLD) {
            continue;
        }
        const X509Ptr certificate = CertificateOf(block->strBytes);
        if (!certificate) {
            throw std::runtime_error("certificate " + std::to_string(sk_X509_num(certificates.get()) + 1) +
                                     " is damaged: " + TakeReason());
        }
        AddCertificate(certificates.get(), certificate.get());
    }
    if (sk_X509_num(certificates.get()) == 0) {
        throw std::runtime_error(pszReason);
    }
    return certificates;
}

}  // namespace

std::optional<SignatureFile> ParseSignatureFile(std::string file) {
    const std::string_view text = WithoutMark(file);
    if (IsPem(text)) {
        try {
            const BioPtr bio = MemoryBio(text);
            std::optional<PemBlock> block = NextBlock(bio.get());
            // Of two signatures nobody could tell which one was checked.
            if (NextBlock(bio.get())) {
                return std::nullopt;
            }
            for (const std::string_view label : kSignatureLabels) {
                if (block && block->strLabel == label) {
                    return SignatureFile{std::move(block->strBytes), FileForm::kPem, std::move(block->strLabel)};
                }
            }
        } catch (const std::runtime_error&) {
            // The caller says what the file should be.
        }
        return std::nullopt;
    }
    std::optional<std::string> bytes = DecodeBase64(text);
    return bytes && !bytes->empty() ? SignatureFile{std::move(*bytes), FileForm::kBase64}
                                    : SignatureFile{std::move(file)};
}

std::optional<std::string> DecodeSignature(std::string file) {
    std::optional<SignatureFile> parsed = ParseSignatureFile(std::move(file));
    return parsed ? std::optional(std::move(parsed->strBytes)) : std::nullopt;
}

const char* AdviceAboutMessage(std::string_view file) {
    return file.starts_with("MIME-Version:") || file.starts_with("Content-Type:")
               ? "it is an S/MIME message; give what \"openssl cms -cmsout -outform DER\" makes of it"
               : nullptr;
}

Kind KindOf(std::string_view bytes) {
    constexpr unsigned char kSequence = 0x30;
    constexpr unsigned char kLongLength = 0x80;
    constexpr char kObjectIdentifier = 0x06;
    if (bytes.size() < 3 || static_cast<unsigned char>(bytes[0]) != kSequence) {
        return Kind::kP1;
    }
    const auto uLength = static_cast<unsigned char>(bytes[1]);
    const std::size_t nFirst = 2U + (uLength >= kLongLength ? uLength - kLongLength : 0U);
    return nFirst < bytes.size() && bytes[nFirst] == kObjectIdentifier ? Kind::kP7 : Kind::kP1;
}

CertificatesPtr ReadCertificates(const std::string& strFile, const std::string& strName) {
    try {
        const std::string_view text = WithoutMark(strFile);
        if (IsPem(text)) {
            return ReadPemCertificates(text);
        }
        const std::optional<std::string> decoded = DecodeBase64(text);
        const std::string& strBytes = decoded && !decoded->empty() ? *decoded : strFile;
        const X509Ptr certificate = CertificateOf(strBytes);
        ERR_clear_error();
        if (!certificate) {
            throw std::runtime_error(KindOf(strBytes) == Kind::kP7 ? kBundle
                                                                   : "it is no certificate in PEM, DER or Base64");
        }
        CertificatesPtr certificates = NewCertificates();
        AddCertificate(certificates.get(), certificate.get());
        return certificates;
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(strName + ": " + error.what());
    }
}

}  // namespace vexsign::verify
