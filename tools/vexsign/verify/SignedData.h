// Verifies a P7: a CMS SignedData, RFC 5652.
#pragma once

#include <string_view>

#include "Certificate.h"
#include "Content.h"
#include "Report.h"

namespace vexsign::verify {

// Fills the report except its name, kind and moment. pContent: the FILE given by the user, read once; null: none.
// Throws std::runtime_error if the content cannot be read. A signature of several signers is good if each of them is.
void VerifySignedData(std::string_view bytes, const Settings& settings, const Reader* pContent, Report& report);

}  // namespace vexsign::verify
