// What the vector registers hold.
#pragma once

#include <array>
#include <cstring>
#include <string_view>

// The registers' bytes, one after the other. Without AVX-512, the lower half of the first 16; the rest is zero.
struct VectorRegisters {
    static constexpr size_t kWidth = 64;
    alignas(kWidth) std::array<char, 32 * kWidth> bytes{};

    bool Contain(std::string_view pattern) const {
        return std::string_view(bytes.data(), bytes.size()).find(pattern) != std::string_view::npos;
    }
};

[[gnu::noinline, gnu::target("avx512f")]] inline void ReadAllVectorRegisters(char* pBytes) {
    asm volatile(
        ".irp n, 0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,26,27,28,29,30,31\n\t"
        "vmovdqu64 %%zmm\\n, 64*\\n(%0)\n\t"
        ".endr" ::"r"(pBytes)
        : "memory");
}

[[gnu::noinline, gnu::target("avx512f")]] inline void LoadAllVectorRegisters(const char* pBytes) {
    asm volatile(
        ".irp n, 0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,26,27,28,29,30,31\n\t"
        "vmovdqu64 64*\\n(%0), %%zmm\\n\n\t"
        ".endr" ::"r"(pBytes)
        : "memory", "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8", "xmm9", "xmm10", "xmm11",
          "xmm12", "xmm13", "xmm14", "xmm15", "xmm16", "xmm17", "xmm18", "xmm19", "xmm20", "xmm21", "xmm22", "xmm23",
          "xmm24", "xmm25", "xmm26", "xmm27", "xmm28", "xmm29", "xmm30", "xmm31");
}

[[gnu::noinline]] inline void ReadLowVectorRegisters(char* pBytes) {
    asm volatile(
        ".irp n, 0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15\n\t"
        "movdqu %%xmm\\n, 64*\\n(%0)\n\t"
        ".endr" ::"r"(pBytes)
        : "memory");
}

[[gnu::noinline]] inline void LoadLowVectorRegisters(const char* pBytes) {
    asm volatile(
        ".irp n, 0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15\n\t"
        "movdqu 64*\\n(%0), %%xmm\\n\n\t"
        ".endr" ::"r"(pBytes)
        : "memory", "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8", "xmm9", "xmm10", "xmm11",
          "xmm12", "xmm13", "xmm14", "xmm15");
}

// Runs an action that leaves something in the registers, and reads them before other code uses them.
template <typename Action>
VectorRegisters RegistersAfter(Action action) {
    VectorRegisters registers;
    if (__builtin_cpu_supports("avx512f")) {
        action();
        ReadAllVectorRegisters(registers.bytes.data());
    } else {
        action();
        ReadLowVectorRegisters(registers.bytes.data());
    }
    return registers;
}

// Fills all vector registers with one byte.
inline void FillVectorRegisters(char chByte) {
    VectorRegisters registers;
    registers.bytes.fill(chByte);
    if (__builtin_cpu_supports("avx512f")) {
        LoadAllVectorRegisters(registers.bytes.data());
    } else {
        LoadLowVectorRegisters(registers.bytes.data());
    }
}
