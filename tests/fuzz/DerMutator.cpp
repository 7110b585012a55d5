// libFuzzer's mutator for inputs of one byte and DER behind it.
#include "DerMutation.h"

extern "C" std::size_t LLVMFuzzerCustomMutator(unsigned char* pbData, std::size_t cbData, std::size_t cbMost,
                                               unsigned nSeed) {
    return MutateInput(pbData, cbData, cbMost, nSeed);
}

extern "C" std::size_t LLVMFuzzerCustomCrossOver(const unsigned char* pbFirst, std::size_t cbFirst,
                                                 const unsigned char* pbSecond, std::size_t cbSecond,
                                                 unsigned char* pbOut, std::size_t cbMost, unsigned nSeed) {
    return CrossInputs({reinterpret_cast<const char*>(pbFirst), cbFirst},
                       {reinterpret_cast<const char*>(pbSecond), cbSecond}, pbOut, cbMost, nSeed);
}
