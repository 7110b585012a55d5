#include "signing/Store.h"

#include <algorithm>
#include <ctime>
#include <string>
#include <system_error>
#include <vector>

#include "posix/ErrnoText.h"
#include "signing/Candidates.h"
#include "signing/DemoStore.h"
#include "signing/Failure.h"
#include "signing/FileBytes.h"
#include "signing/KeyIndex.h"
#include "signing/Pem.h"
#include "signing/Pkcs12.h"
#include "signing/SharedIdentities.h"
#include "signing/StoreContent.h"
#include "signing/StoreUri.h"
#include "signing/TimeStamp.h"
#include "signing/TokenStore.h"

namespace vextk {
namespace {

constexpr size_t kLargestStore = size_t{16} << 20;
constexpr size_t kLargestPinFile = 4096;

StoreContent ReadContent(std::string_view bytes, const SecretText* pPin) {
    if (std::optional<StoreContent> pkcs12 = ReadPkcs12(bytes, pPin)) {
        return std::move(*pkcs12);
    }
    if (std::optional<StoreContent> pem = ReadPem(bytes, pPin)) {
        return std::move(*pem);
    }
    throw Failure(VCTK_E_STORE_FORMAT, BeginsLikePkcs12(bytes) ? "it is a PKCS #12 file that is damaged or not whole"
                                                               : "it is neither PKCS #12 nor PEM");
}

std::string ReasonOf(const std::system_error& error) {
    return error.code().value() == EINVAL ? "it is not a regular file" : vexposix::ErrnoText(error.code().value());
}

SecretText ReadPin(const std::string& strPath) {
    try {
        SecretText pin = ReadFileBytes(strPath, kLargestPinFile);
        // An editor's line end is not part of the PIN.
        for (const char chEnd : {'\n', '\r'}) {
            if (pin.View().ends_with(chEnd)) {
                pin.Truncate(pin.View().size() - 1);
            }
        }
        if (pin.View().empty()) {
            throw Failure(VCTK_E_PIN_SOURCE, strPath + ": it is empty");
        }
        return pin;
    } catch (const std::system_error& error) {
        throw Failure(VCTK_E_PIN_SOURCE, strPath + ": " + ReasonOf(error));
    }
}

IdentitiesPtr ReadFile(const std::string& strPath, const SecretText* pPin) {
    try {
        const SecretText bytes = ReadFileBytes(strPath, kLargestStore);
        return ReadSharedIdentities(bytes.View(), pPin);
    } catch (const Failure& failure) {
        throw failure.About(strPath);
    } catch (const std::system_error& error) {
        const int nErrno = error.code().value();
        const bool bMissing = nErrno == ENOENT || nErrno == ENOTDIR;
        throw Failure(bMissing ? VCTK_E_STORE_NOT_FOUND : VCTK_E_STORE_UNREADABLE, strPath + ": " + ReasonOf(error));
    }
}

struct Content {
    std::string strName;  // the file's path, or the token's label
    IdentitiesPtr identities;
    Identities others = {};  // certificates beside the store's own that may be of issuers
};

Content Open(const StoreUri& uri) {
    const SecretText* const pPin = uri.pin ? &*uri.pin : nullptr;
    switch (uri.kind) {
        case StoreUri::Kind::kDemo:
            return {"demo:", OpenDemoStore()};
        case StoreUri::Kind::kToken: {
            TokenIdentities token = OpenTokenStore(uri.token, pPin);
            return {token.strToken, std::make_shared<const Identities>(std::move(token.described)),
                    std::move(token.others)};
        }
        default:
            return {uri.strPath, ReadFile(uri.strPath, pPin)};
    }
}

// The certificates of a PEM or PKCS #12 file that an attribute of the URI names. Its keys are not used.
IdentitiesPtr ReadCertificates(const char* pszAttribute, const std::string& strPath, bool bOfIssuers) {
    try {
        IdentitiesPtr identities = ReadFile(strPath, nullptr);
        if (std::none_of(identities->begin(), identities->end(), [&](const IdentityPtr& identity) {
                return bOfIssuers ? IsAuthority(*identity) : identity->Certificate() != nullptr;
            })) {
            throw Failure(VCTK_E_STORE_FORMAT,
                          strPath + (bOfIssuers ? ": it has no certificate of an issuer" : ": it has no certificate"));
        }
        return identities;
    } catch (const Failure& failure) {
        const bool bPin = failure.Number() == VCTK_E_PIN_REQUIRED;  // none was given, so none can be wrong
        const Failure encrypted(VCTK_E_STORE_FORMAT,
                                strPath + ": a part of it is encrypted; use a file with certificates alone");
        throw(bPin ? encrypted : failure).About(pszAttribute);
    }
}

Authorities FindAuthorities(const StoreUri& uri, const Identities& identities, const Identities& others) {
    Identities all = identities;
    all.insert(all.end(), others.begin(), others.end());
    if (!uri.strChainSource.empty()) {
        const IdentitiesPtr source = ReadCertificates("chain-source", uri.strChainSource, true);
        all.insert(all.end(), source->begin(), source->end());
    }
    return SelectAuthorities(WithoutCopies(std::move(all)));
}

// How P7 signatures are stamped, if they are.
std::optional<vextimestamp::Settings> ReadStampSettings(const StoreUri& uri) {
    const StampUri& stamp = uri.stamp;
    if (stamp.authorities.empty() && uri.kind != StoreUri::Kind::kStamp) {
        return std::nullopt;
    }
    return MakeStampSettings(
        stamp, stamp.strTrusted.empty() ? Identities() : *ReadCertificates("tsa-ca", stamp.strTrusted, false));
}

OpenedStore OpenOrThrow(StoreUri& uri) {
    // First, so that an error here costs no try of a PIN.
    std::optional<vextimestamp::Settings> stamp = ReadStampSettings(uri);
    if (uri.kind == StoreUri::Kind::kStamp) {
        OpenedStore stamps{std::make_shared<const Identities>()};
        stamps.stamp = std::move(stamp);
        stamps.bStampsOnly = true;
        return stamps;
    }
    if (uri.strPinSource) {
        uri.pin = ReadPin(*uri.strPinSource);
    }
    Content content = Open(uri);
    OpenedStore store{std::move(content.identities), uri.bListAll, uri.chain, {}};
    const bool bHasKey = std::any_of(store.identities->begin(), store.identities->end(),
                                     [](const IdentityPtr& identity) { return identity->Key() != nullptr; });
    if (!bHasKey && !uri.bListAll) {
        throw Failure(VCTK_E_STORE_NO_PRIVATE_KEY, PassedOverText(*store.identities, 0, std::time(nullptr)))
            .About(content.strName);
    }
    store.bListCertificates = uri.bListCertificates;
    store.stamp = std::move(stamp);
    if (uri.chain != ChainPart::kNone) {
        store.authorities = FindAuthorities(uri, *store.identities, content.others);
    }
    return store;
}

std::string NameOf(const StoreContent& content, const X509* pCertificate, const EVP_PKEY* pKey) {
    for (const void* pNamed : std::initializer_list<const void*>{pCertificate, pKey}) {
        if (const auto found = content.names.find(pNamed); found != content.names.end()) {
            return found->second;
        }
    }
    return {};
}

}  // namespace

Identities ReadIdentities(std::string_view bytes, const SecretText* pPin) {
    if (bytes.empty()) {
        throw Failure(VCTK_E_STORE_FORMAT, "it is empty");
    }
    ERR_clear_error();  // the code below finds the cause of a failure in the queue
    StoreContent content = ReadContent(bytes, pPin);
    const std::vector<EVP_PKEY*> keys = KeysOf(content);
    Identities identities;
    for (size_t i = 0; i < keys.size(); ++i) {
        if (keys[i] != nullptr) {
            EVP_PKEY_up_ref(keys[i]);
        }
        std::string strName = NameOf(content, content.certificates[i].get(), keys[i]);
        identities.push_back(MakeIdentity(std::move(content.certificates[i]), MakeMemoryKey(KeyPtr(keys[i])),
                                          Flaw::kNoPrivateKey, std::move(strName)));
    }
    for (size_t i = 0; i < content.cDamagedCertificates; ++i) {
        identities.push_back(MakeIdentity(nullptr, nullptr));
    }
    return WithoutCopies(std::move(identities));
}

OpenedStorePtr OpenStore(StoreUri uri) {
    try {
        return std::make_shared<const OpenedStore>(OpenOrThrow(uri));
    } catch (const Failure& failure) {
        if (!uri.bErrorsInHandle) {
            throw;
        }
        OpenedStore failed{std::make_shared<const Identities>()};
        failed.failure = failure;
        return std::make_shared<const OpenedStore>(std::move(failed));
    }
}

}  // namespace vextk
