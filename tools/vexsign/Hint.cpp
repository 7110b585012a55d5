#include "Hint.h"

#include "DigestName.h"
#include "SignerCertificate.h"
#include "common/ShellWord.h"

namespace vexsign {
namespace {

constexpr const char* kKeySuffix = ".pub";
constexpr const char* kContentSuffix = ".content";

std::string P1Hint(const Options& options, const std::string& strDer) {
    const std::string strKey = tools::ShellWord(options.strCertificate + kKeySuffix);
    const std::string strMakeKey =
        "openssl x509 -in " + tools::ShellWord(options.strCertificate) + " -noout -pubkey -out " + strKey + " && ";
    std::string strVerify;
    std::string strFile = tools::ShellWord(options.Input());
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
        return strMakeKey + strVerify + tools::ShellWord(options.strOutput) + strFile;
    }
    return strMakeKey + "openssl base64 -d -A -in " + tools::ShellWord(options.strOutput) + " | " + strVerify +
           "/dev/stdin" + strFile;
}

std::string P7Hint(const Options& options, const std::string& strDer) {
    std::string strHint = "openssl cms -verify -binary -inform DER";
    if (options.bDer) {
        strHint += " -in " + tools::ShellWord(options.strOutput);
    } else {
        strHint.insert(0, "openssl base64 -d -A -in " + tools::ShellWord(options.strOutput) + " | ");
    }
    if (options.strCertificate.empty()) {
        strHint += " -noverify";
    } else {
        const std::string strCertificate = tools::ShellWord(options.strCertificate);
        strHint += " -certfile " + strCertificate + " -CAfile " + strCertificate + " -partial_chain" +
                   (IsForOtherPurposes(strDer) ? " -purpose any" : "");
    }
    if (options.bDetached) {
        return strHint + " -content " + tools::ShellWord(options.Input()) + " -out /dev/null";
    }
    const std::string strContent = tools::ShellWord(options.strOutput + kContentSuffix);
    return strHint + " -out " + strContent + " && cmp " + strContent + " " + tools::ShellWord(options.Input());
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
