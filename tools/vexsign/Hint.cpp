#include "Hint.h"

#include <string_view>

#include "DigestName.h"
#include "SignerKey.h"
#include "common/Message.h"
#include "posix/VisibleText.h"

namespace vexsign {
namespace {

constexpr const char* kKeySuffix = ".pub";
constexpr const char* kContentSuffix = ".content";

// The path as one word of sh; special bytes are octal, so that it cannot harm a terminal. The path must not end in a
// line end, which $(...) would remove.
std::string OctalWord(const std::string& strPath, std::string_view plain) {
    std::string strWord = "\"$(printf '";
    for (const char ch : strPath) {
        if (plain.find(ch) != std::string_view::npos && ch != '%') {
            strWord += ch;
        } else {
            const auto uByte = static_cast<unsigned char>(ch);
            strWord += {'\\', static_cast<char>('0' + uByte / 64), static_cast<char>('0' + uByte / 8 % 8),
                        static_cast<char>('0' + uByte % 8)};
        }
    }
    return strWord + "')\"";
}

// A file name as one word of sh, which no program takes for an option.
std::string Word(const std::string& strName) {
    constexpr std::string_view kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~/+,:@%";
    std::string strPath = strName.starts_with('-') ? "./" + strName : strName;
    if (strPath.find_first_not_of(kPlain) == std::string::npos && !strPath.starts_with('~')) {
        return strPath;
    }
    if (vexposix::Visible(strPath, tools::LocaleIsUtf8()) != strPath) {
        return OctalWord(strPath, kPlain);
    }
    std::string strWord = "'";
    for (const char ch : strPath) {
        strWord += ch == '\'' ? std::string("'\\''") : std::string(1, ch);
    }
    return strWord + "'";
}

std::string P1Hint(const Options& options, const std::string& strDer) {
    const std::string strKey = Word(options.strCertificate + kKeySuffix);
    const std::string strMakeKey =
        "openssl x509 -in " + Word(options.strCertificate) + " -noout -pubkey -out " + strKey + " && ";
    std::string strVerify;
    std::string strFile = Word(options.Input());
    if (SignsWholeDataOnly(strDer)) {
        strVerify = "openssl pkeyutl -verify -rawin -pubin -inkey " + strKey + " -in " + strFile + " -sigfile ";
        strFile.clear();
    } else {
        const DigestName digest(options.strDigest.empty() ? "SHA-256" : options.strDigest);
        strVerify = "openssl dgst " + digest.DgstOption() +
                    (digest.IsPss() ? " -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest" : "") +
                    " -verify " + strKey + " -signature ";
        strFile.insert(0, " ");
    }
    if (options.bDer) {
        return strMakeKey + strVerify + Word(options.strOutput) + strFile;
    }
    return strMakeKey + "openssl base64 -d -A -in " + Word(options.strOutput) + " | " + strVerify + "/dev/stdin" +
           strFile;
}

// Whether openssl refuses the certificate for its default purpose, signing mail: the certificate has extended key
// usages without emailProtection.
bool IsForOtherPurposes(const std::string& strDer) {
    using namespace std::string_view_literals;
    constexpr std::string_view kExtendedKeyUsage = "\x06\x03\x55\x1D\x25"sv;
    constexpr std::string_view kEmailProtection = "\x06\x08\x2B\x06\x01\x05\x05\x07\x03\x04"sv;
    const std::size_t nExtension = strDer.find(kExtendedKeyUsage);
    return nExtension != std::string::npos && strDer.find(kEmailProtection, nExtension) == std::string::npos;
}

std::string P7Hint(const Options& options, const std::string& strDer) {
    std::string strHint = "openssl cms -verify -binary -inform DER";
    if (options.bDer) {
        strHint += " -in " + Word(options.strOutput);
    } else {
        strHint.insert(0, "openssl base64 -d -A -in " + Word(options.strOutput) + " | ");
    }
    if (options.strCertificate.empty()) {
        strHint += " -noverify";
    } else {
        const std::string strCertificate = Word(options.strCertificate);
        strHint += " -certfile " + strCertificate + " -CAfile " + strCertificate + " -partial_chain" +
                   (IsForOtherPurposes(strDer) ? " -purpose any" : "");
    }
    if (options.bDetached) {
        return strHint + " -content " + Word(options.Input()) + " -out /dev/null";
    }
    const std::string strContent = Word(options.strOutput + kContentSuffix);
    return strHint + " -out " + strContent + " && cmp " + strContent + " " + Word(options.Input());
}

}  // namespace

std::string VerifyHint(const Options& options, const std::string& strCertificate) {
    return options.command == Command::kP1 ? P1Hint(options, strCertificate) : P7Hint(options, strCertificate);
}

std::vector<std::string> FilesOfHint(const Options& options) {
    if (options.command == Command::kP1) {
        return {options.strCertificate + kKeySuffix};
    }
    return options.bDetached ? std::vector<std::string>() : std::vector{options.strOutput + kContentSuffix};
}

}  // namespace vexsign
