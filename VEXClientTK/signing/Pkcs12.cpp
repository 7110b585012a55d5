#include "signing/Pkcs12.h"

#include <algorithm>
#include <future>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "posix/NoSignals.h"
#include "signing/LegacyCiphers.h"
#include "signing/StackWiper.h"
#include "signing/WideText.h"

namespace vextk {
namespace {

void FreeSafes(STACK_OF(PKCS7) * pSafes) {
    sk_PKCS7_pop_free(pSafes, PKCS7_free);
}

void FreeBags(STACK_OF(PKCS12_SAFEBAG) * pBags) {
    sk_PKCS12_SAFEBAG_pop_free(pBags, PKCS12_SAFEBAG_free);
}

using SafesPtr = std::unique_ptr<STACK_OF(PKCS7), Deleter<FreeSafes>>;
using BagsPtr = std::unique_ptr<STACK_OF(PKCS12_SAFEBAG), Deleter<FreeBags>>;

// A PIN as OpenSSL's PKCS #12 functions take it. For them, no PIN and an empty PIN are different.
struct PinText {
    const char* pchText;
    int cchText;
};

// RFC 2985 section 5.5.1. Empty: the bag has none, or one that is not a text.
std::string FriendlyName(const PKCS12_SAFEBAG* pBag) {
    const ASN1_TYPE* const pName = PKCS12_SAFEBAG_get0_attr(pBag, NID_friendlyName);
    if (pName == nullptr || pName->type != V_ASN1_BMPSTRING) {
        return {};
    }
    const ASN1_STRING* const pText = pName->value.bmpstring;
    return Utf8FromUtf16({reinterpret_cast<const char*>(ASN1_STRING_get0_data(pText)),
                          static_cast<size_t>(ASN1_STRING_length(pText))})
        .value_or("");
}

// A part of a file that is encrypted as a whole, and the library context to decrypt it with.
struct EncryptedPart {
    const PKCS7_ENC_CONTENT* pData;
    OSSL_LIB_CTX* pContext;
};

// Throws when a part is damaged or the PIN is wrong.
std::vector<BagsPtr> Decrypted(const std::vector<EncryptedPart>& parts, PinText pin, Pin known) {
    std::vector<BagsPtr> decrypted;
    for (const EncryptedPart& part : parts) {
        void* const pBags =
            PKCS12_item_decrypt_d2i_ex(part.pData->algorithm, ASN1_ITEM_rptr(PKCS12_SAFEBAGS), pin.pchText, pin.cchText,
                                       part.pData->enc_data, 1, part.pContext, nullptr);
        if (pBags == nullptr) {
            ThrowDecryptionFailure(known);
        }
        decrypted.emplace_back(static_cast<STACK_OF(PKCS12_SAFEBAG)*>(pBags));
    }
    return decrypted;
}

// The same on a thread of its own, or during get() if the system gives the process no thread. All arguments must
// outlive the result, which waits for the thread when it is destroyed.
std::future<std::vector<BagsPtr>> StartDecrypting(const std::vector<EncryptedPart>& parts, PinText pin, Pin known) {
    const auto decrypt = [&parts, pin, known] {
        const StackWiper wiper(StackWiper::kAnyDepth);
        BeginOperation();
        return Decrypted(parts, pin, known);
    };
    try {
        const vexposix::NoSignals noSignals;
        return std::async(std::launch::async, decrypt);
    } catch (const std::system_error&) {
        return std::async(std::launch::deferred, decrypt);
    }
}

// Adds the content of a file to a StoreContent. Throws when the file is damaged or the PIN is wrong.
class Reader {
public:
    // known: what is known about the PIN, for the error when decryption fails.
    Reader(PinText pin, Pin known, StoreContent& content) : m_pin(pin), m_known(known), m_content(content) {}

    void ReadFile(const PKCS12* pFile) {
        const SafesPtr safes(PKCS12_unpack_authsafes(pFile));
        if (!safes) {
            RequireMemory();
            throw DamagedStore("its list of contents");
        }
        std::vector<BagsPtr> plain;
        std::vector<EncryptedPart> encrypted;
        for (int i = 0; i < sk_PKCS7_num(safes.get()); ++i) {
            PKCS7* const pSafe = sk_PKCS7_value(safes.get(), i);
            switch (OBJ_obj2nid(pSafe->type)) {
                case NID_pkcs7_data:
                    plain.push_back(Unpacked(pSafe));
                    break;
                case NID_pkcs7_encrypted:
                    encrypted.push_back(Examined(pSafe->d.encrypted));
                    break;
                default:
                    break;
            }
        }
        if (plain.empty()) {
            ReadParts(vextk::Decrypted(encrypted, m_pin, m_known));
        } else if (encrypted.empty()) {
            ReadParts(plain);
        } else {
            // The certificates are usually encrypted as a whole, and each key in a plain part. Nearly all of the time
            // goes into deriving keys from the PIN, for both.
            std::future<std::vector<BagsPtr>> decrypted = StartDecrypting(encrypted, m_pin, m_known);
            ReadParts(plain);
            ReadParts(decrypted.get());
        }
    }

private:
    static BagsPtr Unpacked(PKCS7* pSafe) {
        BagsPtr bags(PKCS12_unpack_p7data(pSafe));
        if (!bags) {
            RequireMemory();
            throw DamagedStore("a part of it");
        }
        return bags;
    }

    EncryptedPart Examined(const PKCS7_ENCRYPT* pSafe) {
        // OpenSSL takes this for a wrong PIN, or crashes if it is older than 3.0.19 or 3.5.5.
        if (pSafe == nullptr || pSafe->enc_data->enc_data == nullptr) {
            throw DamagedStore("a part of it");
        }
        const PKCS7_ENC_CONTENT* const pData = pSafe->enc_data;
        m_content.work.Add(pData->algorithm);
        return {pData, m_legacyCiphers.ContextFor(pData->algorithm)};
    }

    void ReadParts(const std::vector<BagsPtr>& parts) {
        for (const BagsPtr& bags : parts) {
            ReadBags(bags.get());
        }
    }

    void ReadBags(const STACK_OF(PKCS12_SAFEBAG) * pBags) {
        for (int i = 0; i < sk_PKCS12_SAFEBAG_num(pBags); ++i) {
            ReadBag(sk_PKCS12_SAFEBAG_value(pBags, i));
            ERR_clear_error();
        }
    }

    // Other bags (revocation lists, secrets) are skipped: they are not needed to sign.
    void ReadBag(const PKCS12_SAFEBAG* pBag) {
        switch (PKCS12_SAFEBAG_get_nid(pBag)) {
            case NID_keyBag:
                m_content.AddKey(PKCS12_SAFEBAG_get0_p8inf(pBag), FriendlyName(pBag));
                break;
            case NID_pkcs8ShroudedKeyBag:
                m_content.AddKey(Decrypted(PKCS12_SAFEBAG_get0_pkcs8(pBag)).get(), FriendlyName(pBag));
                break;
            case NID_certBag:
                if (PKCS12_SAFEBAG_get_bag_nid(pBag) == NID_x509Certificate) {
                    m_content.AddCertificate(X509Ptr(PKCS12_SAFEBAG_get1_cert(pBag)), FriendlyName(pBag));
                }
                break;
            case NID_safeContentsBag:
                ReadBags(PKCS12_SAFEBAG_get0_safes(pBag));
                break;
            default:
                break;
        }
    }

    KeyInfoPtr Decrypted(const X509_SIG* pKey) {
        m_content.work.Add(pKey);
        const X509_ALGOR* pAlgorithm = nullptr;
        X509_SIG_get0(pKey, &pAlgorithm, nullptr);
        KeyInfoPtr key(
            PKCS8_decrypt_ex(pKey, m_pin.pchText, m_pin.cchText, m_legacyCiphers.ContextFor(pAlgorithm), nullptr));
        if (!key) {
            ThrowDecryptionFailure(m_known);
        }
        return key;
    }

    PinText m_pin;
    Pin m_known;
    StoreContent& m_content;
    LegacyCiphers m_legacyCiphers;
};

// Null if the bytes are not a PKCS #12 file.
Pkcs12Ptr Parse(std::string_view bytes) {
    const ErrorMark mark;
    const auto* pbFile = reinterpret_cast<const unsigned char*>(bytes.data());
    return Pkcs12Ptr(d2i_PKCS12(nullptr, &pbFile, static_cast<long>(bytes.size())));
}

// What OpenSSL calls the MAC's algorithm, or its OID.
std::string MacName(const PKCS12* pFile) {
    const X509_ALGOR* pAlgorithm = nullptr;
    PKCS12_get0_mac(nullptr, &pAlgorithm, nullptr, nullptr, pFile);
    const int nAlgorithm = OBJ_obj2nid(pAlgorithm->algorithm);
    return nAlgorithm != NID_undef ? OBJ_nid2ln(nAlgorithm) : DottedText(pAlgorithm->algorithm);
}

bool IsPin(PKCS12* pFile, PinText pin, DerivationWork& work) {
    work.AddMac(pFile);
    if (PKCS12_verify_mac(pFile, pin.pchText, pin.cchText) == 1) {
        return true;
    }
    // A wrong PIN adds no error to the queue.
    RequireMemory();
    if (ERR_peek_last_error() != 0) {
        throw Failure(VCTK_E_STORE_FORMAT, "its check sum (MAC), " + MacName(pFile) + ", cannot be computed by " +
                                               OpenSSL_version(OPENSSL_VERSION) + ": " + LastOpenSslReason() +
                                               "; export the store again with another one");
    }
    return false;
}

// The PIN to read the file with, and what is known about it. A PIN that the caller gave is the only one tried: each try
// may take as much work as the file demands.
std::pair<PinText, Pin> FindPin(PKCS12* pFile, const SecretText* pPin, DerivationWork& work) {
    constexpr int kNotAscii = 0x80;
    constexpr PinText kEmpty{"", 0};
    constexpr PinText kNone{nullptr, 0};
    const bool bHasMac = PKCS12_mac_present(pFile) == 1;
    if (pPin != nullptr && !pPin->View().empty()) {
        const PinText pin{pPin->View().data(), static_cast<int>(pPin->View().size())};
        if (bHasMac && !IsPin(pFile, pin, work)) {
            throw Failure(VCTK_E_PIN_WRONG);
        }
        const bool bAscii =
            std::none_of(pPin->View().begin(), pPin->View().end(), [](char ch) { return (ch & kNotAscii) != 0; });
        const Pin right = bAscii ? Pin::kRight : Pin::kRightBeyondAscii;
        return {pin, bHasMac ? right : Pin::kGiven};
    }
    for (const PinText pin : {kEmpty, kNone}) {
        if (bHasMac && IsPin(pFile, pin, work)) {
            return {pin, Pin::kRight};
        }
    }
    if (bHasMac) {
        throw Failure(pPin == nullptr ? VCTK_E_PIN_REQUIRED : VCTK_E_PIN_WRONG);
    }
    return {kEmpty, pPin == nullptr ? Pin::kNone : Pin::kGiven};
}

}  // namespace

std::optional<StoreContent> ReadPkcs12(std::string_view bytes, const SecretText* pPin) {
    const Pkcs12Ptr file = Parse(bytes);
    if (!file) {
        RequireMemory();
        return std::nullopt;
    }
    StoreContent content;
    const auto [pin, known] = FindPin(file.get(), pPin, content.work);
    Reader(pin, known, content).ReadFile(file.get());
    return content;
}

bool BeginsLikePkcs12(std::string_view bytes) {
    using namespace std::string_view_literals;
    constexpr std::string_view kVersion3 = "\x02\x01\x03"sv;
    constexpr char kSequence = '\x30';
    constexpr unsigned char kLongLength = 0x80;
    if (bytes.size() < 2 || bytes.front() != kSequence) {
        return false;
    }
    const auto uLength = static_cast<unsigned char>(bytes[1]);
    const size_t cbLength = (uLength & kLongLength) != 0 ? uLength - kLongLength : 0U;
    return bytes.substr(std::min(2 + cbLength, bytes.size())).starts_with(kVersion3);
}

}  // namespace vextk
