// A token that answers as an input says: with right answers, with wrong ones, and with none.
#pragma once

#include <p11-kit/pkcs11.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace lyingtoken {

// The functions of its module.
CK_FUNCTION_LIST* Functions();

// The answers of the next calls. Where they end, the token is an honest one with four certificates and their keys. With
// bRepeat they begin anew in place of an end.
void SetAnswers(std::span<const std::uint8_t> answers, bool bRepeat);

// The calls since then.
std::size_t CallCount();

}  // namespace lyingtoken
