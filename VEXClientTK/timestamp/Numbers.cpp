#include "timestamp/Numbers.h"

namespace vextimestamp {

std::optional<Bytes> PositiveBytes(const ASN1_INTEGER* pNumber) {
    if (pNumber == nullptr) {
        return std::nullopt;
    }
    const BignumPtr number(RequireMemory(ASN1_INTEGER_to_BN(pNumber, nullptr)));
    if (BN_is_negative(number.get()) != 0 || BN_is_zero(number.get())) {
        return std::nullopt;
    }
    Bytes bytes(static_cast<std::size_t>(BN_num_bytes(number.get())));
    BN_bn2bin(number.get(), bytes.data());
    return bytes;
}

View ViewOf(const ASN1_STRING* pString) {
    return {ASN1_STRING_get0_data(pString), static_cast<std::size_t>(ASN1_STRING_length(pString))};
}

}  // namespace vextimestamp
