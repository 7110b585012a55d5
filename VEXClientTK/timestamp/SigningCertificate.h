// The signed attributes by which a signer names its certificate: signingCertificate (RFC 2634 section 5.4) and
// signingCertificateV2 (RFC 5035). Any thread.
#pragma once

#include "timestamp/OpenSsl.h"

namespace vextimestamp {

// Whether the attribute's value names this certificate as the signer's. The value may name others behind it, those of
// issuers, which nobody needs to have. nNid: NID_id_smime_aa_signingCertificate or
// NID_id_smime_aa_signingCertificateV2. May leave errors in OpenSSL's queue.
bool NamesCertificate(const ASN1_TYPE* pValue, int nNid, X509* pCertificate);

}  // namespace vextimestamp
