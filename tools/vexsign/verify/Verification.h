// Verifies a signature, whatever its form.
#pragma once

#include <string>

#include "Certificate.h"
#include "Content.h"
#include "Report.h"

namespace vexsign::verify {

// file: the bytes of the signature's file. pContent: the FILE given by the user, read at most once; null: none. Fills
// all of the report except strSignature. Throws std::runtime_error if the content cannot be read.
Report Verify(std::string file, const Settings& settings, const Reader* pContent);

}  // namespace vexsign::verify
