#include "signing/TokenStore.h"

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "posix/Utf8.h"
#include "signing/Candidates.h"
#include "signing/Failure.h"
#include "signing/Pkcs11Module.h"
#include "signing/Token.h"
#include "signing/TokenPrivateKey.h"

namespace vextk {
namespace {

bool Matches(const TokenUri& uri, const char* pszAttribute, const std::string& strValue) {
    const auto found = uri.attributes.find(pszAttribute);
    return found == uri.attributes.end() || found->second == strValue;
}

bool Describes(const TokenUri& uri, const TokenSlot& slot) {
    return Matches(uri, "token", slot.name.strLabel) && Matches(uri, "manufacturer", slot.name.strManufacturer) &&
           Matches(uri, "model", slot.name.strModel) && Matches(uri, "serial", slot.name.strSerial) &&
           Matches(uri, "slot-description", slot.strSlotDescription) &&
           Matches(uri, "slot-manufacturer", slot.strSlotManufacturer) &&
           Matches(uri, "slot-id", std::to_string(slot.nId));
}

bool Describes(const TokenUri& uri, const Pkcs11Module& module) {
    CK_INFO info{};
    const CK_RV rv = module.Call([&](auto& functions) { return functions.C_GetInfo(&info); });
    if (rv != CKR_OK) {
        throw Failure(VCTK_E_TOKEN_FAILED, "C_GetInfo: " + Pkcs11ResultText(rv));
    }
    const std::string strVersion =
        std::to_string(info.libraryVersion.major) + "." + std::to_string(info.libraryVersion.minor);
    return Matches(uri, "library-manufacturer", Pkcs11Text(info.manufacturerID)) &&
           Matches(uri, "library-description", Pkcs11Text(info.libraryDescription)) &&
           Matches(uri, "library-version", strVersion);
}

// What the URI says about the token, such as "token=Card;serial=1".
std::string WantedText(const TokenUri& uri) {
    std::string strText;
    for (const auto& [strName, strValue] : uri.attributes) {
        if (strName != "id" && strName != "object" && strName != "type") {
            strText.append(strText.empty() ? "" : ";").append(strName).append("=").append(strValue);
        }
    }
    return strText.empty() ? "any token" : strText;
}

// The token that the URI describes. It must be the only one, so that a PIN is not tried on another token. It must also
// be the only one of its name, because from here on only the name identifies it.
TokenName FindToken(const TokenUri& uri, const Pkcs11Module& module) try {
    std::vector<TokenSlot> present;
    if (Describes(uri, module)) {
        present = ListTokens(module);
    }
    std::vector<TokenSlot> matching = present;
    std::erase_if(matching, [&](const TokenSlot& slot) { return !Describes(uri, slot); });
    if (matching.empty()) {
        throw Failure(VCTK_E_TOKEN_NOT_FOUND, "no token matches; insert the token or check the URI");
    }
    RequireDistinct(present, matching.front().name);
    if (matching.size() > 1) {
        throw Failure(VCTK_E_TOKEN_NOT_FOUND,
                      std::to_string(matching.size()) + " tokens match; choose one with serial=");
    }
    return matching.front().name;
} catch (const Failure& failure) {
    throw failure.About(WantedText(uri));
}

// The URI's type says whether its object is the certificate's or the key's label. Without a type, either may match.
bool DescribesObject(const TokenUri& uri, const TokenCertificate& certificate, const TokenKey& key) {
    const auto type = uri.attributes.find("type");
    const bool bCertificate = type == uri.attributes.end() || type->second == "cert";
    const bool bKey = type == uri.attributes.end() || type->second == "private";
    return Matches(uri, "id", key.strId) && ((bCertificate && Matches(uri, "object", certificate.strLabel)) ||
                                             (bKey && Matches(uri, "object", key.strLabel)));
}

// The keys of each identifier, the first of each type. A key without an identifier belongs to no certificate.
class KeysById {
public:
    explicit KeysById(const std::vector<TokenKey>& keys) {
        for (const TokenKey& key : keys) {
            if (!key.strId.empty()) {
                OfType& ofId = m_keys[key.strId];
                if (Find(ofId, key.type) == nullptr) {
                    ofId.push_back(&key);
                }
            }
        }
    }

    // The key of the certificate's identifier and type; null if there is none.
    const TokenKey* Fitting(const TokenCertificate& certificate) const {
        const auto found = m_keys.find(certificate.strId);
        const auto type = TokenKeyType(certificate.certificate.get());
        return found != m_keys.end() && type ? Find(found->second, *type) : nullptr;
    }

    // The first key of the certificate's identifier, of whatever type; null if there is none.
    const TokenKey* First(const TokenCertificate& certificate) const {
        const auto found = m_keys.find(certificate.strId);
        return found != m_keys.end() ? found->second.front() : nullptr;
    }

private:
    using OfType = std::vector<const TokenKey*>;

    static const TokenKey* Find(const OfType& keys, CK_KEY_TYPE type) {
        const auto found =
            std::find_if(keys.begin(), keys.end(), [=](const TokenKey* pKey) { return pKey->type == type; });
        return found != keys.end() ? *found : nullptr;
    }

    std::unordered_map<std::string_view, OfType> m_keys;
};

// A label as a name; empty if it is none.
std::string NameFrom(const std::string& strLabel) {
    const bool bText = vexposix::IsPlainUtf8(strLabel) && strLabel.find('\0') == std::string::npos;
    return bText ? strLabel : std::string();
}

}  // namespace

TokenIdentities OpenTokenStore(const TokenUri& uri, const SecretText* pPin) {
    Pkcs11Module& module = Pkcs11Module::Open(uri.strModulePath, uri.strModuleName);
    const std::shared_ptr<Token> token = module.FindToken(FindToken(uri, module)).Use();
    token->LogIn(pPin);

    TokenContent content = token->Read();
    const KeysById keys(content.keys);
    const KeysById notForSigning(content.notForSigning);
    TokenIdentities identities{token->Name().strLabel, {}, {}};
    for (TokenCertificate& certificate : content.certificates) {
        const TokenKey* pKey = keys.Fitting(certificate);
        const TokenKey* pOther = pKey == nullptr ? notForSigning.Fitting(certificate) : nullptr;
        if (pKey == nullptr && pOther == nullptr) {
            pKey = keys.First(certificate);
            pOther = pKey == nullptr ? notForSigning.First(certificate) : nullptr;
        }
        const TokenKey none{certificate.strId, CKK_RSA, {}};
        if (!DescribesObject(uri, certificate, pKey != nullptr ? *pKey : pOther != nullptr ? *pOther : none)) {
            identities.others.push_back(MakeIdentity(std::move(certificate.certificate), nullptr));
            continue;
        }
        SigningKeyPtr privateKey;
        Flaw flaw = pOther != nullptr ? Flaw::kKeyCannotSign : Flaw::kNoPrivateKey;
        if (pKey != nullptr && certificate.certificate != nullptr) {
            try {
                privateKey = MakeTokenPrivateKey(token, *pKey, certificate.certificate.get());
            } catch (const Failure&) {
                RequireMemory();
                flaw = Flaw::kUnsupportedKey;
            }
        }
        std::string strName = NameFrom(certificate.strLabel);
        if (strName.empty() && pKey != nullptr) {
            strName = NameFrom(pKey->strLabel);
        }
        identities.described.push_back(
            MakeIdentity(std::move(certificate.certificate), std::move(privateKey), flaw, std::move(strName)));
    }
    identities.described = WithoutCopies(std::move(identities.described));
    return identities;
}

}  // namespace vextk
