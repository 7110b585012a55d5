#include "Verification.h"

#include <optional>
#include <utility>

#include "BareSignature.h"
#include "Encoding.h"
#include "SignedData.h"
#include "Time.h"

namespace vexsign::verify {

Report Verify(std::string file, const Settings& settings, const Reader* pContent) {
    Report report;
    report.trust = settings.trust;
    report.strMoment = TextOf(settings.nMoment);
    if (const char* const pszAdvice = AdviceAboutMessage(file)) {
        report.Fail(check::kForm, pszAdvice);
        return report;
    }
    const std::optional<std::string> bytes = DecodeSignature(std::move(file));
    if (!bytes) {
        report.Fail(check::kForm, "it is PEM, but damaged or not one CMS or PKCS7 block");
    } else if (bytes->empty()) {
        report.Fail(check::kForm, "it is empty");
    } else {
        report.kind = KindOf(*bytes);
        report.kind == Kind::kP1 ? VerifyBareSignature(*bytes, settings, pContent, report)
                                 : VerifySignedData(*bytes, settings, pContent, report);
    }
    return report;
}

}  // namespace vexsign::verify
