// Makes the demo store's keys and certificates.
#pragma once

#include <ctime>

#include "signing/OpenSsl.h"

namespace vextk {

// A memory BIO with two private keys (PKCS #8, not encrypted) and their self-signed certificates as PEM, valid from a
// little before now for two years. Its memory is wiped when it is freed.
BioPtr MakeDemoCertificates(std::time_t now);

}  // namespace vextk
