// The natives pass their names as narrow text where the log reads wide text: four letters become one character, which a
// UTF-8 locale writes in five or six bytes. This reads them back.
#pragma once

#include <string>
#include <string_view>

namespace vexlog {

// Whether the text has bytes in which a garbled name can begin. Fast.
bool MayBeGarbled(std::string_view text);

// The text with its garbled parts decoded, in strDecoded, which is overwritten. False: there are none, and strDecoded
// is unspecified. A garbled part has at least one character beyond Unicode, so that a name of one letter (which is not
// changed by garbling) or two (which is one of Unicode's characters) stays as it is.
bool DecodeGarbled(std::string_view text, std::string& strDecoded);

}  // namespace vexlog
