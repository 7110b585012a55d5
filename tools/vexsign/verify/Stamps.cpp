#include "Stamps.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "Time.h"
#include "timestamp/Cms.h"
#include "timestamp/Numbers.h"
#include "timestamp/Token.h"

namespace vexsign::verify {
namespace {

using vextimestamp::View;

// Nobody needs more, and each costs a check of signatures.
constexpr std::size_t kMostStamps = 16;

// Behind the last semicolon is advice for whoever asks for a time stamp. Whoever verifies one can ask nobody.
std::string ReasonOf(const vextimestamp::Fault& fault) {
    const std::string strReason = fault.what();
    return strReason.substr(0, strReason.rfind("; "));
}

// Empty: the store's certificates vouch for the authority.
std::string TrustFault(View token, View signature, X509_STORE* pStore) {
    try {
        static_cast<void>(vextimestamp::CheckToken(token, signature, pStore, nullptr));
        return {};
    } catch (const vextimestamp::Fault& fault) {
        return ReasonOf(fault);
    }
}

// The moment that the time stamp proves; nothing: it is wrong or not trusted, which the report says.
std::optional<std::time_t> CheckStamp(View token, View signature, const Settings& settings, SignerReport& signer) {
    vextimestamp::TokenFacts facts;
    try {
        facts = vextimestamp::CheckToken(token, signature, nullptr, nullptr);
    } catch (const vextimestamp::Fault& fault) {
        signer.Fail(check::kStamp, "a time stamp is wrong: " + ReasonOf(fault));
        return std::nullopt;
    }
    TimeStamp& stamp = signer.stamps.emplace_back(
        TimeStamp{TextOf(facts.time), facts.strAuthority, facts.strPolicy, facts.strSerial, facts.strDigest});
    X509_STORE* const pStore = settings.stampStore ? settings.stampStore.get() : settings.store.get();
    if (pStore == nullptr) {
        signer.Skip(check::kStamp, "who issued the certificate of the time stamp's authority, " + stamp.strAuthority +
                                       "; give its root with --tsa-ca");
        return std::nullopt;
    }
    if (const std::string strFault = TrustFault(token, signature, pStore); !strFault.empty()) {
        if (settings.stampStore) {
            signer.Fail(check::kStamp, "the --tsa-ca files do not vouch for a time stamp: " + strFault);
        } else {
            signer.Skip(check::kStamp, "a time stamp of an authority that is not trusted: " + strFault +
                                           "; if you trust it, give its root with --tsa-ca");
        }
        return std::nullopt;
    }
    stamp.bTrusted = true;
    if (facts.time > settings.nMoment + kClockError) {
        signer.Fail(check::kStamp, "the time stamp is of " + stamp.strTime + ", which is later than " +
                                       TextOf(settings.nMoment) + "; a clock is wrong, or --at is");
        return std::nullopt;
    }
    signer.Pass(check::kStamp, "the signature existed on " + stamp.strTime + ", says " + stamp.strAuthority);
    return facts.time;
}

}  // namespace

std::optional<std::time_t> CheckStamps(CMS_SignerInfo* pInfo, const Settings& settings, SignerReport& signer) {
    const std::vector<const ASN1_STRING*> tokens = vextimestamp::TokensOf(pInfo);
    if (tokens.size() > kMostStamps) {
        signer.Fail(check::kStamp, "it has more than " + std::to_string(kMostStamps) + " time stamps");
        return std::nullopt;
    }
    const View signature = vextimestamp::ViewOf(CMS_SignerInfo_get0_signature(pInfo));
    std::optional<std::time_t> earliest;
    for (const ASN1_STRING* const pToken : tokens) {
        if (pToken == nullptr) {
            signer.Fail(check::kStamp, "a time stamp is wrong: it is no sequence");
            continue;
        }
        const std::optional<std::time_t> moment = CheckStamp(vextimestamp::ViewOf(pToken), signature, settings, signer);
        if (moment) {
            earliest = std::min(*moment, earliest.value_or(*moment));
        }
    }
    // The queue of errors belongs to the next check.
    ERR_clear_error();
    if (earliest) {
        signer.time = SigningTime{TextOf(*earliest), true, signer.time ? signer.time->strClaimed : ""};
    }
    return earliest;
}

}  // namespace vexsign::verify
