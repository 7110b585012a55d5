#include "signing/Store.h"

#include <algorithm>
#include <climits>
#include <ctime>
#include <string>
#include <system_error>
#include <vector>

#include "signing/Candidates.h"
#include "signing/DemoStore.h"
#include "signing/Failure.h"
#include "signing/FileBytes.h"
#include "signing/KeyIndex.h"
#include "signing/Pem.h"
#include "signing/Pkcs12.h"
#include "signing/StoreContent.h"
#include "signing/StoreUri.h"
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
    constexpr char kDerSequence = '\x30';
    throw Failure(VCTK_E_STORE_FORMAT, bytes.front() == kDerSequence ? "it is not a PKCS #12 file, or it is damaged"
                                                                     : "it is neither PKCS #12 nor PEM");
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
        throw Failure(VCTK_E_PIN_SOURCE, strPath + ": " + error.code().message());
    }
}

Identities OpenFileStore(const StoreUri& uri) {
    try {
        const SecretText bytes = ReadFileBytes(uri.strPath, kLargestStore);
        return ReadIdentities(bytes.View(), uri.pin ? &*uri.pin : nullptr);
    } catch (const std::system_error& error) {
        const int nErrno = error.code().value();
        const bool bMissing = nErrno == ENOENT || nErrno == ENOTDIR;
        throw Failure(bMissing ? VCTK_E_STORE_NOT_FOUND : VCTK_E_STORE_UNREADABLE,
                      uri.strPath + ": " + error.code().message());
    }
}

Identities Open(const StoreUri& uri) {
    switch (uri.kind) {
        case StoreUri::Kind::kDemo:
            return OpenDemoStore();
        case StoreUri::Kind::kToken:
            return OpenTokenStore(uri.token, uri.pin ? &*uri.pin : nullptr);
        default:
            return OpenFileStore(uri);
    }
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
        identities.push_back(MakeIdentity(std::move(content.certificates[i]), KeyPtr(keys[i])));
    }
    for (size_t i = 0; i < content.cDamagedCertificates; ++i) {
        identities.push_back(MakeIdentity(nullptr, nullptr));
    }
    return WithoutCopies(std::move(identities));
}

OpenedStore OpenStore(std::string_view text) {
    StoreUri uri = ParseStoreUri(text);
    if (uri.strPinSource) {
        uri.pin = ReadPin(*uri.strPinSource);
    }
    OpenedStore store{Open(uri), uri.bListAll};
    const bool bHasKey = std::any_of(store.identities.begin(), store.identities.end(),
                                     [](const IdentityPtr& identity) { return identity->Key() != nullptr; });
    if (!bHasKey && !uri.bListAll) {
        throw Failure(VCTK_E_STORE_NO_PRIVATE_KEY, PassedOverText(store.identities, 0, std::time(nullptr)));
    }
    return store;
}

}  // namespace vextk
