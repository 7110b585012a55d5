// The form of a CMS SignedData (RFC 5652): what OpenSSL's parser hides, so that verifiers could read it differently.
#pragma once

#include <stdexcept>
#include <string_view>
#include <vector>

namespace vexsign::verify {

// The bytes are no signature that can be checked; what() says why.
struct BadForm : std::runtime_error {
    using std::runtime_error::runtime_error;
};

inline constexpr std::size_t kMostSigners = 16;

struct SignerForm {
    bool bHasAttributes = false;
    bool bAttributesAreDer = false;  // as RFC 5652 section 5.3 demands
};

// One for each SignerInfo, in the order of the bytes. Outside of the signed attributes, BER is allowed. Throws BadForm
// if the bytes are something else, have more behind their end, or more than kMostSigners signers.
std::vector<SignerForm> FormOf(std::string_view bytes);

}  // namespace vexsign::verify
