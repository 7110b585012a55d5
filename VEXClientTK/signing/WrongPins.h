// Remembers the PINs that tokens have refused. Otherwise a host that tries one in a loop would lock the token.
#pragma once

#include <string>
#include <string_view>

namespace vextk {

// strWholeName identifies the token and what of it the PIN opens.
//
// Both work for the whole process, and its forked children inherit the PINs. Only a keyed digest of a PIN is kept. Any
// thread may call them.
void RememberWrongPin(const std::string& strWholeName, std::string_view pin);
bool IsKnownWrongPin(const std::string& strWholeName, std::string_view pin);

}  // namespace vextk
