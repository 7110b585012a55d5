#include "Certificate.h"

#include <openssl/x509v3.h>

#include <optional>
#include <utility>

#include "Encoding.h"
#include "ReadFile.h"
#include "Time.h"
#include "crypto/Values.h"
#include "crypto/VerifyTime.h"

namespace vexsign::verify {
namespace {

// OpenSSL's level of 112 bits: no SHA-1 in the chain, no RSA key below 2048 bits.
constexpr int kSecurityLevel = 2;

// The escapes of vexposix::AppendVisible come on top when it is printed.
std::string NameText(const X509_NAME* pName) {
    if (std::optional<std::string> strText = vexcrypto::NameText(pName)) {
        return std::move(*strText);
    }
    static_cast<void>(TakeReason());
    return "(a name that cannot be read)";
}

std::string Fingerprint(const X509* pCertificate) {
    std::optional<std::string> strText = FingerprintText(pCertificate);
    RequireMemory(strText.has_value());
    return std::move(*strText);
}

// True also if there is no key usage.
bool IsForSigning(X509* pCertificate) {
    return (X509_get_key_usage(pCertificate) & (KU_DIGITAL_SIGNATURE | KU_NON_REPUDIATION)) != 0;
}

void CheckUsage(X509* pCertificate, SignerReport& signer) {
    const std::uint32_t uFlags = X509_get_extension_flags(pCertificate);
    if ((uFlags & EXFLAG_INVALID) != 0) {
        ERR_clear_error();
        signer.Fail(check::kUsage, "an extension of the certificate is damaged");
    } else if ((uFlags & EXFLAG_KUSAGE) == 0) {
        signer.Pass(check::kUsage, "the certificate does not restrict what its key is used for");
    } else if (IsForSigning(pCertificate)) {
        signer.Pass(check::kUsage, "the certificate's key usage is for signing");
    } else {
        signer.Fail(check::kUsage,
                    "the certificate's key usage is not for signing: it has neither digitalSignature nor "
                    "nonRepudiation");
    }
}

void CheckValidity(X509* pCertificate, std::time_t nMoment, SignerReport& signer) {
    const std::optional<std::time_t> begin = MomentOf(X509_get0_notBefore(pCertificate));
    const std::optional<std::time_t> end = MomentOf(X509_get0_notAfter(pCertificate));
    const std::string strMoment = TextOf(nMoment);
    if (!begin || !end) {
        signer.Fail(check::kValidity, "the certificate's validity has an impossible date");
    } else if (nMoment < *begin) {
        signer.Fail(check::kValidity, "the certificate is valid only from " + TextOf(*begin) + ", after " + strMoment);
    } else if (nMoment > *end) {
        const bool bStamped = signer.time && signer.time->bProven;
        signer.Fail(check::kValidity,
                    "the certificate expired on " + TextOf(*end) + ", before " + strMoment +
                        (bStamped ? ", the time of the time stamp, which came too late"
                                  : "; if you know from elsewhere when the signature already existed, give that "
                                    "moment with --at"));
    } else {
        signer.Pass(check::kValidity, "the certificate is valid at " + strMoment);
    }
}

// The purpose forbids a certificate for its extended key usage, its Netscape certificate type, or the signer's key
// usage, which --any-purpose does not change.
std::string PurposeFault(X509* pCertificate, const std::string& strWho) {
    // All bits are set if there is no extended key usage.
    const std::uint32_t uExtended = pCertificate == nullptr ? 0 : X509_get_extended_key_usage(pCertificate);
    if ((uExtended & XKU_SMIME) == 0) {
        return "the extended key usage of a certificate of the chain is for something else than e-mail and documents" +
               strWho + "; --any-purpose accepts it";
    }
    const bool bOldType = (X509_get_extension_flags(pCertificate) & EXFLAG_NSCERT) != 0;
    if (bOldType && IsForSigning(pCertificate)) {
        return "the Netscape certificate type of a certificate of the chain is for something else than e-mail" +
               strWho + "; --any-purpose accepts it";
    }
    return "the key usage of a certificate of the chain is for something else than signing documents" + strWho;
}

// In plain words, with the name of the certificate that is at fault.
std::string ChainFault(X509_STORE_CTX* pContext, const Settings& settings) {
    const int nError = X509_STORE_CTX_get_error(pContext);
    X509* const pCurrent = X509_STORE_CTX_get_current_cert(pContext);
    const std::string strWho = pCurrent == nullptr ? "" : " (" + NameText(X509_get_subject_name(pCurrent)) + ")";
    const std::string strTrusted =
        settings.trust == Trust::kFiles ? "none of the --ca files" : "this system's trusted certificates do not";
    switch (nError) {
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
            return strTrusted + (settings.trust == Trust::kFiles ? " has" : " have") +
                   " the issuer of a certificate of the chain" + strWho +
                   "; give the root with --ca, and a missing one between with --cert";
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
            return "the certificate is self-signed and nobody trusts it; if you know that it is the signer's, give "
                   "it with --ca";
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
            return "the chain ends with a root that is not trusted" + strWho + "; if you trust it, give it with --ca";
        case X509_V_ERR_CERT_HAS_EXPIRED:
            return "a certificate of the chain has expired" + strWho;
        case X509_V_ERR_CERT_NOT_YET_VALID:
            return "a certificate of the chain is not valid yet" + strWho;
        case X509_V_ERR_INVALID_PURPOSE:
            return PurposeFault(pCurrent, strWho);
        case X509_V_ERR_OUT_OF_MEM:
            throw std::bad_alloc();
        default:
            return std::string(X509_verify_cert_error_string(nError)) + strWho;
    }
}

void CheckChain(X509* pCertificate, STACK_OF(X509) * pOthers, const Settings& settings, std::time_t nMoment,
                SignerReport& signer) {
    if (settings.trust == Trust::kNone) {
        signer.Skip(check::kChain,
                    "who issued the certificate (--no-chain): anybody can make a certificate with this name");
        return;
    }
    const StoreContextPtr context(RequireMemory(X509_STORE_CTX_new()));
    RequireMemory(X509_STORE_CTX_init(context.get(), settings.store.get(), pCertificate, pOthers) == 1);
    if (!settings.bAnyPurpose) {
        RequireMemory(X509_STORE_CTX_set_default(context.get(), "smime_sign") == 1);
    }
    X509_VERIFY_PARAM* const pRules = X509_STORE_CTX_get0_param(context.get());
    SetVerifyTime(context.get(), nMoment);
    X509_VERIFY_PARAM_set_auth_level(pRules, kSecurityLevel);
    // What the user gives with --ca is trusted itself, also if it is no root.
    RequireMemory(X509_VERIFY_PARAM_set_flags(pRules, X509_V_FLAG_PARTIAL_CHAIN) == 1);
    const bool bTrusted = X509_verify_cert(context.get()) == 1;
    ERR_clear_error();
    if (!bTrusted) {
        signer.Fail(check::kChain, ChainFault(context.get(), settings));
        return;
    }
    STACK_OF(X509)* const pChain = X509_STORE_CTX_get0_chain(context.get());
    X509* const pLast = sk_X509_value(pChain, sk_X509_num(pChain) - 1);
    signer.Pass(check::kChain,
                std::string("the certificate leads to one that ") +
                    (settings.trust == Trust::kFiles ? "the --ca files trust: " : "this system trusts: ") +
                    NameText(X509_get_subject_name(pLast)));
}

}  // namespace

StorePtr SystemStore() {
    StorePtr store(RequireMemory(X509_STORE_new()));
    RequireMemory(X509_STORE_set_default_paths(store.get()) == 1);
    return store;
}

StorePtr StoreOfFiles(const std::vector<std::string>& files) {
    StorePtr store(RequireMemory(X509_STORE_new()));
    for (const std::string& strFile : files) {
        const CertificatesPtr certificates = ReadCertificates(ReadWhole(strFile), strFile);
        for (int i = 0; i < sk_X509_num(certificates.get()); ++i) {
            RequireMemory(X509_STORE_add_cert(store.get(), sk_X509_value(certificates.get(), i)) == 1);
        }
    }
    return store;
}

void AddSigner(const CertificatesPtr& file, Settings& settings) {
    for (int i = 0; i < sk_X509_num(file.get()); ++i) {
        CertificatesPtr& certificates = i == 0 ? settings.signers : settings.issuers;
        if (!certificates) {
            certificates = NewCertificates();
        }
        AddCertificate(certificates.get(), sk_X509_value(file.get(), i));
    }
}

CertificateFacts FactsOf(X509* pCertificate) {
    return {NameText(X509_get_subject_name(pCertificate)), NameText(X509_get_issuer_name(pCertificate)),
            HexText(X509_get0_serialNumber(pCertificate)), Fingerprint(pCertificate),
            TextOf(X509_get0_notBefore(pCertificate)),     TextOf(X509_get0_notAfter(pCertificate))};
}

void CheckCertificate(X509* pCertificate, STACK_OF(X509) * pOthers, const Settings& settings, std::time_t nMoment,
                      SignerReport& signer) {
    CheckUsage(pCertificate, signer);
    CheckValidity(pCertificate, nMoment, signer);
    CheckChain(pCertificate, pOthers, settings, nMoment, signer);
    signer.Skip(check::kRevocation, "whether the certificate was revoked: no revocation list or OCSP is asked");
}

}  // namespace vexsign::verify
