// An EC key and its certificate, made in memory.
#pragma once

#include "signing/OpenSsl.h"

namespace vextk {

struct SelfSigned {
    KeyPtr key{EVP_EC_gen("P-256")};
    X509Ptr certificate{X509_new()};

    SelfSigned() {
        X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
        X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 1000);
        X509_set_pubkey(certificate.get(), key.get());
        X509_sign(certificate.get(), key.get(), EVP_sha256());
    }
};

}  // namespace vextk
