// The request for a time stamp (RFC 3161 section 2.4.1). Any thread.
#pragma once

#include <span>
#include <string>

#include "timestamp/Fault.h"

namespace vextimestamp {

struct Wanted {
    std::string strDigest = "SHA256";  // one of 256 bits or more, by a name of OpenSSL
    std::string strPolicy;             // an object identifier in dotted form; empty: any
};

struct Request {
    Bytes der;
    Bytes imprint;          // the digest of the signature value
    std::string strDigest;  // OpenSSL's name
    Bytes nonce;            // a positive number, big-endian, without leading zeros
    std::string strPolicy;
};

// Asks for the authority's certificate, and has a new nonce. Throws Fault if the digest or the policy is none.
Request MakeRequest(std::span<const unsigned char> signatureValue, const Wanted& wanted);

// The reverse. Throws Fault if the bytes are not a request as MakeRequest makes them.
Request ReadRequest(std::span<const unsigned char> der);

}  // namespace vextimestamp
