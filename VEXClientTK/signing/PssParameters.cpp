#include "signing/PssParameters.h"

#include <openssl/asn1t.h>
#include <openssl/rsa.h>

#include <cstdint>
#include <memory>
#include <string>

#include "crypto/Values.h"
#include "signing/Digest.h"
#include "signing/Failure.h"

namespace vextk {
namespace {

using PssParametersPtr = std::unique_ptr<RSA_PSS_PARAMS, Deleter<RSA_PSS_PARAMS_free>>;
using StringPtr = std::unique_ptr<ASN1_STRING, Deleter<ASN1_STRING_free>>;

constexpr std::int64_t kDefaultSalt = 20;

// Null unless the parameter is a sequence of that type.
void* Unpacked(const X509_ALGOR* pAlgorithm, const ASN1_ITEM* pItem) {
    int nType = V_ASN1_UNDEF;
    const void* pParameter = nullptr;
    X509_ALGOR_get0(nullptr, &nType, &pParameter, pAlgorithm);
    return nType == V_ASN1_SEQUENCE ? ASN1_item_unpack(static_cast<const ASN1_STRING*>(pParameter), pItem) : nullptr;
}

// An absent algorithm is SHA-1.
int DigestOf(const X509_ALGOR* pAlgorithm) {
    return pAlgorithm == nullptr ? NID_sha1 : OBJ_obj2nid(pAlgorithm->algorithm);
}

int MaskDigestOf(const RSA_PSS_PARAMS& parameters) {
    if (parameters.maskGenAlgorithm == nullptr) {
        return NID_sha1;
    }
    const AlgorithmPtr digest(
        static_cast<X509_ALGOR*>(Unpacked(parameters.maskGenAlgorithm, ASN1_ITEM_rptr(X509_ALGOR))));
    return digest && DigestOf(parameters.maskGenAlgorithm) == NID_mgf1 ? DigestOf(digest.get()) : NID_undef;
}

std::int64_t SaltOf(const RSA_PSS_PARAMS& parameters) {
    std::int64_t nSalt = kDefaultSalt;
    if (parameters.saltLength != nullptr && ASN1_INTEGER_get_int64(&nSalt, parameters.saltLength) != 1) {
        return INT64_MAX;
    }
    return nSalt;
}

[[noreturn]] void Refuse(const std::string& strWhy) {
    RequireMemory();
    throw Failure(VCTK_E_SIGN_FAILED, "the certificate is for RSASSA-PSS " + strWhy);
}

[[noreturn]] void RefuseOtherDigest(const X509_ALGOR* pAlgorithm) {
    const int nDigest = DigestOf(pAlgorithm);
    const std::string strName = nDigest != NID_undef ? OBJ_nid2sn(nDigest) : DottedText(pAlgorithm->algorithm);
    std::shared_ptr<const EVP_MD> digest;
    try {
        digest = FindDigest(strName).algorithm;
    } catch (const Failure&) {
        Refuse("with " + strName + " only, which is not offered");
    }
    Refuse("with " + DigestName(digest.get()) + " only; set this digest");
}

}  // namespace

void RequirePssAllowed(const X509* pCertificate, const EVP_MD* pDigest) {
    X509_ALGOR* pAlgorithm = nullptr;
    X509_PUBKEY_get0_param(nullptr, nullptr, nullptr, &pAlgorithm, X509_get_X509_PUBKEY(pCertificate));
    int nType = V_ASN1_UNDEF;
    X509_ALGOR_get0(nullptr, &nType, nullptr, pAlgorithm);
    if (DigestOf(pAlgorithm) != NID_rsassaPss || nType == V_ASN1_UNDEF) {
        return;
    }
    const PssParametersPtr parameters(
        static_cast<RSA_PSS_PARAMS*>(Unpacked(pAlgorithm, ASN1_ITEM_rptr(RSA_PSS_PARAMS))));
    if (!parameters) {
        Refuse("with parameters that cannot be read");
    }
    const int nDigest = DigestOf(parameters->hashAlgorithm);
    const int nMaskDigest = MaskDigestOf(*parameters);
    const std::int64_t nSalt = SaltOf(*parameters);
    if (nMaskDigest != nDigest) {
        Refuse("with different digests in the signature and in MGF1, which is not offered");
    }
    if (nDigest != EVP_MD_get_type(pDigest)) {
        RefuseOtherDigest(parameters->hashAlgorithm);
    }
    if (nSalt > EVP_MD_get_size(pDigest)) {
        Refuse("with a salt of at least " + std::to_string(nSalt) + " bytes; the salt is as long as the digest, " +
               std::to_string(EVP_MD_get_size(pDigest)) + " bytes");
    }
}

void SetPssAlgorithm(X509_ALGOR* pAlgorithm, const EVP_MD* pDigest) {
    const PssParametersPtr parameters(RequireOpenSsl(RSA_PSS_PARAMS_new()));
    parameters->hashAlgorithm = RequireOpenSsl(X509_ALGOR_new());
    X509_ALGOR_set_md(parameters->hashAlgorithm, pDigest);

    StringPtr digest(RequireOpenSsl(ASN1_item_pack(parameters->hashAlgorithm, ASN1_ITEM_rptr(X509_ALGOR), nullptr)));
    parameters->maskGenAlgorithm = RequireOpenSsl(X509_ALGOR_new());
    RequireOpenSsl(
        X509_ALGOR_set0(parameters->maskGenAlgorithm, OBJ_nid2obj(NID_mgf1), V_ASN1_SEQUENCE, digest.get()) == 1);
    static_cast<void>(digest.release());

    if (const int cbSalt = EVP_MD_get_size(pDigest); cbSalt != kDefaultSalt) {
        parameters->saltLength = RequireOpenSsl(ASN1_INTEGER_new());
        RequireOpenSsl(ASN1_INTEGER_set_int64(parameters->saltLength, cbSalt) == 1);
    }
    StringPtr packed(RequireOpenSsl(ASN1_item_pack(parameters.get(), ASN1_ITEM_rptr(RSA_PSS_PARAMS), nullptr)));
    RequireOpenSsl(X509_ALGOR_set0(pAlgorithm, OBJ_nid2obj(NID_rsassaPss), V_ASN1_SEQUENCE, packed.get()) == 1);
    static_cast<void>(packed.release());
}

}  // namespace vextk
