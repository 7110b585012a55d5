// OpenSSL's memory without a memory: what it frees is wiped.
#pragma once

namespace vextk {

// From now on all that OpenSSL frees in this process is overwritten first. OpenSSL itself does so with most secrets but
// not with all: what its decoders read a private key from, and the PIN in the key derivation of PKCS #12, stay in freed
// memory. To be called before OpenSSL has allocated anything; later it has no effect, for OpenSSL allows no change
// then.
void WipeWhatOpenSslFrees();

}  // namespace vextk
