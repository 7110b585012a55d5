#include "signing/Signer.h"

#include <climits>

#include "signing/Base64.h"
#include "signing/Failure.h"
#include "signing/TokenPrivateKey.h"

namespace vextk {
namespace {

void RequireSigned(bool bSucceeded) {
    if (!bSucceeded) {
        ThrowTokenFailure();
        throw Failure(VCTK_E_SIGN_FAILED, LastOpenSslReason());
    }
}

}  // namespace

std::string SignP1(const Identity& identity, const EVP_MD* pDigest, const Bytes& data) {
    ForgetTokenFailure();
    const DigestContextPtr context(RequireOpenSsl(EVP_MD_CTX_new()));
    size_t cbSignature = 0;
    RequireSigned(EVP_DigestSignInit(context.get(), nullptr, pDigest, nullptr, identity.Key()) == 1 &&
                  EVP_DigestSign(context.get(), nullptr, &cbSignature, data.data(), data.size()) == 1);
    Bytes signature(cbSignature);
    RequireSigned(EVP_DigestSign(context.get(), signature.data(), &cbSignature, data.data(), data.size()) == 1);
    return EncodeBase64(signature.data(), cbSignature);
}

std::string SignP7(const Identity& identity, const EVP_MD* pDigest, const Bytes& data, bool bDetached,
                   const Identities& certificates) {
    if (data.size() > static_cast<size_t>(INT_MAX)) {
        throw Failure(VCTK_E_TOO_LARGE);
    }
    ForgetTokenFailure();
    const unsigned int dwFlags =
        CMS_BINARY | CMS_PARTIAL | CMS_NOSMIMECAP | CMS_CADES | CMS_NOCERTS | (bDetached ? CMS_DETACHED : 0U);
    const CmsPtr cms(RequireOpenSsl(CMS_sign(nullptr, nullptr, nullptr, nullptr, dwFlags)));
    RequireSigned(CMS_add1_signer(cms.get(), identity.Certificate(), identity.Key(), pDigest, dwFlags) != nullptr);
    for (const IdentityPtr& certificate : certificates) {
        RequireSigned(CMS_add1_cert(cms.get(), certificate->Certificate()) == 1);
    }
    const BioPtr content(RequireOpenSsl(BIO_new_mem_buf(data.data(), static_cast<int>(data.size()))));
    RequireSigned(CMS_final(cms.get(), content.get(), nullptr, dwFlags) == 1);

    unsigned char* pbDer = nullptr;
    const int cbDer = i2d_CMS_ContentInfo(cms.get(), &pbDer);
    RequireSigned(cbDer > 0);
    const MemoryPtr<unsigned char> der(pbDer);
    return EncodeBase64(der.get(), static_cast<size_t>(cbDer));
}

}  // namespace vextk
