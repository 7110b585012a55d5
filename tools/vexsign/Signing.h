// Signs the input.
#pragma once

#include <string>
#include <vector>

#include "Options.h"
#include "Toolkit.h"

namespace vexsign {

// A signature as it is written.
struct Signature {
    std::vector<std::string> pieces;
    bool bAsBase64 = false;  // the pieces are bytes, and are written as one line of Base64
};

// Reads the input once and sets the object's digest. Where it can, it hashes the input while it reads and has the
// digest signed: a detached signature needs no memory for the data, an attached one holds the data once. Otherwise the
// toolkit gets the data: with --text, for keys that sign data only as a whole, and if the toolkit does not know
// "prehashed:" before the digest's name. Throws ToolkitError, or std::runtime_error with the input's name.
Signature SignInput(SigningObject& object, const Options& options);

}  // namespace vexsign
