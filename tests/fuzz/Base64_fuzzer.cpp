// The strict Base64 decoder: an accepted text encodes back to the same text.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "signing/Base64.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pbData, std::size_t cbData) {
    const std::string_view text(reinterpret_cast<const char*>(pbData), cbData);
    if (const auto decoded = vextk::DecodeBase64(text)) {
        if (vextk::EncodeBase64(decoded->data(), decoded->size()) != text) {
            std::abort();
        }
    }
    if (vextk::DecodeBase64(vextk::EncodeBase64(pbData, cbData)) !=
        std::vector<unsigned char>(pbData, pbData + cbData)) {
        std::abort();
    }
    return 0;
}
