// Checks the certificate of a time-stamp authority. Any thread.
#pragma once

#include <ctime>
#include <string>

#include "timestamp/Fault.h"
#include "timestamp/OpenSsl.h"

namespace vextimestamp {

// The subject as RFC 4514 has it; a text that says so if OpenSSL cannot show it.
std::string SubjectText(const X509* pCertificate);

// The signed attribute signingCertificate or signingCertificateV2 must name the certificate; both, if both are there.
void RequireNamed(const CMS_SignerInfo* pSigner, X509* pCertificate);

// Extended key usage timeStamping alone and critical (RFC 3161 section 2.3), a key usage for signing, a long enough
// key.
void RequireMeantForTimeStamps(X509* pCertificate);

void RequireValidAt(X509* pCertificate, std::time_t nMoment);

// The path from the certificate to a trusted one, at that moment. pOthers: certificates that may be on it; may be null.
void RequireTrusted(X509* pCertificate, STACK_OF(X509) * pOthers, X509_STORE* pTrusted, std::time_t nMoment);

// The only value of the only attribute of this kind. Null: there is none. Throws Fault if there are several.
const ASN1_TYPE* SignedAttribute(const CMS_SignerInfo* pSigner, int nNid);

}  // namespace vextimestamp
