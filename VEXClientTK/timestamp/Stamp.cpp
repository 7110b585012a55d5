#include "timestamp/Stamp.h"

#include "posix/VisibleText.h"
#include "timestamp/Cms.h"
#include "timestamp/Connection.h"
#include "timestamp/Http.h"
#include "timestamp/Reply.h"

namespace vextimestamp {

Bytes Stamp(std::span<const unsigned char> cms, const Settings& settings) {
    if (settings.authorities.empty()) {
        throw Fault("no time-stamp authority is given; give the http:// address of one");
    }
    const Deadline deadline = std::chrono::steady_clock::now() + settings.timeout;
    const Bytes signatureValue = SignatureValueOf(cms);
    std::string strFaults;
    for (std::size_t i = 0; i < settings.authorities.size(); ++i) {
        const std::string& strAuthority = settings.authorities[i];
        // A fault of the digest or of the policy is not the authority's.
        const Request request = MakeRequest(signatureValue, settings.wanted);
        try {
            const Bytes token =
                TokenOf(Exchange(strAuthority, request.der, PartOf(deadline, settings.authorities.size() - i)));
            CheckToken(token, signatureValue, settings.trusted.get(), &request);
            return WithToken(cms, token);
        } catch (const Fault& fault) {
            strFaults += (strFaults.empty() ? "" : "; ") + vexposix::Visible(strAuthority, true) + ": " + fault.what();
        }
    }
    throw Fault(strFaults);
}

}  // namespace vextimestamp
