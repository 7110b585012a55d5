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
#include "signing/KeyDerivation.h"
#include "signing/KeyIndex.h"
#include "signing/Pkcs12.h"
#include "signing/StoreContent.h"
#include "signing/StoreUri.h"
#include "signing/TokenStore.h"

namespace vextk {
namespace {

constexpr size_t kLargestStore = size_t{16} << 20;
constexpr size_t kLargestPinFile = 4096;

// Answers OpenSSL's question for the PIN, and remembers that it was put.
struct PinPrompt {
    const SecretText* pPin;
    bool fAsked = false;

    static int Answer(char* pchBuffer, int cbBuffer, int /*rwflag*/, void* pPrompt) {
        auto& prompt = *static_cast<PinPrompt*>(pPrompt);
        prompt.fAsked = true;
        if (prompt.pPin == nullptr || prompt.pPin->View().size() > static_cast<size_t>(cbBuffer)) {
            return -1;
        }
        const std::string_view pin = prompt.pPin->View();
        return static_cast<int>(pin.copy(pchBuffer, pin.size()));
    }
};

// PEM files, and single objects in DER.
StoreContent ReadObjects(std::string_view bytes, const SecretText* pPin) {
    DerivationWork().AddKeys(bytes);  // before OpenSSL derives any of them
    StoreContent content;
    PinPrompt prompt{pPin};
    const BioPtr bio(RequireOpenSsl(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size()))));
    const UiMethodPtr ui(RequireOpenSsl(UI_UTIL_wrap_read_pem_callback(PinPrompt::Answer, 0)));
    const StorePtr store(RequireOpenSsl(
        OSSL_STORE_attach(bio.get(), "file", nullptr, nullptr, ui.get(), &prompt, nullptr, nullptr, nullptr)));
    while (OSSL_STORE_eof(store.get()) == 0) {
        const StoreInfoPtr info(OSSL_STORE_load(store.get()));
        if (OSSL_STORE_error(store.get()) != 0) {
            content.NoteFailure();
            break;
        }
        if (!info) {
            continue;
        }
        if (OSSL_STORE_INFO_get_type(info.get()) == OSSL_STORE_INFO_CERT) {
            X509Ptr certificate(RequireOpenSsl(OSSL_STORE_INFO_get1_CERT(info.get())));
            content.certificates.push_back(std::move(certificate));
        } else if (OSSL_STORE_INFO_get_type(info.get()) == OSSL_STORE_INFO_PKEY) {
            KeyPtr key(RequireOpenSsl(OSSL_STORE_INFO_get1_PKEY(info.get())));
            content.keys.push_back(std::move(key));
        }
    }
    content.fPinAsked = prompt.fAsked;
    return content;
}

// A store of which a part cannot be read is not used at all: the part may be the one that was meant to sign.
void RequireWhole(const StoreContent& content, bool fHavePin) {
    if (content.fUnsupportedCipher) {
        throw Failure(VCTK_E_STORE_FORMAT, "it is encrypted with a cipher that OpenSSL no longer offers");
    }
    if (content.fFailed && content.fPinAsked) {
        throw Failure(fHavePin ? VCTK_E_PIN_WRONG : VCTK_E_PIN_REQUIRED);
    }
    if (content.fFailed || (content.certificates.empty() && content.keys.empty())) {
        throw Failure(VCTK_E_STORE_FORMAT);
    }
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
        const bool fMissing = nErrno == ENOENT || nErrno == ENOTDIR;
        throw Failure(fMissing ? VCTK_E_STORE_NOT_FOUND : VCTK_E_STORE_UNREADABLE,
                      uri.strPath + ": " + error.code().message());
    }
}

Identities Open(const StoreUri& uri) {
    switch (uri.kind) {
        case StoreUri::Kind::Demo:
            return OpenDemoStore();
        case StoreUri::Kind::Token:
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
    ERR_clear_error();  // what fails below is told apart by the errors that it leaves
    std::optional<StoreContent> pkcs12 = ReadPkcs12(bytes, pPin);
    StoreContent content = pkcs12 ? std::move(*pkcs12) : ReadObjects(bytes, pPin);
    RequireWhole(content, pPin != nullptr);
    const std::vector<EVP_PKEY*> keys = KeysOf(content);
    Identities identities;
    for (size_t i = 0; i < keys.size(); ++i) {
        if (keys[i] != nullptr) {
            EVP_PKEY_up_ref(keys[i]);
        }
        identities.push_back(MakeIdentity(std::move(content.certificates[i]), KeyPtr(keys[i])));
    }
    return WithoutCopies(std::move(identities));
}

OpenedStore OpenStore(std::string_view text) {
    StoreUri uri = ParseStoreUri(text);
    if (uri.strPinSource) {
        uri.pin = ReadPin(*uri.strPinSource);
    }
    OpenedStore store{Open(uri), uri.fListAll};
    const bool fHasKey = std::any_of(store.identities.begin(), store.identities.end(),
                                     [](const IdentityPtr& identity) { return identity->Key() != nullptr; });
    if (!fHasKey && !uri.fListAll) {
        throw Failure(VCTK_E_STORE_NO_PRIVATE_KEY, PassedOverText(store.identities, 0, std::time(nullptr)));
    }
    return store;
}

}  // namespace vextk
