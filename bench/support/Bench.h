// What all benchmarks share: settings and samples as lines for bench/report.py, clocks, and taking turns.
//
//   question  <text>
//   setting   <name>  <value>
//   sample    <row>  <who>  <round>  <value>  <unit>       fields are separated by tabs
//
// A ratio compares two samples of one round. They are taken at almost the same time, so a disturbance of the machine
// affects both.
#pragma once

#include <time.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace bench {

inline double Seconds(clockid_t clock) {
    timespec time = {};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}
inline double WallSeconds() {
    return Seconds(CLOCK_MONOTONIC);
}
// Processor time of the calling thread.
inline double CpuSeconds() {
    return Seconds(CLOCK_THREAD_CPUTIME_ID);
}

inline void Question(const char* pszText) {
    std::printf("question\t%s\n", pszText);
}
inline void Setting(const std::string& strName, const std::string& strValue) {
    std::printf("setting\t%s\t%s\n", strName.c_str(), strValue.c_str());
}
inline void Sample(const std::string& strRow, const std::string& strWho, int nRound, double dValue,
                   const char* pszUnit) {
    std::printf("sample\t%s\t%s\t%d\t%.6g\t%s\n", strRow.c_str(), strWho.c_str(), nRound, dValue, pszUnit);
}

[[noreturn]] inline void Fail(const std::string& strWhy) {
    std::fprintf(stderr, "%s\n", strWhy.c_str());
    std::fflush(stdout);
    _exit(1);
}

inline void Require(bool bHolds, const std::string& strWhat) {
    if (!bHolds) {
        Fail("failed: " + strWhat);
    }
}

// The amounts of a run, from NAME=NUMBER arguments. Each is printed when the program asks for it.
class Amounts {
public:
    Amounts(int nArguments, char** ppszArguments) : m_arguments(ppszArguments + 1, ppszArguments + nArguments) {}

    int Of(const std::string& strName, int nDefault) const {
        const std::string strValue = Text(strName, std::to_string(nDefault));
        Setting(strName, strValue);
        return std::atoi(strValue.c_str());
    }
    std::string Text(const std::string& strName, const std::string& strDefault) const {
        for (const std::string& strArgument : m_arguments) {
            if (strArgument.compare(0, strName.size() + 1, strName + "=") == 0) {
                return strArgument.substr(strName.size() + 1);
            }
        }
        return strDefault;
    }

private:
    std::vector<std::string> m_arguments;
};

// A contestant of the comparison. fnMeasure does its work once and returns the cost.
struct Candidate {
    std::string strWho;
    std::function<double()> fnMeasure;
};

// Takes turns, each round in another order. The first round is a warm-up and does not count.
inline void Interleave(const std::string& strRow, const char* pszUnit, int nRounds,
                       const std::vector<Candidate>& candidates) {
    for (int nRound = -1; nRound < nRounds; ++nRound) {
        for (std::size_t i = 0; i < candidates.size(); ++i) {
            const Candidate& candidate = candidates[(i + static_cast<std::size_t>(nRound + 1)) % candidates.size()];
            const double dValue = candidate.fnMeasure();
            if (nRound >= 0) {
                Sample(strRow, candidate.strWho, nRound, dValue, pszUnit);
            }
        }
        std::fflush(stdout);
    }
}

}  // namespace bench
