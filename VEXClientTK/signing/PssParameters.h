// The parameters of RSASSA-PSS in certificates and signatures, RFC 4055 section 3.1.
#pragma once

#include "signing/OpenSsl.h"

namespace vextk {

// Throws VCTK_E_SIGN_FAILED if the certificate has an RSA key for RSASSA-PSS alone and does not allow this digest, in
// the signature and in MGF1, with a salt of its length.
void RequirePssAllowed(const X509* pCertificate, const EVP_MD* pDigest);

// Names RSASSA-PSS with this digest as the algorithm of a signature.
void SetPssAlgorithm(X509_ALGOR* pAlgorithm, const EVP_MD* pDigest);

}  // namespace vextk
