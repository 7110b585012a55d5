// The openssl command that verifies a signature.
#pragma once

#include <string>
#include <vector>

#include "Options.h"

namespace vexsign {

// A command for sh. Run in this program's directory, it exits with 0 if the signature is valid for the file.
// strCertificate: the signer's certificate as DER; empty if it is not written to a file.
std::string VerifyHint(const Options& options, const std::string& strCertificate);

// The files that the command writes.
std::vector<std::string> FilesOfHint(const Options& options);

}  // namespace vexsign
