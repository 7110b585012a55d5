#include "signing/Candidates.h"

#include <algorithm>
#include <iterator>
#include <unordered_map>

namespace vextk {
namespace {

struct FlawWords {
    Flaw flaw;
    const char* pszState;    // in the certificate list
    const char* pszOne;      // after the number 1
    const char* pszSeveral;  // after other numbers
    std::string (*detail)(const Identity&);
};

std::string None(const Identity&) {
    return {};
}

// The day, and the name of the certificate.
std::string DayAndName(const std::string& strTime, const Identity& identity) {
    const std::string& strName = identity.Subject();
    return " " + strTime.substr(0, strTime.find('T')) + (strName.empty() ? "" : " (" + strName + ")");
}

// In the order of the message.
constexpr FlawWords kFlaws[] = {
    {Flaw::kExpired, "expired", "expired on", "expired, the last on",
     [](const Identity& i) { return DayAndName(i.NotAfterText(), i); }},
    {Flaw::kNotYetValid, "not-valid-yet", "not valid before", "not valid yet, the first before",
     [](const Identity& i) { return DayAndName(i.NotBeforeText(), i); }},
    {Flaw::kNotForSigning, "not-for-signing", "not for signing", "not for signing", None},
    {Flaw::kNoPrivateKey, "no-private-key", "without a private key", "without a private key", None},
    {Flaw::kKeyCannotSign, "key-cannot-sign", "with a key that may not sign", "with a key that may not sign", None},
    {Flaw::kKeyTooShort, "key-too-short", "with a key too short:", "with a key too short, the first",
     [](const Identity& i) { return " " + i.KeyAlgorithm() + " " + std::to_string(i.KeyBits()) + " bits"; }},
    {Flaw::kUnsupportedKey, "unsupported-key", "with an unsupported key:", "with an unsupported key, the first",
     [](const Identity& i) { return i.KeyAlgorithm() == "EC" ? " EC on an unnamed curve" : " " + i.KeyAlgorithm(); }},
    {Flaw::kDamaged, "damaged", "damaged", "damaged", None},
};

bool EndsEarlier(const IdentityPtr& a, const IdentityPtr& b) {
    return a->NotAfter() < b->NotAfter();
}

bool BeginsEarlier(const IdentityPtr& a, const IdentityPtr& b) {
    return a->NotBefore() < b->NotBefore();
}

// The certificate whose details the text gives.
const Identity& Example(Flaw flaw, const Identities& group) {
    switch (flaw) {
        case Flaw::kExpired:
            return **std::max_element(group.begin(), group.end(), EndsEarlier);
        case Flaw::kNotYetValid:
            return **std::min_element(group.begin(), group.end(), BeginsEarlier);
        default:
            return *group.front();
    }
}

// Whether the copy of a certificate has a private key, or a reason why its key cannot sign, and the other one has none.
bool TellsMore(const Identity& copy, const Identity& other) {
    return other.Key() == nullptr && (copy.Key() != nullptr || other.FlawAt(other.NotBefore()) == Flaw::kNoPrivateKey);
}

void Append(std::string& strList, const std::string& strPart) {
    strList.append(strList.empty() ? "" : ", ").append(strPart);
}

}  // namespace

Identities WithoutCopies(Identities identities) {
    std::unordered_map<std::string, size_t> places;
    Identities different;
    for (IdentityPtr& identity : identities) {
        const bool bReadable = identity->Certificate() != nullptr;
        const auto [place, bNew] = places.try_emplace(identity->FingerprintHex(), different.size());
        if (bNew || !bReadable) {
            different.push_back(std::move(identity));
        } else if (IdentityPtr& first = different[place->second]; TellsMore(*identity, *first)) {
            first = std::move(identity);
        }
    }
    return different;
}

std::string PassedOverText(const Identities& passedOver, size_t cFiltered, std::time_t now) {
    std::string strReasons;
    for (const FlawWords& words : kFlaws) {
        Identities group;
        std::copy_if(passedOver.begin(), passedOver.end(), std::back_inserter(group),
                     [&](const IdentityPtr& identity) { return identity->FlawAt(now) == words.flaw; });
        if (!group.empty()) {
            Append(strReasons, std::to_string(group.size()) + " " +
                                   (group.size() == 1 ? words.pszOne : words.pszSeveral) +
                                   words.detail(Example(words.flaw, group)));
        }
    }
    if (cFiltered > 0) {
        Append(strReasons, std::to_string(cFiltered) + " not passing the filters");
    }
    return strReasons.empty() ? strReasons
                              : std::to_string(passedOver.size() + cFiltered) + " passed over: " + strReasons;
}

std::string StateText(const Identity& identity, std::time_t now) {
    const Flaw flaw = identity.FlawAt(now);
    const auto* const pWords =
        std::find_if(std::begin(kFlaws), std::end(kFlaws), [=](const FlawWords& words) { return words.flaw == flaw; });
    if (pWords == std::end(kFlaws)) {
        return "signs";
    }
    return flaw == Flaw::kKeyTooShort ? pWords->pszState + (":" + std::to_string(identity.KeyBits()))
                                      : pWords->pszState;
}

}  // namespace vextk
