// Finds values in the text of a profile ("ini") file. It opens no file, so that tests can try any text.
#pragma once

#include <optional>
#include <string_view>

#include "VEXType.h"

namespace vextk {

// The integer of the first key of that name in the first section of that name. Names are compared without regard to
// case. Nothing: there is no such key, or it has no value.
//
// Lines end in LF or CR LF. Blanks around names and values are ignored, and so are lines that begin with ; or #. The
// value ends with its line and may stand in a pair of quotes. Its number is an optional sign and the decimal digits
// after it, modulo 2^32. The rest of the value is ignored. A value without such digits at its beginning is 0.
std::optional<UINT> FindProfileInteger(std::string_view text, std::string_view strSection,
                                       std::string_view strKey) noexcept;

}  // namespace vextk
