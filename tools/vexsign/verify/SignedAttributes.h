// The signed attributes of a CMS signature, RFC 5652 section 11 and RFC 5035.
#pragma once

#include <ctime>
#include <string>

#include "OpenSsl.h"
#include "Report.h"
#include "SignedDataForm.h"

namespace vexsign::verify {

// Checks the attributes that every signature must have, and those that say when it was made. Returns the message
// digest; empty if the attributes do not have exactly one.
std::string CheckAttributes(const CMS_ContentInfo* pCms, const CMS_SignerInfo* pInfo, const SignerForm& form,
                            SignerReport& signer);

// Whether the attributes name this certificate (signing-certificate, signing-certificate-v2), so that nobody can
// replace it with another one of the same key.
void CheckBinding(const CMS_SignerInfo* pInfo, X509* pCertificate, SignerReport& signer);

// Whether the signing time that the signer claims fits the certificate, and the moment for which it is checked.
// bStamped: a time stamp proves this moment. Only after CheckAttributes.
void CheckTime(const CMS_SignerInfo* pInfo, X509* pCertificate, std::time_t nMoment, bool bStamped,
               SignerReport& signer);

}  // namespace vexsign::verify
