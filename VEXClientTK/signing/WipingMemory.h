// Wipes the memory that OpenSSL frees, and notices when OpenSSL gets none.
#pragma once

#include <cstdint>

namespace vextk {

// From now on, all memory that OpenSSL frees in this process is wiped first. OpenSSL itself wipes most secrets, but not
// all: the input of its decoders for private keys, and the PIN in the key derivation of PKCS #12, stay in freed
// memory. Has no effect once OpenSSL has allocated memory, because OpenSSL then allows no change.
void WipeWhatOpenSslFrees();

// How often OpenSSL has asked for memory and got none, in all threads. 0 if the function above has no effect.
std::uint64_t RefusedAllocations() noexcept;

}  // namespace vextk
