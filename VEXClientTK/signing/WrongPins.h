// PINs that tokens have refused, so that no loop of a host shows one to a token again until the token locks itself.
#pragma once

#include <string>
#include <string_view>

namespace vextk {

// Of the whole process, children that it forks included. Keeps a keyed digest, not the PIN. Any thread may call both.
void RememberWrongPin(const std::string& strToken, std::string_view pin);
bool IsKnownWrongPin(const std::string& strToken, std::string_view pin);

}  // namespace vextk
