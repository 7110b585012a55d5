// The names of the signatures in the directory of --output-dir.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "Options.h"

namespace vexsign {

// ".p1" or ".p7s".
const char* SignatureSuffix(Command command);

// The file for the signature of this input: DIR/NAME.p7s for "folder/NAME".
std::string SignatureFile(const Options& options, const std::string& strInput);

// Two inputs whose signatures would have the same name.
std::optional<std::pair<std::string, std::string>> SameSignatureFile(const Options& options);

}  // namespace vexsign
