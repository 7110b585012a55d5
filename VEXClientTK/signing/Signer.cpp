#include "signing/Signer.h"

#include "signing/Base64.h"
#include "signing/Failure.h"
#include "signing/PssParameters.h"

namespace vextk {
namespace {

// RFC 8017 section 9.2: the padding without a DigestInfo.
constexpr int kLeastPkcs1Padding = 11;

// Bytes that stand for a digest that the toolkit does not know. ECDSA would ignore those that the longest digest does
// not have.
void RequireSignable(const EVP_PKEY* pKey, Scheme scheme, size_t cbData) {
    const int cbMost = scheme == Scheme::kEcdsa ? EVP_MAX_MD_SIZE : EVP_PKEY_get_size(pKey) - kLeastPkcs1Padding;
    if (cbData > static_cast<size_t>(cbMost)) {
        throw Failure(VCTK_E_SIGN_FAILED,
                      "this key signs at most " + std::to_string(cbMost) + " bytes with prehashed:NONE");
    }
}

}  // namespace

Scheme ChooseScheme(const Identity& identity, const SigningDigest& digest) {
    const std::string& strKey = identity.KeyAlgorithm();
    if (strKey == "RSA-PSS") {
        if (digest.algorithm == nullptr) {
            throw Failure(VCTK_E_SIGN_FAILED, "the certificate is for RSASSA-PSS, which needs a digest; set its name");
        }
        RequirePssAllowed(identity.Certificate(), digest.algorithm.get());
        return Scheme::kRsaPss;
    }
    if (strKey == "RSA") {
        return digest.bPss ? Scheme::kRsaPss : Scheme::kRsaPkcs1;
    }
    if (digest.bPss) {
        throw Failure(VCTK_E_SIGN_FAILED,
                      "RSASSA-PSS needs an RSA key; set a digest without \"/PSS\" for this " + strKey + " key");
    }
    if (strKey == "EC") {
        return Scheme::kEcdsa;
    }
    if (digest.bPrehashed) {
        throw Failure(VCTK_E_SIGN_FAILED,
                      "an " + strKey + " key signs the data itself; set a digest without \"prehashed:\"");
    }
    return Scheme::kEdwards;
}

Bytes HashOf(const EVP_MD* pDigest, std::span<const unsigned char> data) {
    Bytes hash(static_cast<size_t>(EVP_MD_get_size(pDigest)));
    RequireSigned(EVP_Digest(data.data(), data.size(), hash.data(), nullptr, pDigest, nullptr) == 1);
    return hash;
}

std::string SignP1(const Identity& identity, const SigningDigest& digest, const Bytes& data) {
    const Scheme scheme = ChooseScheme(identity, digest);
    const EVP_MD* const pDigest = digest.algorithm.get();
    if (pDigest == nullptr) {
        RequireSignable(X509_get0_pubkey(identity.Certificate()), scheme, data.size());
    }
    const bool bAsItIs = digest.bPrehashed || scheme == Scheme::kEdwards;
    const Bytes hash = bAsItIs ? Bytes() : HashOf(pDigest, data);
    const Bytes signature = identity.Key()->Sign({scheme, pDigest, bAsItIs ? data : hash});
    return EncodeBase64(signature.data(), signature.size());
}

}  // namespace vextk
