// Counts durations in bounded memory. Percentiles are exact up to 255 microseconds. Above that, each doubling has 128
// buckets; a percentile is the middle of its bucket, less than half a percent wrong. Minimum and maximum are exact.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <limits>
#include <vector>

namespace vexlog {

class Histogram {
public:
    // Microseconds; values from 2^40 on (twelve days) share the last bucket.
    void Add(std::uint64_t nValue) {
        const std::size_t nBucket = BucketOf(std::min(nValue, kMost));
        if (nBucket >= m_counts.size()) {
            m_counts.resize(nBucket + 1);
        }
        ++m_counts[nBucket];
        ++m_cValues;
        m_nLeast = std::min(m_nLeast, nValue);
        m_nGreatest = std::max(m_nGreatest, nValue);
    }

    std::uint64_t Count() const { return m_cValues; }
    // 0 if there are no values.
    std::uint64_t Minimum() const { return m_cValues == 0 ? 0 : m_nLeast; }
    std::uint64_t Maximum() const { return m_nGreatest; }

    // The smallest value v for which at least dShare (0 to 1) of all values are v or less.
    std::uint64_t Percentile(double dShare) const {
        const auto nRank = static_cast<std::uint64_t>(dShare * static_cast<double>(m_cValues) + 0.999'999);
        std::uint64_t cSeen = 0;
        for (std::size_t nBucket = 0; nBucket < m_counts.size(); ++nBucket) {
            cSeen += m_counts[nBucket];
            if (cSeen >= std::max<std::uint64_t>(nRank, 1)) {
                return std::clamp(LowerBound(nBucket) + (Width(nBucket) - 1) / 2, Minimum(), Maximum());
            }
        }
        return Maximum();
    }

    // Calls fn(lower bound, count) for every bucket with values, in ascending order.
    template <typename Function>
    void ForEach(Function fn) const {
        for (std::size_t nBucket = 0; nBucket < m_counts.size(); ++nBucket) {
            if (m_counts[nBucket] != 0) {
                fn(LowerBound(nBucket), m_counts[nBucket]);
            }
        }
    }

private:
    static constexpr std::uint64_t kMost = (1ULL << 40) - 1;
    static constexpr std::uint64_t kPerDoubling = 128;

    // How often the value must be halved to be below 2 * kPerDoubling.
    static unsigned Halvings(std::uint64_t nValue) {
        const auto cBits = static_cast<int>(std::bit_width(nValue));
        return cBits > 8 ? static_cast<unsigned>(cBits) - 8 : 0;
    }
    static std::size_t BucketOf(std::uint64_t nValue) {
        const unsigned cHalvings = Halvings(nValue);
        return static_cast<std::size_t>(cHalvings * kPerDoubling + (nValue >> cHalvings));
    }
    static unsigned HalvingsOfBucket(std::size_t nBucket) {
        return nBucket < 2 * kPerDoubling ? 0 : static_cast<unsigned>(nBucket / kPerDoubling - 1);
    }
    static std::uint64_t Width(std::size_t nBucket) { return 1ULL << HalvingsOfBucket(nBucket); }
    static std::uint64_t LowerBound(std::size_t nBucket) {
        const unsigned cHalvings = HalvingsOfBucket(nBucket);
        return (nBucket - cHalvings * kPerDoubling) << cHalvings;
    }

    std::vector<std::uint64_t> m_counts;
    std::uint64_t m_cValues = 0;
    std::uint64_t m_nLeast = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t m_nGreatest = 0;
};

}  // namespace vexlog
