// A certificate, its private key if it has one, and its properties, which are read only once.
#pragma once

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "signing/OpenSsl.h"
#include "signing/SigningKey.h"

namespace vextk {

// Why a certificate cannot sign.
enum class Flaw {
    kNone,
    kExpired,
    kNotYetValid,
    kNotForSigning,  // by its key usage
    kNoPrivateKey,
    kKeyCannotSign,  // its private key may be used only for other things
    kKeyTooShort,
    kUnsupportedKey,  // of a type that this toolkit does not sign with, or EC on an unnamed curve
    kDamaged,
};

// Immutable; any thread may use it.
class Identity {
public:
    // key: the certificate's private key, or null. flawWithoutKey: why there is no key. strName: what the store calls
    // it, UTF-8; empty if it has no name.
    Identity(X509Ptr certificate, SigningKeyPtr key, Flaw flawWithoutKey = Flaw::kNoPrivateKey,
             std::string strName = {});
    // For a certificate that cannot be read: the texts are empty, and there is no certificate and no key.
    Identity() = default;

    X509* Certificate() const { return m_certificate.get(); }
    const SigningKey* Key() const { return m_key.get(); }

    // Why it cannot sign at that time; kNone: it can. A flaw that lasts comes before one that depends on the time.
    Flaw FlawAt(std::time_t time) const;

    bool IsValidAt(std::time_t time) const { return m_notBefore <= time && time <= m_notAfter; }
    std::time_t NotBefore() const { return m_notBefore; }
    std::time_t NotAfter() const { return m_notAfter; }

    const std::string& SerialHex() const { return m_strSerialHex; }            // upper case, an even number of digits
    const std::string& FingerprintHex() const { return m_strFingerprintHex; }  // SHA-256 of the DER, upper case
    std::string NotBeforeText() const;                                         // ISO 8601, UTC
    std::string NotAfterText() const;
    const std::string& KeyAlgorithm() const { return m_strKeyAlgorithm; }  // what OpenSSL calls it
    unsigned int KeyBits() const { return m_nKeyBits; }          // of the RSA modulus, or the EC curve's field
    const std::string& Subject() const { return m_strSubject; }  // RFC 4514, UTF-8
    const std::string& Issuer() const { return m_strIssuer; }
    const std::string& Name() const { return m_strName; }  // in the store

    // Base64 of the DER certificate.
    std::string CertificateBase64() const;

private:
    Flaw LastingFlaw(Flaw flawWithoutKey) const;

    X509Ptr m_certificate;
    SigningKeyPtr m_key;
    std::time_t m_notBefore = 0;
    std::time_t m_notAfter = 0;
    unsigned int m_nKeyBits = 0;
    std::string m_strKeyAlgorithm;
    std::string m_strSerialHex;
    std::string m_strFingerprintHex;
    std::string m_strSubject;
    std::string m_strIssuer;
    std::string m_strName;
    Flaw m_lastingFlaw = Flaw::kDamaged;
};

using IdentityPtr = std::shared_ptr<const Identity>;
using Identities = std::vector<IdentityPtr>;
using IdentitiesPtr = std::shared_ptr<const Identities>;

// The identity of a certificate. It is a damaged one when certificate is null or parts of it cannot be read.
IdentityPtr MakeIdentity(X509Ptr certificate, SigningKeyPtr key, Flaw flawWithoutKey = Flaw::kNoPrivateKey,
                         std::string strName = {});

// Whether this toolkit signs with keys of this kind.
bool IsSigningKey(const EVP_PKEY* pKey);

}  // namespace vextk
