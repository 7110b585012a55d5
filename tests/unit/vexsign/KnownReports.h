// What reports say, compared with files that hold it for each test case.
#pragma once

#include <string>

#include "vexsign/verify/Report.h"

namespace vexsign::verify {

// Compares the checks with the section of the current test in the file. Checks that passed or were left out are in it
// only if the signature is good. "<moment>" stands for a moment since 2025.
void ExpectKnownReport(const Report& report, const std::string& strFile);

}  // namespace vexsign::verify
