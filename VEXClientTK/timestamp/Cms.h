// Time stamps as attributes of a CMS signature (RFC 3161 appendix A). Any thread.
//
// Those that take bytes throw Fault if these are not a CMS SignedData of one signer, or have something behind their
// end.
#pragma once

#include <openssl/cms.h>

#include <span>
#include <vector>

#include "timestamp/Fault.h"

namespace vextimestamp {

// What a time stamp proves: the signer's signature value.
Bytes SignatureValueOf(std::span<const unsigned char> cms);

// The same signature, in DER, with the token as one more unsigned attribute. Throws Fault if what was signed would not
// stay as it is: the signed attributes are not in DER.
Bytes WithToken(std::span<const unsigned char> cms, std::span<const unsigned char> token);

// The tokens of all time stamps of the signature value, unchecked. DER sorts them by their bytes. Throws Fault if one
// is no sequence.
std::vector<Bytes> TokensOf(std::span<const unsigned char> cms);

// The same of one signer, who keeps them. Null: one that is no sequence.
std::vector<const ASN1_STRING*> TokensOf(const CMS_SignerInfo* pSigner);

}  // namespace vextimestamp
