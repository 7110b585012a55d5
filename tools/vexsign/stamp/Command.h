// The command "vexsign stamp". It uses OpenSSL and no toolkit.
#pragma once

#include "Options.h"

namespace vexsign::stamp {

// Writes the stamped signature, whole or not at all. Throws std::runtime_error if the signature cannot be read, no
// authority stamps it, or the output cannot be written.
void Run(const Options& options);

}  // namespace vexsign::stamp
