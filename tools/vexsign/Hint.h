// How others verify what was signed.
#pragma once

#include <string>

#include "Options.h"

namespace vexsign {

// A command for sh, to be run where this program ran; it ends with 0 when the signature is good and of the file.
std::string VerifyHint(const Options& options);

}  // namespace vexsign
