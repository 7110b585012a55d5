// The options that ask for a time stamp: those of p7 and of stamp.
#pragma once

#include "TimeStamps.h"
#include "common/CliApp.h"

namespace vexsign {

// bRequired: the command needs an authority.
void AddTimeStampOptions(CLI::App& app, TimeStamps& timeStamps, bool bRequired);

}  // namespace vexsign
