#include "ClockCheck.h"

#include <algorithm>
#include <limits>

namespace vexlog {
namespace {

// Zones differ by 26 hours at most.
constexpr CivilMicroseconds kMostAhead = CivilMicroseconds{2} * 86'400 * kMicrosecondsPerSecond;

constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();

// A sequence of runs in which no run is earlier than the one before it. Named by its last run.
struct Chain {
    std::uint64_t cRecords = 0;
    std::size_t cJumps = 0;         // from one period to another
    std::size_t nPrevious = kNone;  // the run before the last one
};

using Chains = std::vector<Chain>;

// The better of two chains, each of which may be none: the one with more records, then the one with fewer jumps, then
// the later one.
std::size_t Better(std::size_t nLeft, std::size_t nRight, const Chains& chains) {
    if (nLeft == kNone || nRight == kNone) {
        return nLeft == kNone ? nRight : nLeft;
    }
    const Chain& left = chains[nLeft];
    const Chain& right = chains[nRight];
    if (left.cRecords != right.cRecords) {
        return left.cRecords > right.cRecords ? nLeft : nRight;
    }
    if (left.cJumps != right.cJumps) {
        return left.cJumps < right.cJumps ? nLeft : nRight;
    }
    return std::max(nLeft, nRight);
}

// For each period the best chain that ends there, and the best one that ends there or earlier: a Fenwick tree.
class BestChains {
public:
    explicit BestChains(std::size_t cPeriods) : m_upTo(cPeriods + 1, kNone), m_in(cPeriods, kNone) {}

    std::size_t UpTo(std::size_t nPeriod, const Chains& chains) const {
        std::size_t nBest = kNone;
        for (std::size_t n = nPeriod + 1; n > 0; n &= n - 1) {
            nBest = Better(nBest, m_upTo[n], chains);
        }
        return nBest;
    }

    // The chain that a run of the period continues.
    Chain Continued(std::size_t nPeriod, std::uint64_t cRecords, const Chains& chains) const {
        Chain chain = {cRecords, 0, kNone};
        const std::size_t nSame = m_in[nPeriod];
        const std::size_t nAny = UpTo(nPeriod, chains);
        if (nAny == kNone) {
            return chain;
        }
        // A chain of another period is not better for a single jump less.
        const bool bSame = nSame != kNone && chains[nSame].cRecords == chains[nAny].cRecords &&
                           chains[nSame].cJumps <= chains[nAny].cJumps + 1;
        chain.nPrevious = bSame ? nSame : nAny;
        chain.cRecords += chains[chain.nPrevious].cRecords;
        chain.cJumps = chains[chain.nPrevious].cJumps + (chain.nPrevious == nSame ? 0 : 1);
        return chain;
    }

    void Add(std::size_t nPeriod, std::size_t nRun, const Chains& chains) {
        m_in[nPeriod] = Better(m_in[nPeriod], nRun, chains);
        for (std::size_t n = nPeriod + 1; n < m_upTo.size(); n += n & (~n + 1)) {
            m_upTo[n] = Better(m_upTo[n], nRun, chains);
        }
    }

private:
    std::vector<std::size_t> m_upTo;
    std::vector<std::size_t> m_in;
};

// Returns the number of the period that contains the time.
std::size_t PeriodOf(const std::vector<Period>& periods, CivilMicroseconds time) {
    const auto later = std::upper_bound(periods.begin(), periods.end(), time,
                                        [](CivilMicroseconds t, const Period& period) { return t < period.first; });
    return later == periods.begin() ? 0 : static_cast<std::size_t>(later - periods.begin()) - 1;
}

// logs: the periods of each.
void MarkImpossible(std::vector<std::vector<Period>>& logs, CivilMicroseconds now) {
    const CivilMicroseconds first = *ToCivil({.nYear = ClockCheck::kFirstYear});
    const auto isImpossible = [=](const Period& period) {
        return period.last < first || period.first > now + kMostAhead;
    };
    // If all are, the clock of this host is no better than theirs.
    if (std::all_of(logs.begin(), logs.end(), [&](const std::vector<Period>& periods) {
            return std::all_of(periods.begin(), periods.end(), isImpossible);
        })) {
        return;
    }
    for (std::vector<Period>& periods : logs) {
        for (Period& period : periods) {
            period.bWrong = isImpossible(period);
        }
    }
}

// Sorts periods and joins those without a gap between them. What is joined is wrong if all its parts are.
std::vector<Period> Joined(std::vector<Period> parts, CivilMicroseconds nGap) {
    std::sort(parts.begin(), parts.end(),
              [](const Period& left, const Period& right) { return left.first < right.first; });
    std::vector<Period> periods;
    for (const Period& part : parts) {
        if (periods.empty() || part.first > periods.back().last + nGap) {
            periods.push_back(part);
        } else {
            Period& period = periods.back();
            period.last = std::max(period.last, part.last);
            period.cRecords += part.cRecords;
            period.bWrong = period.bWrong && part.bWrong;
        }
    }
    return periods;
}

}  // namespace

Periods::Periods(std::vector<Period> periods) : m_periods(std::move(periods)) {
    for (const Period& period : m_periods) {
        if (!period.bWrong) {
            m_first = m_first.value_or(period.first);
            m_last = period.last;
        }
    }
}

bool Periods::IsWrong(CivilMicroseconds time) const {
    return !m_periods.empty() && m_periods[PeriodOf(m_periods, time)].bWrong;
}

std::uint64_t Periods::CountWrong() const {
    std::uint64_t c = 0;
    for (const Period& period : m_periods) {
        c += period.bWrong ? period.cRecords : 0;
    }
    return c;
}

void ClockCheck::Add(CivilMicroseconds time) {
    if (m_runs.empty() || !IsNear(m_runs.back(), time, time)) {
        if (m_runs.size() >= kMostRuns) {
            JoinRuns();
        }
        m_runs.push_back({time, time, 1});
        return;
    }
    Run& run = m_runs.back();
    run.first = std::min(run.first, time);
    run.last = std::max(run.last, time);
    ++run.cRecords;
}

Periods ClockCheck::Judge(const std::vector<const ClockCheck*>& checks, CivilMicroseconds now) {
    std::vector<std::vector<Period>> logs;
    CivilMicroseconds nGap = kGap;
    for (const ClockCheck* const pCheck : checks) {
        logs.push_back(pCheck->Unjudged());
        nGap = std::max(nGap, pCheck->m_nGap);
    }
    MarkImpossible(logs, now);
    std::vector<Period> all;
    for (std::size_t n = 0; n < checks.size(); ++n) {
        checks[n]->MarkUnordered(logs[n]);
        all.insert(all.end(), logs[n].begin(), logs[n].end());
    }
    return Periods(Joined(std::move(all), nGap));
}

std::vector<Period> ClockCheck::Unjudged() const {
    std::vector<Period> parts;
    for (const Run& run : m_runs) {
        parts.push_back({run.first, run.last, run.cRecords, false});
    }
    return Joined(std::move(parts), m_nGap);
}

// Widens the gap until half of the runs are left.
void ClockCheck::JoinRuns() {
    while (m_runs.size() > kMostRuns / 2) {
        m_nGap *= 2;
        std::size_t cJoined = 1;
        for (std::size_t n = 1; n < m_runs.size(); ++n) {
            Run& previous = m_runs[cJoined - 1];
            const Run run = m_runs[n];
            if (IsNear(previous, run.first, run.last)) {
                previous = {std::min(previous.first, run.first), std::max(previous.last, run.last),
                            previous.cRecords + run.cRecords};
            } else {
                m_runs[cJoined++] = run;
            }
        }
        m_runs.resize(cJoined);
    }
}

// The longest chain of runs is right: as many records as possible in the order of time. A period is wrong if none of
// its runs is in the chain. So a record that was only written late does not make its period wrong.
void ClockCheck::MarkUnordered(std::vector<Period>& periods) const {
    Chains chains(m_runs.size());
    BestChains best(periods.size());
    for (std::size_t nRun = 0; nRun < m_runs.size(); ++nRun) {
        const std::size_t nPeriod = PeriodOf(periods, m_runs[nRun].first);
        if (periods[nPeriod].bWrong) {
            continue;
        }
        chains[nRun] = best.Continued(nPeriod, m_runs[nRun].cRecords, chains);
        best.Add(nPeriod, nRun, chains);
    }
    std::vector<bool> ordered(periods.size());
    for (std::size_t nRun = periods.empty() ? kNone : best.UpTo(periods.size() - 1, chains); nRun != kNone;
         nRun = chains[nRun].nPrevious) {
        ordered[PeriodOf(periods, m_runs[nRun].first)] = true;
    }
    for (std::size_t n = 0; n < periods.size(); ++n) {
        periods[n].bWrong = !ordered[n];
    }
}

}  // namespace vexlog
