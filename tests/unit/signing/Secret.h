// Makes a text such as the toolkit holds PINs in.
#pragma once

#include <string_view>

#include "signing/SecretText.h"

namespace vextk {

inline SecretText Secret(std::string_view text) {
    SecretText secret(text.size());
    for (const char ch : text) {
        secret.Append(ch);
    }
    return secret;
}

}  // namespace vextk
