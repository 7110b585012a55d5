// The text of a profile ("ini") file. Pure, so that any text can be tried on it.
#pragma once

#include <optional>
#include <string_view>

#include "VEXType.h"

namespace vextk {

// The integer of the first key of that name in the first section of that name; names compare without regard to case.
// Nothing: no such key, or it has no value.
//
// Lines end in LF or CR LF. Blanks around names and values do not count, nor do lines that begin with ; or #. The value
// runs to the end of its line and may stand in a pair of quotes. Its number is an optional sign and the decimal digits
// that follow, modulo 2^32; what comes after them does not count, and a value that does not begin so is 0.
std::optional<UINT> FindProfileInteger(std::string_view text, std::string_view strSection,
                                       std::string_view strKey) noexcept;

}  // namespace vextk
