#include "crypto/VerifyTime.h"

#include "crypto/Values.h"

namespace vexcrypto {
namespace {

int AcceptLastSecond(int nOk, X509_STORE_CTX* pContext) {
    const X509* const pCertificate = X509_STORE_CTX_get_current_cert(pContext);
    if (nOk == 1 || X509_STORE_CTX_get_error(pContext) != X509_V_ERR_CERT_HAS_EXPIRED ||
        MomentOf(X509_get0_notAfter(pCertificate)) != X509_VERIFY_PARAM_get_time(X509_STORE_CTX_get0_param(pContext))) {
        return nOk;
    }
    X509_STORE_CTX_set_error(pContext, X509_V_OK);
    return 1;
}

}  // namespace

void SetVerifyTime(X509_STORE_CTX* pContext, std::time_t nMoment) {
    X509_VERIFY_PARAM_set_time(X509_STORE_CTX_get0_param(pContext), nMoment);
    X509_STORE_CTX_set_verify_cb(pContext, AcceptLastSecond);
}

}  // namespace vexcrypto
