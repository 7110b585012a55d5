// Builds DER for tests, right or wrong.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// An element of DER with a definite length.
inline std::string Tlv(unsigned char uTag, std::string_view body) {
    std::string strLength;
    if (body.size() < 0x80) {
        strLength = static_cast<char>(body.size());
    } else {
        for (std::size_t cb = body.size(); cb > 0; cb >>= 8U) {
            strLength.insert(strLength.begin(), static_cast<char>(cb & 0xFFU));
        }
        strLength.insert(strLength.begin(), static_cast<char>(0x80U | strLength.size()));
    }
    return std::string(1, static_cast<char>(uTag)) + strLength + std::string(body);
}
