// The options that ask for a time stamp: those of p7 and of stamp.
#pragma once

#include "TimeStamps.h"

// Most files that include this need no more of it, and the whole of CLI11 takes a compiler seconds.
namespace CLI {
class App;
}  // namespace CLI

namespace vexsign {

// bRequired: the command needs an authority.
void AddTimeStampOptions(CLI::App& app, TimeStamps& timeStamps, bool bRequired);

}  // namespace vexsign
