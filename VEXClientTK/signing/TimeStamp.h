// Time stamps (RFC 3161) on P7 signatures, as the store URI asks for them.
#pragma once

#include <span>

#include "signing/Identity.h"
#include "signing/SigningKey.h"
#include "signing/StoreUri.h"
#include "timestamp/Stamp.h"

namespace vextk {

// trusted: an authority's certificate has to lead to one of these, or be one; none: no path is checked. Throws
// VCTK_E_DIGEST_UNKNOWN, VCTK_E_DIGEST_WEAK, or VCTK_E_URI_MALFORMED for an address that nobody can ask.
vextimestamp::Settings MakeStampSettings(const StampUri& uri, const Identities& trusted);

// Returns the CMS signature with a stamp from one of the authorities. Throws VCTK_E_TIMESTAMP.
Bytes AddStamp(std::span<const unsigned char> cms, const vextimestamp::Settings& settings);

// The work of a stamp: store. data are DER elements one behind the other. A CMS signature alone: returns it with a
// stamp, or if there are no authorities, the request that the caller has to send to one. The signature, that request
// and the authority's reply: returns the signature with the stamp. Throws VCTK_E_INVALID_ARGUMENT or VCTK_E_TIMESTAMP.
Bytes StampOrRequest(std::span<const unsigned char> data, const vextimestamp::Settings& settings);

}  // namespace vextk
