// The signer's certificate: what it says, and whether it may be believed.
#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "OpenSsl.h"
#include "Report.h"

namespace vexsign::verify {

// What the user trusts, and the rules.
struct Settings {
    Trust trust = Trust::kSystem;
    StorePtr store;            // null with Trust::kNone
    StorePtr stampStore;       // who is trusted for time stamps; null: the same
    CertificatesPtr signers;   // nobody else may have signed; null: the user names nobody
    CertificatesPtr issuers;   // they may lead to a trusted one, and are not trusted themselves; null: none
    std::time_t nMoment = 0;   // for which certificates must be valid
    bool bAnyPurpose = false;  // extended key usages do not matter
    std::string strDigest;     // of a P1; empty: every digest is tried
};

// The trusted certificates: the system's or those of the files. Throws std::runtime_error with the file's name.
StorePtr SystemStore();
StorePtr StoreOfFiles(const std::vector<std::string>& files);

// Adds the certificates of a file that names a signer: the first is the signer's, the others may be those of issuers.
void AddSigner(const CertificatesPtr& file, Settings& settings);

CertificateFacts FactsOf(X509* pCertificate);

// Checks usage, and at this moment validity and chain. others: certificates that may lead to a trusted one; they are
// not trusted themselves; may be null.
void CheckCertificate(X509* pCertificate, STACK_OF(X509) * pOthers, const Settings& settings, std::time_t nMoment,
                      SignerReport& signer);

}  // namespace vexsign::verify
