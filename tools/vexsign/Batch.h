// Signs many files with one signing object.
#pragma once

#include "Options.h"
#include "Toolkit.h"

namespace vexsign {

// Signs each input into options.strOutputDirectory. Goes on after a failure, which it prints with the input's name.
// False: at least one file was not signed.
bool SignFiles(SigningObject& object, const Options& options);

}  // namespace vexsign
