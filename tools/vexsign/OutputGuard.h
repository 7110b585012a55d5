// Keeps vexsign from destroying what it reads.
#pragma once

#include "Options.h"

namespace vexsign {

// To be called before anything is opened. Throws std::runtime_error when an output, or a file that the printed command
// writes, is the input, the store, the PIN's file, a token's module or another output: by device and inode, through
// links too, or by its place when it is not there yet.
void RefuseDangerousOutputs(const Options& options);

}  // namespace vexsign
