// Verifies a P1: a signature without certificate, content and algorithm.
#pragma once

#include <string_view>

#include "Certificate.h"
#include "Content.h"
#include "Report.h"

namespace vexsign::verify {

// Whether --digest can be such a name: [prehashed: is none] NAME[/PSS].
bool IsDigestName(const std::string& strName);

// Fills the report except its name, kind and moment. The certificate is the only one of settings.signers. Without
// settings.strDigest all known digests are tried. Throws std::runtime_error if the content cannot be read.
void VerifyBareSignature(std::string_view signature, const Settings& settings, const Reader* pContent, Report& report);

}  // namespace vexsign::verify
