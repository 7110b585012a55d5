// A PKCS #11 module that lies: its numbers, sizes, results, attributes and signatures come from the input, and its
// token appears and vanishes between two calls.
//
// The store opens or fails with a reason. Each operation ends after a limited number of calls. A signature is given out
// only if it belongs to the certificate. The program's options limit the memory.
#include <openssl/evp.h>

#include <cstdint>
#include <string>

#include "LyingToken.h"
#include "ModuleOfTests.h"
#include "Require.h"
#include "StoreChecks.h"
#include "ToolkitClient.h"
#include "signing/Base64.h"
#include "signing/OpenSsl.h"

namespace {

using namespace vextk;

constexpr std::size_t kMostCalls = 20000;
constexpr const char* kText = "text";

// A PIN that the token has refused is not tried again in this process. So each input has another one.
std::string Uri(std::uint8_t uChoice) {
    static const TempDirectory s_directory;
    static const std::string s_strModule = InstallModule(s_directory, lyingtoken::Functions());
    static unsigned s_nInput = 0;
    std::string strUri = "pkcs11:";
    if ((uChoice & 1U) != 0) {
        strUri += "token=Card";
    }
    strUri += "?module-path=" + s_strModule;
    if ((uChoice & 6U) != 6) {
        strUri += "&pin-value=" + std::to_string(++s_nInput);
    }
    if ((uChoice & 24U) != 0) {
        strUri += (uChoice & 8U) != 0 ? "&list=all" : "&list=certificates&chain=store";
    }
    return strUri;
}

// Whether it is the signature of the text with the certificate's key.
bool Verifies(const std::string& strCertificate, const std::string& strSignature, bool bPss) {
    const ErrorMark mark;
    const auto der = DecodeBase64(strCertificate);
    const auto signature = DecodeBase64(strSignature);
    Require(der && signature);
    const unsigned char* pbDer = der->data();
    const X509Ptr certificate(d2i_X509(nullptr, &pbDer, static_cast<long>(der->size())));
    Require(certificate != nullptr);
    EVP_PKEY* const pKey = X509_get0_pubkey(certificate.get());
    const bool bEdwards = EVP_PKEY_is_a(pKey, "ED25519") == 1;
    const DigestContextPtr context(EVP_MD_CTX_new());
    EVP_PKEY_CTX* pKeyContext = nullptr;
    Require(EVP_DigestVerifyInit(context.get(), &pKeyContext, bEdwards ? nullptr : EVP_sha256(), nullptr, pKey) == 1);
    if (bPss && EVP_PKEY_is_a(pKey, "RSA") == 1) {
        Require(EVP_PKEY_CTX_set_rsa_padding(pKeyContext, 6) == 1);  // RSA_PKCS1_PSS_PADDING
    }
    return EVP_DigestVerify(context.get(), signature->data(), signature->size(),
                            reinterpret_cast<const unsigned char*>(kText), 4) == 1;
}

void Sign(const ToolkitClient& client, bool bPss) {
    Require(VCTK_SetDigestAlg(client.Handle(), bPss ? "SHA-256/PSS" : "SHA-256") == VCTK_OK);
    if (const auto signature = client.SignP1(kText)) {
        const auto certificate = client.SignCertificate();
        Require(certificate && Verifies(*certificate, *signature, bPss));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pbData, std::size_t cbData) {
    if (cbData == 0) {
        return 0;
    }
    const std::uint8_t uChoice = pbData[0];
    const std::string strUri = Uri(uChoice);
    lyingtoken::SetAnswers({pbData + 1, cbData - 1}, (uChoice & 128U) != 0);
    CheckStore(strUri,
               {VCTK_E_STORE_NO_PRIVATE_KEY, VCTK_E_PIN_REQUIRED, VCTK_E_PIN_WRONG, VCTK_E_PIN_LOCKED,
                VCTK_E_TOKEN_NOT_FOUND, VCTK_E_TOKEN_REMOVED, VCTK_E_TOKEN_FAILED},
               [&](const ToolkitClient& client) { Sign(client, (uChoice & 32U) != 0); });
    Require(lyingtoken::CallCount() <= kMostCalls);
    return 0;
}
