// How others verify what was signed.
#pragma once

#include <string>
#include <vector>

#include "Options.h"

namespace vexsign {

// A command for sh, to be run where this program ran; it ends with 0 when the signature is good and of the file.
// strCertificate: the signer's, DER; empty when it is not written.
std::string VerifyHint(const Options& options, const std::string& strCertificate);

// The files that the command writes.
std::vector<std::string> FilesOfHint(const Options& options);

}  // namespace vexsign
