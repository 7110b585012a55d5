#include "BareSignature.h"

#include <openssl/rsa.h>

#include <string>
#include <vector>

#include "Algorithms.h"
#include "vexsign/DigestName.h"

namespace vexsign::verify {
namespace {

enum class Scheme { kPkcs1, kPss, kEcdsa };

constexpr const char* NameOf(Scheme scheme) {
    switch (scheme) {
        case Scheme::kPkcs1:
            return "RSASSA-PKCS1-v1_5";
        case Scheme::kPss:
            return "RSASSA-PSS";
        case Scheme::kEcdsa:
            break;
    }
    return "ECDSA";
}

const unsigned char* Bytes(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

const KnownDigest* NamedDigest(const std::string& strName) {
    const DigestPtr digest(EVP_MD_fetch(nullptr, DigestName(strName).OpenSsl().c_str(), nullptr));
    ERR_clear_error();
    return digest ? FindDigest(digest.get()) : nullptr;
}

std::vector<Scheme> SchemesOf(EVP_PKEY* pKey, const std::string& strDigest) {
    const int nKey = EVP_PKEY_get_base_id(pKey);
    if (nKey == EVP_PKEY_EC) {
        return {Scheme::kEcdsa};
    }
    if (nKey == EVP_PKEY_RSA_PSS) {
        return {Scheme::kPss};
    }
    if (strDigest.empty()) {
        return {Scheme::kPkcs1, Scheme::kPss};
    }
    return {DigestName(strDigest).IsPss() ? Scheme::kPss : Scheme::kPkcs1};
}

bool Matches(EVP_PKEY* pKey, Scheme scheme, const KnownDigest& known, std::string_view digest,
             std::string_view signature) {
    const DigestPtr algorithm(EVP_MD_fetch(nullptr, known.pszOpenSsl, nullptr));
    const KeyContextPtr context(RequireMemory(EVP_PKEY_CTX_new_from_pkey(nullptr, pKey, nullptr)));
    EVP_PKEY_CTX* const pContext = context.get();
    if (!algorithm || EVP_PKEY_verify_init(pContext) != 1) {
        return false;
    }
    if (scheme != Scheme::kEcdsa &&
        EVP_PKEY_CTX_set_rsa_padding(pContext, scheme == Scheme::kPss ? RSA_PKCS1_PSS_PADDING : RSA_PKCS1_PADDING) !=
            1) {
        return false;
    }
    if (EVP_PKEY_CTX_set_signature_md(pContext, algorithm.get()) != 1) {
        return false;
    }
    // A certificate that restricts the salt's length does not let it be found out.
    if (scheme == Scheme::kPss && EVP_PKEY_CTX_set_rsa_pss_saltlen(pContext, RSA_PSS_SALTLEN_AUTO) != 1 &&
        EVP_PKEY_CTX_set_rsa_pss_saltlen(pContext, RSA_PSS_SALTLEN_DIGEST) != 1) {
        return false;
    }
    return EVP_PKEY_verify(pContext, Bytes(signature), signature.size(), Bytes(digest), digest.size()) == 1;
}

void PassBoth(SignerReport& signer) {
    signer.Pass(check::kContent, "the content in FILE is what was signed");
    signer.Pass(check::kSignature, "the certificate's key made the signature");
}

void FailSignature(EVP_PKEY* pKey, std::string_view signature, const std::string& strTried, SignerReport& signer) {
    static_cast<void>(TakeReason());
    const std::string strForm = SignatureFormFault(pKey, signature);
    signer.Fail(check::kSignature, !strForm.empty() ? strForm
                                                    : "the certificate's key did not sign the content in FILE" +
                                                          strTried + "; another key, other content or another digest");
}

void VerifyDigested(std::string_view signature, EVP_PKEY* pKey, const Settings& settings, const Reader& content,
                    SignerReport& signer) {
    const KnownDigest* const pNamed = settings.strDigest.empty() ? nullptr : NamedDigest(settings.strDigest);
    Digests digests;
    std::vector<const KnownDigest*> tried;
    for (const KnownDigest& known : KnownDigests()) {
        if (pNamed == nullptr || pNamed == &known) {
            tried.push_back(&known);
            digests.Want(known.pszName);
        }
    }
    ForEachPiece(content, [&](std::string_view piece) { digests.Add(piece); });
    digests.Finish();
    for (const Scheme scheme : SchemesOf(pKey, settings.strDigest)) {
        for (const KnownDigest* const pKnown : tried) {
            const std::string* const pDigest = digests.Find(pKnown->pszName);
            if (pDigest == nullptr || !Matches(pKey, scheme, *pKnown, *pDigest, signature)) {
                continue;
            }
            ERR_clear_error();
            signer.strAlgorithm = std::string(NameOf(scheme)) + " with " + pKnown->pszName;
            PassBoth(signer);
            if (pKnown->bTrusted) {
                signer.Pass(check::kAlgorithm, "digest and key are strong enough");
            } else {
                signer.Fail(check::kAlgorithm, DistrustText(*pKnown));
            }
            return;
        }
    }
    FailSignature(pKey, signature,
                  pNamed == nullptr ? " with any digest that is known" : std::string(" with ") + settings.strDigest,
                  signer);
}

void VerifyWhole(std::string_view signature, EVP_PKEY* pKey, const Reader& content, SignerReport& signer) {
    signer.strAlgorithm = EVP_PKEY_get_base_id(pKey) == EVP_PKEY_ED25519 ? "Ed25519" : "Ed448";
    signer.Pass(check::kAlgorithm, "the key is strong enough");
    const std::string strContent = ReadContent(content);
    const DigestContextPtr context(RequireMemory(EVP_MD_CTX_new()));
    if (EVP_DigestVerifyInit_ex(context.get(), nullptr, nullptr, nullptr, nullptr, pKey, nullptr) == 1 &&
        EVP_DigestVerify(context.get(), Bytes(signature), signature.size(), Bytes(strContent), strContent.size()) ==
            1) {
        PassBoth(signer);
    } else {
        FailSignature(pKey, signature, "", signer);
    }
}

}  // namespace

bool IsDigestName(const std::string& strName) {
    return !DigestName(strName).IsPrehashed() && NamedDigest(strName) != nullptr;
}

void VerifyBareSignature(std::string_view signature, const Settings& settings, const Reader* pContent, Report& report) {
    ERR_clear_error();
    report.bDetached = true;
    SignerReport& signer = report.signers.emplace_back();
    if (pContent == nullptr) {
        report.Fail(check::kContent,
                    "a bare signature (P1) does not contain the content; give the FILE that was signed");
    }
    if (!settings.signers) {
        signer.Fail(check::kCertificate,
                    "a bare signature (P1) does not contain the certificate; give it with --cert. If this should be a "
                    "P7, it is damaged");
        return;
    }
    if (sk_X509_num(settings.signers.get()) > 1) {
        signer.Fail(check::kCertificate, "a bare signature (P1) has one signer; give --cert once");
        return;
    }
    X509* const pCertificate = sk_X509_value(settings.signers.get(), 0);
    signer.certificate = FactsOf(pCertificate);
    EVP_PKEY* const pKey = X509_get0_pubkey(pCertificate);
    if (const std::string strFault = KeyFault(pKey); !strFault.empty()) {
        signer.Fail(check::kAlgorithm, strFault);
    } else if (pContent != nullptr) {
        const int nKey = EVP_PKEY_get_base_id(pKey);
        nKey == EVP_PKEY_ED25519 || nKey == EVP_PKEY_ED448
            ? VerifyWhole(signature, pKey, *pContent, signer)
            : VerifyDigested(signature, pKey, settings, *pContent, signer);
    }
    CheckCertificate(pCertificate, settings.issuers.get(), settings, settings.nMoment, signer);
    signer.Skip(check::kTime, "when it was signed: a bare signature does not say so");
}

}  // namespace vexsign::verify
