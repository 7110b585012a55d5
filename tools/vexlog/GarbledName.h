// The natives pass their names as narrow text where the log reads wide text: four letters become one character, which a
// UTF-8 locale writes in five or six bytes. This decodes them.
#pragma once

#include <string>
#include <string_view>

namespace vexlog {

// Whether the text has a byte that can begin a garbled name. Fast.
bool MayBeGarbled(std::string_view text);

// Writes the text to strDecoded, with its garbled parts decoded. False: there are none, and strDecoded is unspecified.
// A garbled part begins with a character beyond Unicode. So a name of one letter, which garbling does not change, or of
// two letters, which become a Unicode character, stays as it is.
bool DecodeGarbled(std::string_view text, std::string& strDecoded);

}  // namespace vexlog
