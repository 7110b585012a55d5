#include "signing/SignerP7.h"

#include <openssl/pkcs7.h>

#include <climits>

#include "signing/Base64.h"
#include "signing/Failure.h"
#include "signing/PssParameters.h"
#include "signing/Signer.h"
#include "signing/TimeStamp.h"

namespace vextk {
namespace {

using AttributesPtr = std::unique_ptr<STACK_OF(X509_ATTRIBUTE), decltype([](STACK_OF(X509_ATTRIBUTE) * pAttributes) {
                                          sk_X509_ATTRIBUTE_free(pAttributes);  // the signature owns the attributes
                                      })>;

void RequireOffered(const SigningDigest& digest, bool bDetached) {
    if (digest.bPrehashed && !bDetached) {
        throw Failure(VCTK_E_INVALID_ARGUMENT,
                      "with \"prehashed:\" there is no content to attach; make a detached signature");
    }
    if (digest.algorithm == nullptr) {
        throw Failure(VCTK_E_INVALID_ARGUMENT,
                      "a P7 signature names its digest; set prehashed:SHA-256 or another name in place of NONE");
    }
}

// RFC 8419 section 3.1. For Ed448 it is a form of SHAKE256 that OpenSSL's CMS does not know.
SigningDigest DigestForEdwards(const Identity& identity) {
    if (identity.KeyAlgorithm() != "ED25519") {
        throw Failure(VCTK_E_SIGN_FAILED, "OpenSSL makes no P7 signature with an " + identity.KeyAlgorithm() +
                                              " key; make a P1 signature, or use another key");
    }
    return FindDigest("SHA-512");
}

// OpenSSL 3.0 does not know ECDSA with SHA-3, SHA-512/224 and SHA-512/256 in CMS.
[[noreturn]] void ThrowNoSigner(const Identity& identity, Scheme scheme, const EVP_MD* pDigest) {
    RequireMemory();
    const std::string strReason = LastOpenSslReason();
    const bool bKnown = scheme != Scheme::kEcdsa ||
                        OBJ_find_sigid_by_algs(nullptr, EVP_MD_get_type(pDigest), NID_X9_62_id_ecPublicKey) == 1;
    throw Failure(VCTK_E_SIGN_FAILED, bKnown ? strReason
                                             : strReason + ": this version of OpenSSL, " +
                                                   OpenSSL_version(OPENSSL_VERSION) + ", makes no P7 signature with " +
                                                   DigestName(pDigest) + " and an " + identity.KeyAlgorithm() +
                                                   " key; set SHA-256, SHA-384 or SHA-512, or make a P1 signature");
}

void AddAttributes(CMS_SignerInfo* pSigner, const Bytes& hash, std::time_t now) {
    const TimePtr time(RequireOpenSsl(ASN1_TIME_set(nullptr, now)));
    RequireSigned(CMS_signed_add1_attr_by_NID(pSigner, NID_pkcs9_contentType, V_ASN1_OBJECT,
                                              OBJ_nid2obj(NID_pkcs7_data), -1) == 1 &&
                  CMS_signed_add1_attr_by_NID(pSigner, NID_pkcs9_messageDigest, V_ASN1_OCTET_STRING, hash.data(),
                                              static_cast<int>(hash.size())) == 1 &&
                  CMS_signed_add1_attr_by_NID(pSigner, NID_pkcs9_signingTime, time->type, time.get(), -1) == 1);
}

// What the signature is over: the DER of the attributes as a set, RFC 5652 section 5.4.
Bytes AttributesToSign(CMS_SignerInfo* pSigner) {
    const AttributesPtr attributes(RequireOpenSsl(sk_X509_ATTRIBUTE_new_null()));
    for (int i = 0; i < CMS_signed_get_attr_count(pSigner); ++i) {
        RequireOpenSsl(sk_X509_ATTRIBUTE_push(attributes.get(), CMS_signed_get_attr(pSigner, i)) > 0);
    }
    unsigned char* pbDer = nullptr;
    const int cbDer =
        ASN1_item_i2d(reinterpret_cast<const ASN1_VALUE*>(attributes.get()), &pbDer, ASN1_ITEM_rptr(PKCS7_ATTR_SIGN));
    const MemoryPtr<unsigned char> der(pbDer);
    RequireOpenSsl(cbDer > 0);
    return Bytes(pbDer, pbDer + cbDer);
}

// CMS_add1_signer has named the other schemes.
void NameAlgorithm(CMS_SignerInfo* pSigner, Scheme scheme, const EVP_MD* pDigest) {
    X509_ALGOR* pAlgorithm = nullptr;
    CMS_SignerInfo_get0_algs(pSigner, nullptr, nullptr, nullptr, &pAlgorithm);
    if (scheme == Scheme::kRsaPss) {
        SetPssAlgorithm(pAlgorithm, pDigest);
    } else if (scheme == Scheme::kEdwards) {
        RequireOpenSsl(X509_ALGOR_set0(pAlgorithm, OBJ_nid2obj(NID_ED25519), V_ASN1_UNDEF, nullptr) == 1);
    }
}

// The signature is made here, not by OpenSSL's CMS functions: they sign only data that they see, and only with keys
// that OpenSSL has.
void Sign(CMS_SignerInfo* pSigner, const Identity& identity, Scheme scheme, const EVP_MD* pDigest) {
    const Bytes attributes = AttributesToSign(pSigner);
    const Bytes hash = scheme == Scheme::kEdwards ? Bytes() : HashOf(pDigest, attributes);
    const Bytes signature = identity.Key()->Sign({scheme, pDigest, scheme == Scheme::kEdwards ? attributes : hash});
    RequireOpenSsl(ASN1_OCTET_STRING_set(CMS_SignerInfo_get0_signature(pSigner), signature.data(),
                                         static_cast<int>(signature.size())) == 1);
    if (scheme == Scheme::kEdwards && CMS_SignerInfo_verify(pSigner) != 1) {
        RequireMemory();
        throw Failure(VCTK_E_SIGN_FAILED, std::string("this version of OpenSSL, ") + OpenSSL_version(OPENSSL_VERSION) +
                                              ", does not verify P7 signatures with an " + identity.KeyAlgorithm() +
                                              " key; make a P1 signature, or use another key");
    }
}

void Attach(CMS_ContentInfo* pCms, const Bytes& data) {
    ASN1_OCTET_STRING** const ppContent = RequireOpenSsl(CMS_get0_content(pCms));
    *ppContent = RequireOpenSsl(ASN1_OCTET_STRING_new());
    RequireSigned(ASN1_OCTET_STRING_set(*ppContent, data.data(), static_cast<int>(data.size())) == 1);
}

}  // namespace

std::string SignP7(const Identity& identity, const SigningDigest& digest, const Bytes& data, bool bDetached,
                   const Identities& certificates, std::time_t now, const vextimestamp::Settings* pStamp) {
    if (data.size() > static_cast<size_t>(INT_MAX)) {
        throw Failure(VCTK_E_TOO_LARGE);
    }
    RequireOffered(digest, bDetached);
    const Scheme scheme = ChooseScheme(identity, digest);
    const SigningDigest used = scheme == Scheme::kEdwards ? DigestForEdwards(identity) : digest;
    const EVP_MD* const pDigest = used.algorithm.get();

    const CmsPtr cms(RequireOpenSsl(CMS_sign(nullptr, nullptr, nullptr, nullptr, CMS_PARTIAL | CMS_DETACHED)));
    // The public key stands for the private one, which OpenSSL need not have.
    CMS_SignerInfo* const pSigner =
        CMS_add1_signer(cms.get(), identity.Certificate(), X509_get0_pubkey(identity.Certificate()), pDigest,
                        CMS_NOSMIMECAP | CMS_CADES | CMS_NOCERTS);
    if (pSigner == nullptr) {
        ThrowNoSigner(identity, scheme, pDigest);
    }
    NameAlgorithm(pSigner, scheme, pDigest);
    for (const IdentityPtr& certificate : certificates) {
        RequireSigned(CMS_add1_cert(cms.get(), certificate->Certificate()) == 1);
    }
    AddAttributes(pSigner, digest.bPrehashed ? data : HashOf(pDigest, data), now);
    Sign(pSigner, identity, scheme, pDigest);
    if (!bDetached) {
        Attach(cms.get(), data);
    }

    unsigned char* pbDer = nullptr;
    const int cbDer = i2d_CMS_ContentInfo(cms.get(), &pbDer);
    RequireSigned(cbDer > 0);
    const MemoryPtr<unsigned char> der(pbDer);
    if (pStamp != nullptr) {
        const Bytes stamped = AddStamp({der.get(), static_cast<size_t>(cbDer)}, *pStamp);
        return EncodeBase64(stamped.data(), stamped.size());
    }
    return EncodeBase64(der.get(), static_cast<size_t>(cbDer));
}

}  // namespace vextk
