// Checks a time-stamp token (RFC 3161 section 2.4.2, RFC 5816). Any thread.
#pragma once

#include <openssl/x509.h>

#include <ctime>
#include <span>
#include <string>

#include "timestamp/Fault.h"
#include "timestamp/Request.h"

namespace vextimestamp {

struct TokenFacts {
    std::time_t time = 0;
    std::string strAuthority;  // the subject of the signer's certificate, RFC 4514
    std::string strPolicy;     // dotted
    std::string strSerial;     // hexadecimal
    std::string strDigest;     // OpenSSL's name
};

// Throws Fault unless the token is a good time stamp of the signature value: one signer, whose certificate is in the
// token, named by the signed attributes, meant for time stamps alone and valid at the token's time.
// pTrusted: the certificate must lead to one of these at that time; null: anybody can have made the token.
// pRequest: the token must answer this request; null: any token that fits the signature value.
TokenFacts CheckToken(std::span<const unsigned char> token, std::span<const unsigned char> signatureValue,
                      X509_STORE* pTrusted, const Request* pRequest);

}  // namespace vextimestamp
