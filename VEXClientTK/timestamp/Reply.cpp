#include "timestamp/Reply.h"

#include <array>
#include <string>

#include "posix/VisibleText.h"
#include "timestamp/Der.h"
#include "timestamp/OpenSsl.h"

namespace vextimestamp {
namespace {

struct FailureName {
    int nBit;
    const char* pszText;
};
constexpr std::array kFailures = {
    FailureName{TS_INFO_BAD_ALG, "badAlg: it does not support the digest; use another one"},
    FailureName{TS_INFO_BAD_REQUEST, "badRequest: it does not allow or support this request"},
    FailureName{TS_INFO_BAD_DATA_FORMAT, "badDataFormat: it cannot read the request"},
    FailureName{TS_INFO_TIME_NOT_AVAILABLE, "timeNotAvailable: its clock is out of order; try again later"},
    FailureName{TS_INFO_UNACCEPTED_POLICY, "unacceptedPolicy: it does not offer the policy; ask for another one"},
    FailureName{TS_INFO_UNACCEPTED_EXTENSION, "unacceptedExtension: it does not support the request's extension"},
    FailureName{TS_INFO_ADD_INFO_NOT_AVAILABLE, "addInfoNotAvailable: it does not have what was asked for"},
    FailureName{TS_INFO_SYSTEM_FAILURE, "systemFailure: it is out of order; try again later"},
};

// A hostile text must not fill the message.
constexpr std::size_t kMostText = 200;

std::string StatusName(long nStatus) {
    constexpr std::array kNames = {"granted", "grantedWithMods",   "rejection",
                                   "waiting", "revocationWarning", "revocationNotification"};
    return nStatus >= 0 && static_cast<std::size_t>(nStatus) < kNames.size() ? kNames[static_cast<std::size_t>(nStatus)]
                                                                             : "status " + std::to_string(nStatus);
}

std::string Reasons(const TS_STATUS_INFO* pStatus) {
    std::string strReasons;
    const STACK_OF(ASN1_UTF8STRING)* const pTexts = TS_STATUS_INFO_get0_text(pStatus);
    for (int i = 0; i < sk_ASN1_UTF8STRING_num(pTexts) && strReasons.size() < kMostText; ++i) {
        const ASN1_UTF8STRING* const pText = sk_ASN1_UTF8STRING_value(pTexts, i);
        const auto cb = static_cast<std::size_t>(ASN1_STRING_length(pText));
        const std::string_view text(reinterpret_cast<const char*>(ASN1_STRING_get0_data(pText)), cb);
        strReasons += ", \"" + vexposix::Visible(text.substr(0, kMostText), true) + "\"";
    }
    const ASN1_BIT_STRING* const pFailures = TS_STATUS_INFO_get0_failure_info(pStatus);
    for (const FailureName& failure : kFailures) {
        if (pFailures != nullptr && ASN1_BIT_STRING_get_bit(pFailures, failure.nBit) != 0) {
            strReasons += std::string(", ") + failure.pszText;
        }
    }
    return strReasons;
}

}  // namespace

Bytes TokenOf(std::span<const unsigned char> reply) {
    const ErrorMark mark;
    View rest = reply;
    const std::optional<Element> outer = TakeElement(rest, V_ASN1_SEQUENCE);
    if (!outer) {
        ThrowNoReply("it is no sequence in DER");
    }
    if (!rest.empty()) {
        ThrowNoReply("something is behind it");
    }
    View fields = outer->body;
    const std::optional<Element> statusElement = TakeElement(fields, V_ASN1_SEQUENCE);
    if (!statusElement) {
        ThrowNoReply("it has no status");
    }
    const unsigned char* pb = statusElement->whole.data();
    const StatusPtr status(d2i_TS_STATUS_INFO(nullptr, &pb, static_cast<long>(statusElement->whole.size())));
    if (!status || pb != statusElement->whole.data() + statusElement->whole.size()) {
        ThrowNoReply("OpenSSL cannot read its status: " + LastReason());
    }
    const ASN1_INTEGER* const pNumber = TS_STATUS_INFO_get0_status(status.get());
    const long nStatus = ASN1_INTEGER_get(pNumber);
    if (nStatus != TS_STATUS_GRANTED && nStatus != TS_STATUS_GRANTED_WITH_MODS) {
        throw Fault("the authority refuses: " + StatusName(nStatus) + Reasons(status.get()));
    }
    const std::optional<Element> token = OnlySequence(fields);
    if (!token) {
        ThrowNoReply(fields.empty() ? "it is granted, but has no token" : "its token is no sequence in DER");
    }
    return {token->whole.begin(), token->whole.end()};
}

}  // namespace vextimestamp
