// Certificates made in memory.
#pragma once

#include <openssl/pem.h>

#include <ctime>
#include <string>

#include "signing/OpenSsl.h"

namespace vextk {

struct MemoryCertificate {
    EVP_PKEY* pKey;
    std::time_t first;  // and last: of its validity, in seconds since 1970
    std::time_t last;
    long nSerial = 1;
    std::string strSubject = {};     // CN; empty: no name
    EVP_PKEY* pIssuerKey = nullptr;  // null: its own
    std::string strIssuer = {};
    bool bAuthority = false;
};

inline void SetName(X509_NAME* pName, const std::string& strCommonName) {
    if (!strCommonName.empty()) {
        X509_NAME_add_entry_by_txt(pName, "CN", MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>(strCommonName.c_str()), -1, -1, 0);
    }
}

inline X509Ptr Make(const MemoryCertificate& parts) {
    X509Ptr certificate(X509_new());
    X509* const pCertificate = certificate.get();
    X509_set_version(pCertificate, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(pCertificate), parts.nSerial);
    ASN1_TIME_set(X509_getm_notBefore(pCertificate), parts.first);
    ASN1_TIME_set(X509_getm_notAfter(pCertificate), parts.last);
    SetName(X509_get_subject_name(pCertificate), parts.strSubject);
    SetName(X509_get_issuer_name(pCertificate), parts.pIssuerKey == nullptr ? parts.strSubject : parts.strIssuer);
    X509_set_pubkey(pCertificate, parts.pKey);
    if (parts.bAuthority) {
        const ExtensionPtr authority(X509V3_EXT_conf_nid(nullptr, nullptr, NID_basic_constraints, "critical,CA:TRUE"));
        X509_add_ext(pCertificate, authority.get(), -1);
    }
    X509_sign(pCertificate, parts.pIssuerKey == nullptr ? parts.pKey : parts.pIssuerKey, EVP_sha256());
    return certificate;
}

}  // namespace vextk
