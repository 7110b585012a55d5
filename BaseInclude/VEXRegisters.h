// Removes secrets from the processor's registers.
#pragma once

// Registers 16 to 31, which only processors with AVX-512 have.
[[gnu::noinline, gnu::target("avx512f")]] inline void ClearHighVectorRegisters() noexcept {
    asm volatile(
        ".irp n, 16,17,18,19,20,21,22,23,24,25,26,27,28,29,30,31\n\t"
        "vpxord %%zmm\\n, %%zmm\\n, %%zmm\\n\n\t"
        ".endr" ::
            : "xmm16", "xmm17", "xmm18", "xmm19", "xmm20", "xmm21", "xmm22", "xmm23", "xmm24", "xmm25", "xmm26",
              "xmm27", "xmm28", "xmm29", "xmm30", "xmm31");
}

// Clears all vector registers. Call it after text that may hold a secret was copied: libc copies through these
// registers, also through those that compiled code does not use, and the text stays there. The dynamic linker saves the
// registers on the stack when a library calls a function for the first time, and a new thread starts with a copy of the
// registers of the thread that made it. Any thread may call this at any time.
[[gnu::noinline]] inline void ClearVectorRegisters() noexcept {
    if (__builtin_cpu_supports("avx512f")) {
        ClearHighVectorRegisters();
    }
    if (__builtin_cpu_supports("avx")) {
        asm volatile("vzeroall" ::
                         : "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8", "xmm9", "xmm10",
                           "xmm11", "xmm12", "xmm13", "xmm14", "xmm15");
    } else {
        asm volatile(
            ".irp n, 0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15\n\t"
            "pxor %%xmm\\n, %%xmm\\n\n\t"
            ".endr" ::
                : "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8", "xmm9", "xmm10", "xmm11",
                  "xmm12", "xmm13", "xmm14", "xmm15");
    }
}
