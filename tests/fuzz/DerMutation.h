// Changes DER for the fuzzer: elements are changed, copied, moved and removed, and the lengths around them fit again.
// Otherwise nearly every change would end in the reader of lengths. Only for programs with libFuzzer.
#pragma once

#include <random>
#include <string>

#include "DerTree.h"

using Random = std::minstd_rand;

// One of 0 to n - 1; n is not 0.
std::size_t Pick(Random& random, std::size_t n);

// The bytes, changed by libFuzzer itself. May grow by some bytes.
std::string MutateBytes(std::string strBytes, unsigned nSeed);

// Changes one to four places.
void MutateDer(DerNodes& nodes, Random& random);

// Puts an element of others at the place of one, or beside it.
void CrossDer(DerNodes& nodes, const DerNodes& others, Random& random);

// Makes numbers of two to four bytes small, except the usual exponent of RSA. They are counts of iterations, and would
// only cost time.
void LimitNumbers(DerNodes& nodes);

// Copies the result to a fuzzer's buffer. Returns its size; 0: there is no room.
std::size_t CopyOut(const std::string& strBytes, unsigned char* pbData, std::size_t cbMost);

// What is done with DER before it becomes an input.
using FinishDer = std::string (*)(std::string strDer, unsigned char uChoice, Random& random);

// For inputs of one byte and DER behind it: what LLVMFuzzerCustomMutator and LLVMFuzzerCustomCrossOver do.
std::size_t MutateInput(unsigned char* pbData, std::size_t cbData, std::size_t cbMost, unsigned nSeed,
                        FinishDer finish = nullptr);
std::size_t CrossInputs(std::string_view first, std::string_view second, unsigned char* pbOut, std::size_t cbMost,
                        unsigned nSeed, FinishDer finish = nullptr);
