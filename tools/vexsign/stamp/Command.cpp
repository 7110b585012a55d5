#include "Command.h"

#include <openssl/x509_vfy.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <utility>

#include "common/FileIdentity.h"
#include "timestamp/Stamp.h"
#include "vexsign/AsBytes.h"
#include "vexsign/DigestName.h"
#include "vexsign/Files.h"
#include "vexsign/verify/Certificate.h"
#include "vexsign/verify/Encoding.h"
#include "vexsign/verify/ReadFile.h"

namespace vexsign::stamp {
namespace {

// SIGNATURE itself may be the output: it is replaced at the end.
void RefuseDangerousOutput(const Options& options) {
    const std::string& strTrusted = options.timeStamps.strTrusted;
    if (!strTrusted.empty() &&
        tools::FileIdentity::OfOutput(options.strOutput).IsSameFile(tools::FileIdentity::OfInput(strTrusted))) {
        throw std::runtime_error(tools::ShownName(options.strOutput, "standard output") +
                                 ": the signature's file would be the one of --tsa-ca; choose another output");
    }
}

// In each spelling that "vexsign p7" takes. A time stamp has no padding, and hashes what it stamps.
std::string DigestOf(const std::string& strName) {
    const DigestName digest(strName);
    return digest.IsPss() || digest.IsPrehashed() ? strName : digest.OpenSsl();
}

vextimestamp::Settings SettingsOf(const TimeStamps& timeStamps) {
    vextimestamp::Settings settings;
    settings.authorities = timeStamps.authorities;
    settings.wanted.strPolicy = timeStamps.strPolicy;
    settings.timeout = std::chrono::milliseconds(timeStamps.nTimeout);
    if (!timeStamps.strDigest.empty()) {
        settings.wanted.strDigest = DigestOf(timeStamps.strDigest);
    }
    if (!timeStamps.strTrusted.empty()) {
        settings.trusted = verify::StoreOfFiles({timeStamps.strTrusted});
    }
    return settings;
}

// The signature's form decides how the result is written.
std::string Encoded(std::string bytes, const verify::SignatureFile& like) {
    switch (like.form) {
        case verify::FileForm::kPem:
            return AsPem(like.strLabel, bytes);
        case verify::FileForm::kBase64:
            return AsBase64Line(bytes);
        default:
            return bytes;
    }
}

}  // namespace

void Run(const Options& options) {
    RefuseDangerousOutput(options);
    const std::string strName = tools::ShownName(options.strSignature, "standard input");
    std::string strFile = verify::ReadWhole(options.strSignature, verify::kMostSignatureFile);
    if (const char* const pszAdvice = verify::AdviceAboutMessage(strFile)) {
        throw std::runtime_error(strName + ": " + pszAdvice);
    }
    const std::optional<verify::SignatureFile> signature = verify::ParseSignatureFile(std::move(strFile));
    if (!signature || verify::KindOf(signature->strBytes) != verify::Kind::kP7) {
        throw std::runtime_error(strName +
                                 ": it is no P7 signature (CMS SignedData); a bare signature has no place for a "
                                 "time stamp");
    }
    const vextimestamp::Settings settings = SettingsOf(options.timeStamps);
    std::string stamped;
    try {
        const auto bytes = vextimestamp::Stamp(AsBytes(signature->strBytes), settings);
        stamped.assign(bytes.begin(), bytes.end());
    } catch (const vextimestamp::Fault& fault) {
        throw std::runtime_error(strName + ": " + fault.what());
    }
    const std::string strOutput = Encoded(std::move(stamped), *signature);
    WriteOutputs({{options.strOutput, {strOutput}}});
}

}  // namespace vexsign::stamp
