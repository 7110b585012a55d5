// Certificates with names that try to break lists, logs, terminals, pages and shells: every script, string type and
// length, well-formed or not. A seed gives the same ones again. All have one key, of P-256.
#pragma once

#include <openssl/evp.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

struct HostileValue {
    std::string strOid;                  // dotted
    std::string strDer;                  // with tag and length
    std::optional<std::string> strUtf8;  // nothing: no text, or a malformed one
};

struct HostileName {
    std::vector<std::vector<HostileValue>> relativeNames;  // the most significant first
    std::string strDer;
};

struct HostileCertificate {
    HostileName subject;
    HostileName issuer;
    std::string strDer;
    std::string strSerialHex;  // as the certificate list writes it
    bool bExpired = false;
    // Of a PKCS #12 file: UTF-16, possibly malformed; and as UTF-8, nothing if it is malformed or has U+0000.
    std::string strFriendlyName;
    std::optional<std::string> strFriendlyUtf8;
};

class HostileNames {
public:
    explicit HostileNames(std::uint32_t uSeed);

    HostileCertificate Next();

    // UTF-8 without U+0000.
    std::string Text();
    // A text of these UTF-32 characters, which may be U+0000 but no surrogates.
    std::u32string Characters();

    EVP_PKEY* Key() const { return m_key.get(); }
    // PEM, PKCS #8.
    std::string KeyPem() const;
    static std::string CertificatePem(const std::string& strDer);
    // With the key and the certificates, and their friendly names. Without a PIN.
    std::string Pkcs12(const std::vector<HostileCertificate>& certificates) const;

private:
    struct FreeKey {
        void operator()(EVP_PKEY* pKey) const { EVP_PKEY_free(pKey); }
    };

    std::uint32_t Below(std::uint32_t uEnd) {
        return std::uniform_int_distribution<std::uint32_t>(0, uEnd - 1)(m_random);
    }
    bool OneIn(std::uint32_t uOf) { return Below(uOf) == 0; }
    std::string Bytes(std::size_t cb);
    std::string Oid();
    HostileValue Value();
    HostileName Name();

    std::mt19937 m_random;
    std::unique_ptr<EVP_PKEY, FreeKey> m_key;
    std::uint32_t m_uSerial = 0;
};
