// The amount of work of a test of large numbers, and the seed of its random choices.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>

// The number in the environment variable, which a long run sets, or else the default.
inline long AmountOf(const char* pszVariable, long nDefault) {
    const char* const pszAmount = std::getenv(pszVariable);
    return pszAmount != nullptr ? std::strtol(pszAmount, nullptr, 10) : nDefault;
}

// The seed of the whole process: the environment variable VEX_TEST_SEED or else a new one. Prints it once, so that a
// failure can be repeated.
inline std::uint32_t SeedOfRun() {
    static const std::uint32_t s_uSeed = [] {
        const char* const pszSeed = std::getenv("VEX_TEST_SEED");
        const auto uSeed = pszSeed != nullptr ? static_cast<std::uint32_t>(std::strtoul(pszSeed, nullptr, 10))
                                              : static_cast<std::uint32_t>(std::random_device{}());
        std::printf("VEX_TEST_SEED=%u\n", uSeed);
        std::fflush(stdout);
        return uSeed;
    }();
    return s_uSeed;
}
