#include "signing/Pem.h"

#include <openssl/pem.h>
#include <openssl/pkcs12.h>

#include <string>

namespace vextk {
namespace {

using EncryptedPtr = std::unique_ptr<X509_SIG, Deleter<X509_SIG_free>>;

// One block: its label, its header lines and its bytes, which may be a private key.
class Block {
public:
    // False at the end of the text.
    bool Read(BIO* pBio) {
        Free();
        if (PEM_read_bio(pBio, &m_pszLabel, &m_pszHeader, &m_pbData, &m_cbData) == 1) {
            return true;
        }
        RequireMemory();
        const unsigned long ulError = ERR_peek_last_error();
        if (ERR_GET_LIB(ulError) != ERR_LIB_PEM || ERR_GET_REASON(ulError) != PEM_R_NO_START_LINE) {
            throw DamagedStore("a PEM block in it");
        }
        return false;
    }

    Block() = default;
    ~Block() { Free(); }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;

    std::string_view Label() const { return m_pszLabel; }

    X509Ptr Certificate() const {
        const unsigned char* pbData = m_pbData;
        return X509Ptr(Label() == PEM_STRING_X509_TRUSTED ? d2i_X509_AUX(nullptr, &pbData, m_cbData)
                                                          : d2i_X509(nullptr, &pbData, m_cbData));
    }

    KeyInfoPtr Key() const {
        const unsigned char* pbData = m_pbData;
        return KeyInfoPtr(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &pbData, m_cbData));
    }

    EncryptedPtr EncryptedKey() const {
        const unsigned char* pbData = m_pbData;
        return EncryptedPtr(d2i_X509_SIG(nullptr, &pbData, m_cbData));
    }

    // A key in the form that OpenSSL calls traditional. Decrypts it if it is encrypted.
    KeyPtr TraditionalKey(int nType, const SecretText* pPin) {
        const bool bEncrypted = Decrypt(pPin);
        const unsigned char* pbData = m_pbData;
        KeyPtr key(d2i_PrivateKey(nType, nullptr, &pbData, m_cbData));
        if (!key && bEncrypted) {
            // Sometimes the padding looks right after decryption with a wrong PIN.
            ThrowDecryptionFailure(Pin::kGiven);
        }
        return key;
    }

private:
    bool Decrypt(const SecretText* pPin) {
        EVP_CIPHER_INFO cipher{};
        if (PEM_get_EVP_CIPHER_INFO(m_pszHeader, &cipher) != 1) {
            ThrowDecryptionFailure(Pin::kUntried);
        }
        if (cipher.cipher == nullptr) {
            return false;
        }
        if (pPin == nullptr) {
            throw Failure(VCTK_E_PIN_REQUIRED);
        }
        if (PEM_do_header(&cipher, m_pbData, &m_cbData, AnswerPin, const_cast<SecretText*>(pPin)) != 1) {
            ThrowDecryptionFailure(Pin::kGiven);
        }
        return true;
    }

    static int AnswerPin(char* pchBuffer, int cbBuffer, int /*rwflag*/, void* pPin) {
        const std::string_view pin = static_cast<const SecretText*>(pPin)->View();
        return pin.size() <= static_cast<size_t>(cbBuffer) ? static_cast<int>(pin.copy(pchBuffer, pin.size())) : -1;
    }

    void Free() {
        OPENSSL_free(m_pszLabel);
        OPENSSL_free(m_pszHeader);
        OPENSSL_clear_free(m_pbData, static_cast<size_t>(m_cbData));
        m_pszLabel = m_pszHeader = nullptr;
        m_pbData = nullptr;
        m_cbData = 0;
    }

    char* m_pszLabel = nullptr;
    char* m_pszHeader = nullptr;
    unsigned char* m_pbData = nullptr;
    long m_cbData = 0;
};

KeyInfoPtr Decrypted(const X509_SIG* pEncrypted, const SecretText* pPin, DerivationWork& work) {
    if (pPin == nullptr) {
        throw Failure(VCTK_E_PIN_REQUIRED);
    }
    work.Add(pEncrypted);
    const std::string_view pin = pPin->View();
    KeyInfoPtr key(PKCS8_decrypt(pEncrypted, pin.empty() ? "" : pin.data(), static_cast<int>(pin.size())));
    if (!key) {
        ThrowDecryptionFailure(Pin::kGiven);
    }
    return key;
}

template <typename Pointer>
Pointer RequireKey(Pointer key) {
    if (!key) {
        RequireMemory();
        throw UnreadablePrivateKey();
    }
    return key;
}

void AddBlock(Block& block, const SecretText* pPin, StoreContent& content) {
    const std::string_view label = block.Label();
    if (label == PEM_STRING_X509 || label == PEM_STRING_X509_OLD || label == PEM_STRING_X509_TRUSTED) {
        content.AddCertificate(block.Certificate());
    } else if (label == PEM_STRING_PKCS8INF) {
        content.AddKey(RequireKey(block.Key()).get());
    } else if (label == PEM_STRING_PKCS8) {
        content.AddKey(Decrypted(RequireKey(block.EncryptedKey()).get(), pPin, content.work).get());
    } else if (label == PEM_STRING_RSA) {
        content.keys.push_back(RequireKey(block.TraditionalKey(EVP_PKEY_RSA, pPin)));
    } else if (label == PEM_STRING_ECPRIVATEKEY) {
        content.keys.push_back(RequireKey(block.TraditionalKey(EVP_PKEY_EC, pPin)));
    }
}

}  // namespace

std::optional<StoreContent> ReadPem(std::string_view text, const SecretText* pPin) {
    const BioPtr bio(RequireOpenSsl(BIO_new_mem_buf(text.data(), static_cast<int>(text.size()))));
    std::optional<StoreContent> content;
    bool bPkcs12 = false;
    Block block;
    while (block.Read(bio.get())) {
        if (!content) {
            content.emplace();
        }
        bPkcs12 = bPkcs12 || block.Label() == "PKCS12";
        AddBlock(block, pPin, *content);
        ERR_clear_error();
    }
    if (bPkcs12 && content->keys.empty() && content->certificates.empty()) {
        throw Failure(VCTK_E_STORE_FORMAT,
                      "it is a PKCS #12 file in PEM; export it in DER (with certtool, use --outder)");
    }
    return content;
}

}  // namespace vextk
