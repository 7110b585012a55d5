#include "Algorithms.h"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/objects.h>

#include <algorithm>

#include "OpenSsl.h"

namespace vexsign::verify {
namespace {

constexpr KnownDigest kDigests[] = {
    {"SHA-256", "SHA2-256", true},
    {"SHA-384", "SHA2-384", true},
    {"SHA-512", "SHA2-512", true},
    {"SHA-224", "SHA2-224", true},
    {"SHA-512/256", "SHA2-512/256", true},
    {"SHA-512/224", "SHA2-512/224", true},
    {"SHA3-256", "SHA3-256", true},
    {"SHA3-384", "SHA3-384", true},
    {"SHA3-512", "SHA3-512", true},
    {"SHA3-224", "SHA3-224", true},
    {"SHA-1", "SHA1", false},
    {"MD5", "MD5", false},
};

constexpr int kLeastSecurityBits = 112;  // RSA with 2048 bits, EC with 224

std::string EcdsaFault(EVP_PKEY* pKey, std::string_view signature) {
    const auto* pb = reinterpret_cast<const unsigned char*>(signature.data());
    const auto* const pbEnd = pb + signature.size();
    const EcSignaturePtr pair(d2i_ECDSA_SIG(nullptr, &pb, static_cast<long>(signature.size())));
    if (!pair || pb != pbEnd) {
        ERR_clear_error();
        return "it is no DER sequence of two numbers, r and s, with nothing behind it";
    }
    unsigned char* pbEncoded = nullptr;
    const int cbEncoded = i2d_ECDSA_SIG(pair.get(), &pbEncoded);
    const MemoryPtr<unsigned char> encoded(pbEncoded);
    if (cbEncoded < 0 ||
        std::string_view(reinterpret_cast<const char*>(pbEncoded), static_cast<std::size_t>(cbEncoded)) != signature) {
        return "it is BER and not DER: its numbers or lengths are not written in the shortest form";
    }
    BIGNUM* pOrder = nullptr;
    if (EVP_PKEY_get_bn_param(pKey, OSSL_PKEY_PARAM_EC_ORDER, &pOrder) != 1) {
        ERR_clear_error();
        return "";
    }
    const BignumPtr order(pOrder);
    for (const BIGNUM* const pNumber : {ECDSA_SIG_get0_r(pair.get()), ECDSA_SIG_get0_s(pair.get())}) {
        if (BN_is_zero(pNumber) || BN_is_negative(pNumber) || BN_cmp(pNumber, pOrder) >= 0) {
            return "r or s is zero, negative, or not below the order of the key's curve; perhaps another key signed";
        }
    }
    return "";
}

}  // namespace

std::span<const KnownDigest> KnownDigests() {
    return kDigests;
}

const KnownDigest* FindDigest(const EVP_MD* pDigest) {
    const auto* const pFound = std::find_if(std::begin(kDigests), std::end(kDigests), [&](const KnownDigest& digest) {
        return EVP_MD_is_a(pDigest, digest.pszOpenSsl) == 1;
    });
    return pFound == std::end(kDigests) ? nullptr : pFound;
}

const KnownDigest* FindDigest(int nNid) {
    const char* const pszName = nNid == NID_undef ? nullptr : OBJ_nid2sn(nNid);
    const DigestPtr digest(pszName == nullptr ? nullptr : EVP_MD_fetch(nullptr, pszName, nullptr));
    ERR_clear_error();
    return digest ? FindDigest(digest.get()) : nullptr;
}

std::string DistrustText(const KnownDigest& digest) {
    return std::string("it was made with ") + digest.pszName +
           ", and others can make data with the same digest; have it signed again with SHA-256";
}

std::string KeyFault(EVP_PKEY* pKey) {
    if (pKey == nullptr) {
        ERR_clear_error();
        return "OpenSSL cannot read the certificate's key";
    }
    switch (EVP_PKEY_get_base_id(pKey)) {
        case EVP_PKEY_RSA:
        case EVP_PKEY_RSA_PSS:
        case EVP_PKEY_EC:
        case EVP_PKEY_ED25519:
        case EVP_PKEY_ED448:
            break;
        default:
            return "the certificate's key is no RSA, EC, Ed25519 or Ed448 key";
    }
    const int cBits = EVP_PKEY_get_security_bits(pKey);
    return cBits >= kLeastSecurityBits ? ""
                                       : "the certificate's key has only " + std::to_string(EVP_PKEY_get_bits(pKey)) +
                                             " bits; RSA needs 2048, EC 224";
}

std::string SignatureFormFault(EVP_PKEY* pKey, std::string_view signature) {
    if (EVP_PKEY_get_base_id(pKey) == EVP_PKEY_EC) {
        return EcdsaFault(pKey, signature);
    }
    const auto cbKey = static_cast<std::size_t>(std::max(EVP_PKEY_get_size(pKey), 0));
    return signature.size() == cbKey ? ""
                                     : "it has " + std::to_string(signature.size()) +
                                           " bytes; a signature of this key has " + std::to_string(cbKey);
}

}  // namespace vexsign::verify
