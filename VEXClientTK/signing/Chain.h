// Finds the certificates that lead from a signer's certificate to a root.
#pragma once

#include <ctime>
#include <map>

#include "signing/Identity.h"
#include "signing/Period.h"

namespace vextk {

// Certificates that may issue others, by a number that equal names have in common. Those of one name are in order.
using Authorities = std::multimap<unsigned long, IdentityPtr>;

// The authorities among the certificates.
Authorities SelectAuthorities(const Identities& certificates);

struct Chain {
    Identities issuers;  // the signer's issuer first; a root is the last. Empty: no valid chain was found
    bool bHasRoot = false;
    Period period;  // as long as the answer holds
};

// The shortest chain that is valid now (RFC 5280 section 6.1) and ends with a self-signed certificate. If there is
// none, the shortest valid one that ends because its last issuer is not among the authorities. There is never a second
// chain beside it: OpenSSL and GnuTLS follow only the first issuer that they find. Names, key identifiers and
// signatures decide who issued a certificate. Order: that of the authorities decides between chains of one length.
Chain FindChain(const IdentityPtr& signer, const Authorities& authorities, std::time_t now);

// Whether the certificate may issue others.
bool IsAuthority(const Identity& identity);

}  // namespace vextk
