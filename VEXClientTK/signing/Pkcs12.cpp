#include "signing/Pkcs12.h"

#include <openssl/pkcs12.h>

#include <memory>

#include "signing/KeyDerivation.h"
#include "signing/KeyReader.h"

namespace vextk {
namespace {

void FreeSafes(STACK_OF(PKCS7) * pSafes) {
    sk_PKCS7_pop_free(pSafes, PKCS7_free);
}

void FreeBags(STACK_OF(PKCS12_SAFEBAG) * pBags) {
    sk_PKCS12_SAFEBAG_pop_free(pBags, PKCS12_SAFEBAG_free);
}

using Pkcs12Ptr = std::unique_ptr<PKCS12, OpenSslDeleter<PKCS12_free>>;
using SafesPtr = std::unique_ptr<STACK_OF(PKCS7), OpenSslDeleter<FreeSafes>>;
using BagsPtr = std::unique_ptr<STACK_OF(PKCS12_SAFEBAG), OpenSslDeleter<FreeBags>>;
using KeyInfoPtr = std::unique_ptr<PKCS8_PRIV_KEY_INFO, OpenSslDeleter<PKCS8_PRIV_KEY_INFO_free>>;

// A PIN as OpenSSL's PKCS #12 functions take it. None and the empty one are different to them.
struct Pin {
    const char* pchText;
    int cchText;
};

// Takes the content out of a file whose PIN is known. Its members return false when OpenSSL fails.
class Reader {
public:
    Reader(Pin pin, DerivationWork& work, StoreContent& content) : m_pin(pin), m_work(work), m_content(content) {}

    bool ReadFile(const PKCS12* pFile) {
        const SafesPtr safes(PKCS12_unpack_authsafes(pFile));
        if (!safes) {
            return false;
        }
        for (int i = 0; i < sk_PKCS7_num(safes.get()); ++i) {
            if (!ReadSafe(sk_PKCS7_value(safes.get(), i))) {
                return false;
            }
        }
        return true;
    }

private:
    bool ReadSafe(PKCS7* pSafe) {
        BagsPtr bags;
        switch (OBJ_obj2nid(pSafe->type)) {
            case NID_pkcs7_data:
                bags.reset(PKCS12_unpack_p7data(pSafe));
                break;
            case NID_pkcs7_encrypted:
                CountDecryption(pSafe);
                bags.reset(PKCS12_unpack_p7encdata(pSafe, m_pin.pchText, m_pin.cchText));
                break;
            default:
                return true;
        }
        return bags && ReadBags(bags.get());
    }

    bool ReadBags(const STACK_OF(PKCS12_SAFEBAG) * pBags) {
        for (int i = 0; i < sk_PKCS12_SAFEBAG_num(pBags); ++i) {
            if (!ReadBag(sk_PKCS12_SAFEBAG_value(pBags, i))) {
                return false;
            }
        }
        return true;
    }

    // Bags of other kinds (revocation lists, secrets) are nothing to sign with.
    bool ReadBag(const PKCS12_SAFEBAG* pBag) {
        switch (PKCS12_SAFEBAG_get_nid(pBag)) {
            case NID_keyBag:
                return AddKey(PKCS12_SAFEBAG_get0_p8inf(pBag));
            case NID_pkcs8ShroudedKeyBag:
                CountDecryption(pBag);
                return AddKey(KeyInfoPtr(PKCS12_decrypt_skey(pBag, m_pin.pchText, m_pin.cchText)).get());
            case NID_certBag:
                return PKCS12_SAFEBAG_get_bag_nid(pBag) != NID_x509Certificate || AddCertificate(pBag);
            case NID_safeContentsBag:
                return ReadBags(PKCS12_SAFEBAG_get0_safes(pBag));
            default:
                return true;
        }
    }

    void CountDecryption(const PKCS7* pSafe) {
        if (pSafe->d.encrypted != nullptr && pSafe->d.encrypted->enc_data != nullptr) {
            m_work.Add(pSafe->d.encrypted->enc_data->algorithm);
        }
    }

    void CountDecryption(const PKCS12_SAFEBAG* pBag) {
        const X509_ALGOR* pAlgorithm = nullptr;
        X509_SIG_get0(PKCS12_SAFEBAG_get0_pkcs8(pBag), &pAlgorithm, nullptr);
        m_work.Add(pAlgorithm);
    }

    bool AddKey(const PKCS8_PRIV_KEY_INFO* pKeyInfo) {
        KeyPtr key(pKeyInfo != nullptr ? m_keys.Read(pKeyInfo) : nullptr);
        if (!key) {
            return false;
        }
        m_content.keys.push_back(std::move(key));
        return true;
    }

    bool AddCertificate(const PKCS12_SAFEBAG* pBag) {
        X509Ptr certificate(PKCS12_SAFEBAG_get1_cert(pBag));
        if (!certificate) {
            return false;
        }
        m_content.certificates.push_back(std::move(certificate));
        return true;
    }

    Pin m_pin;
    DerivationWork& m_work;
    StoreContent& m_content;
    KeyReader m_keys;
};

// Null when the bytes are something else.
Pkcs12Ptr Parse(std::string_view bytes) {
    const OpenSslErrorMark mark;
    const auto* pbFile = reinterpret_cast<const unsigned char*>(bytes.data());
    return Pkcs12Ptr(d2i_PKCS12(nullptr, &pbFile, static_cast<long>(bytes.size())));
}

bool IsPin(PKCS12* pFile, Pin pin, DerivationWork& work) {
    work.AddMac(pFile);
    return PKCS12_verify_mac(pFile, pin.pchText, pin.cchText) == 1;
}

// The PIN under which the file is to be read; nothing when there is none or the wrong one. A PIN is tried alone, since
// each try may cost as much as the file asks for.
std::optional<Pin> FindPin(PKCS12* pFile, const SecretText* pPin, DerivationWork& work, bool& fPinAsked) {
    constexpr Pin kEmpty{"", 0};
    constexpr Pin kNone{nullptr, 0};
    const bool fHasMac = PKCS12_mac_present(pFile) == 1;
    if (pPin != nullptr && !pPin->View().empty()) {
        fPinAsked = true;
        const Pin pin{pPin->View().data(), static_cast<int>(pPin->View().size())};
        return !fHasMac || IsPin(pFile, pin, work) ? std::optional(pin) : std::nullopt;
    }
    for (const Pin pin : {kEmpty, kNone}) {
        if (fHasMac && IsPin(pFile, pin, work)) {
            return pin;
        }
    }
    fPinAsked = fHasMac || pPin != nullptr;
    return fHasMac ? std::nullopt : std::optional(kEmpty);
}

}  // namespace

std::optional<StoreContent> ReadPkcs12(std::string_view bytes, const SecretText* pPin) {
    const Pkcs12Ptr file = Parse(bytes);
    if (!file) {
        return std::nullopt;
    }
    StoreContent content;
    DerivationWork work;
    const std::optional<Pin> pin = FindPin(file.get(), pPin, work, content.fPinAsked);
    if (!pin || !Reader(*pin, work, content).ReadFile(file.get())) {
        content.NoteFailure();
    }
    return content;
}

}  // namespace vextk
