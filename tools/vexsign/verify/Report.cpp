#include "Report.h"

#include <algorithm>
#include <string_view>

namespace vexsign::verify {

bool Findings::HasPassed(const char* pszName) const {
    return std::any_of(checks.begin(), checks.end(), [&](const Check& found) {
        return std::string_view(found.pszName) == pszName && found.result == Result::kPassed;
    });
}

bool Findings::HasFailed() const {
    return std::any_of(checks.begin(), checks.end(),
                       [](const Check& found) { return found.result == Result::kFailed; });
}

bool Report::IsGood() const {
    if (HasFailed() || signers.empty()) {
        return false;
    }
    // A check that was forgotten must not look like one that passed.
    return std::all_of(signers.begin(), signers.end(), [&](const SignerReport& signer) {
        return !signer.HasFailed() && signer.HasPassed(check::kContent) && signer.HasPassed(check::kSignature) &&
               signer.HasPassed(check::kAlgorithm) && signer.HasPassed(check::kUsage) &&
               signer.HasPassed(check::kValidity) && (kind == Kind::kP1 || signer.HasPassed(check::kAttributes)) &&
               (trust == Trust::kNone || signer.HasPassed(check::kChain));
    });
}

}  // namespace vexsign::verify
