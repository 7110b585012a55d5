#include "timestamp/Authority.h"

#include <openssl/objects.h>

#include <string>

#include "crypto/VerifyTime.h"
#include "posix/VisibleText.h"
#include "timestamp/Numbers.h"
#include "timestamp/SigningCertificate.h"

namespace vextimestamp {
namespace {

// OpenSSL's level of 112 bits: no SHA-1 in the path, no RSA below 2048 bits.
constexpr int kSecurityLevel = 2;
constexpr int kSecurityBits = 112;

std::string Who(const X509* pCertificate) {
    return " (" + vexposix::Visible(SubjectText(pCertificate), true) + ")";
}

}  // namespace

std::string SubjectText(const X509* pCertificate) {
    return NameText(X509_get_subject_name(pCertificate)).value_or("a name that cannot be shown");
}

const ASN1_TYPE* SignedAttribute(const CMS_SignerInfo* pSigner, int nNid) {
    const int nAt = CMS_signed_get_attr_by_NID(pSigner, nNid, -1);
    if (nAt < 0) {
        return nullptr;
    }
    X509_ATTRIBUTE* const pAttribute = CMS_signed_get_attr(pSigner, nAt);
    if (CMS_signed_get_attr_by_NID(pSigner, nNid, nAt) >= 0 || X509_ATTRIBUTE_count(pAttribute) != 1) {
        throw Fault(std::string("the time stamp has the signed attribute ") + OBJ_nid2sn(nNid) +
                    " with other than one value" + kUseAnother);
    }
    return X509_ATTRIBUTE_get0_type(pAttribute, 0);
}

void RequireNamed(const CMS_SignerInfo* pSigner, X509* pCertificate) {
    bool bNamed = false;
    for (const int nNid : {NID_id_smime_aa_signingCertificateV2, NID_id_smime_aa_signingCertificate}) {
        if (const ASN1_TYPE* const pValue = SignedAttribute(pSigner, nNid)) {
            bNamed = true;
            if (!NamesCertificate(pValue, nNid, pCertificate)) {
                throw Fault("the signed attributes of the time stamp name another certificate than its signer's" +
                            Who(pCertificate) + kUseAnother);
            }
        }
    }
    if (!bNamed) {
        throw Fault("the signed attributes of the time stamp do not name the signer's certificate" + Who(pCertificate) +
                    kUseAnother);
    }
}

void RequireMeantForTimeStamps(X509* pCertificate) {
    int nCritical = -1;
    const ExtendedUsagePtr usage(
        static_cast<EXTENDED_KEY_USAGE*>(X509_get_ext_d2i(pCertificate, NID_ext_key_usage, &nCritical, nullptr)));
    const bool bAlone = usage && sk_ASN1_OBJECT_num(usage.get()) == 1 &&
                        OBJ_obj2nid(sk_ASN1_OBJECT_value(usage.get(), 0)) == NID_time_stamp;
    if (!bAlone) {
        throw Fault("the certificate of the time stamp's signer" + Who(pCertificate) +
                    " is not meant for time stamps: its extended key usage is not timeStamping alone" + kUseAnother);
    }
    if (nCritical != 1) {
        throw Fault("the extended key usage of the time stamp's signer" + Who(pCertificate) +
                    " is not critical, as RFC 3161 demands" + kUseAnother);
    }
    if (X509_check_purpose(pCertificate, X509_PURPOSE_TIMESTAMP_SIGN, 0) != 1) {
        throw Fault("the certificate of the time stamp's signer" + Who(pCertificate) +
                    " is not meant for time stamps: its key usage is not for signing alone" + kUseAnother);
    }
    const EVP_PKEY* const pKey = X509_get0_pubkey(pCertificate);
    if (pKey == nullptr || EVP_PKEY_get_security_bits(pKey) < kSecurityBits) {
        throw Fault("the key of the time stamp's signer" + Who(pCertificate) + " is too short, or unknown" +
                    kUseAnother);
    }
}

void RequireValidAt(X509* pCertificate, std::time_t nMoment) {
    const std::optional<std::time_t> begin = MomentOf(X509_get0_notBefore(pCertificate));
    const std::optional<std::time_t> end = MomentOf(X509_get0_notAfter(pCertificate));
    if (!begin || !end || nMoment < *begin || nMoment > *end) {
        throw Fault("the certificate of the time stamp's signer" + Who(pCertificate) + " is not valid at " +
                    TextOf(nMoment) + ", the time of the stamp: it is valid from " +
                    (begin ? TextOf(*begin) : "an impossible date") + " to " +
                    (end ? TextOf(*end) : "an impossible date") + kUseAnother);
    }
}

void RequireTrusted(X509* pCertificate, STACK_OF(X509) * pOthers, X509_STORE* pTrusted, std::time_t nMoment) {
    const StoreContextPtr context(RequireMemory(X509_STORE_CTX_new()));
    RequireMemory(X509_STORE_CTX_init(context.get(), pTrusted, pCertificate, pOthers) == 1 &&
                  X509_STORE_CTX_set_purpose(context.get(), X509_PURPOSE_TIMESTAMP_SIGN) == 1);
    X509_VERIFY_PARAM* const pRules = X509_STORE_CTX_get0_param(context.get());
    SetVerifyTime(context.get(), nMoment);
    X509_VERIFY_PARAM_set_auth_level(pRules, kSecurityLevel);
    // What the user trusts is trusted itself, also if it is no root.
    RequireMemory(X509_VERIFY_PARAM_set_flags(pRules, X509_V_FLAG_PARTIAL_CHAIN) == 1);
    if (X509_verify_cert(context.get()) == 1) {
        return;
    }
    const int nError = X509_STORE_CTX_get_error(context.get());
    if (nError == X509_V_ERR_OUT_OF_MEM) {
        throw std::bad_alloc();
    }
    const X509* const pCurrent = X509_STORE_CTX_get_current_cert(context.get());
    throw Fault("the time stamp's signer" + Who(pCertificate) + " leads to no trusted certificate: " +
                X509_verify_cert_error_string(nError) + (pCurrent == nullptr ? "" : Who(pCurrent)) +
                "; add the authority's root certificate to the trusted ones, or use another authority");
}

}  // namespace vextimestamp
