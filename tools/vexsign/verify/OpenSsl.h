// What the verification uses of OpenSSL's objects and errors.
#pragma once

#include <new>
#include <string>

#include "crypto/Errors.h"
#include "crypto/Owned.h"

namespace vexsign::verify {

using namespace vexcrypto;

// The reason of the newest error of this thread, "unknown reason" if there is none. Empties the queue. Throws
// std::bad_alloc if memory ran out: that says nothing about the signature.
inline std::string TakeReason() {
    const unsigned long ulError = ERR_peek_last_error();
    ERR_clear_error();
    if (ERR_GET_REASON(ulError) == ERR_R_MALLOC_FAILURE) {
        throw std::bad_alloc();
    }
    const char* const pszReason = ulError == 0 ? nullptr : ERR_reason_error_string(ulError);
    return pszReason == nullptr ? "unknown reason" : pszReason;
}

inline CertificatesPtr NewCertificates() {
    return CertificatesPtr(RequireMemory(sk_X509_new_null()));
}

// The list shares the certificate.
inline void AddCertificate(STACK_OF(X509) * pStack, X509* pCertificate) {
    X509_up_ref(pCertificate);
    X509Ptr shared(pCertificate);
    RequireMemory(sk_X509_push(pStack, pCertificate) > 0);
    static_cast<void>(shared.release());
}

}  // namespace vexsign::verify
