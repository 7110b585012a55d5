// Keeps vexsign from overwriting its inputs.
#pragma once

#include "Options.h"

namespace vexsign {

// Call this before anything is opened. Throws std::runtime_error if an output, or a file that the printed command
// writes, is the input, the store, the PIN's file, the chain's or the trusted authorities' file, a token's module or
// another output. Compares files by device and inode, through links too; a file that does not exist yet, by its path.
void RefuseDangerousOutputs(const Options& options);

}  // namespace vexsign
