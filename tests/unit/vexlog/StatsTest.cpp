// Which calls succeeded, failed or did not end, and how long they took.
#include "Stats.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <ctime>
#include <random>

#include "Collected.h"
#include "NativeLines.h"
#include "Row.h"

namespace {

// "Name done 5", "Name failed", ...
struct DescribedCalls : vexlog::CallSink {
    void OnCall(const vexlog::Call& call) override {
        constexpr const char* kOutcomes[] = {"done", "failed", "open", "without begin"};
        lines.push_back(std::to_string(call.nProcess) + "/" + std::to_string(call.nThread) + " " +
                        std::to_string(call.nFunction) + " " + kOutcomes[static_cast<int>(call.outcome)] +
                        (call.outcome == vexlog::Outcome::kDone ? " " + std::to_string(call.nDuration) : ""));
    }
    std::vector<std::string> lines;
};

std::string Time(int nMicros) {
    char szTime[40];
    std::snprintf(szTime, sizeof szTime, "2024-03-05 09:07:%02d:%03d", nMicros / 1'000'000, nMicros % 1'000'000);
    return szTime;
}

std::string At(int nMicros, int nThread, const std::string& strFunction, int nLine, int nProcess = 1) {
    return Entry("x", "Java_vex_jni_TAVClientJNI_" + strFunction, nLine, Time(nMicros), nProcess, nThread) + "\r\n\r\n";
}

struct CallRow : Row {
    std::string strLog;
    std::vector<std::string> expected;
};

class CallsTest : public testing::TestWithParam<CallRow> {};

TEST_P(CallsTest, AreMatchedFromRecords) {
    DescribedCalls calls;
    vexlog::CallMatcher matcher(calls);
    vexlog::RecordParser parser(matcher);
    parser.Feed(GetParam().strLog);
    parser.Finish();
    matcher.Finish();
    EXPECT_THAT(calls.lines, testing::ElementsAreArray(GetParam().expected));
}

INSTANTIATE_TEST_SUITE_P(
    Logs, CallsTest,
    testing::Values(
        CallRow{{"Done"}, At(999'990, 1, "P7Sign", 325) + At(1'000'007, 1, "P7Sign", 368), {"1/1 0 done 17"}},
        CallRow{{"Failed"},
                At(0, 1, "P7Sign", 325) + At(5, 1, "P7Sign", 325) + At(7, 1, "P7Sign", 368),
                {"1/1 0 failed", "1/1 0 done 2"}},
        CallRow{{"FailedBeforeAnother"},
                At(0, 1, "P7Sign", 325) + At(5, 1, "GetLastError", 501) + At(7, 1, "GetLastError", 505),
                {"1/1 0 failed", "1/1 1 done 2"}},
        CallRow{{"OpenAtTheEnd"}, At(0, 1, "P7Sign", 325), {"1/1 0 open"}},
        CallRow{{"SetDigestAlgHasNoBegin"}, At(0, 1, "SetDigestAlg", 141), {"1/1 0 without begin"}},
        CallRow{{"SetDigestAlgShowsAFailure"},
                At(0, 1, "P7Sign", 325) + At(1, 1, "SetDigestAlg", 141),
                {"1/1 0 failed", "1/1 1 without begin"}},
        CallRow{
            {"BeginCutOff"}, At(0, 1, "P7Sign", 368) + At(1, 1, "P7Sign", 325), {"1/1 0 without begin", "1/1 0 open"}},
        CallRow{{"ThreadsApart"},
                At(0, 1, "P7Sign", 325) + At(1, 2, "P7Sign", 325) + At(2, 1, "P7Sign", 368) + At(4, 2, "P7Sign", 368),
                {"1/1 0 done 2", "1/2 0 done 3"}},
        CallRow{
            {"ProcessesApart"},
            At(0, 1, "P7Sign", 325) + At(1, 1, "P7Sign", 325, 2) + At(2, 1, "P7Sign", 368) + At(4, 1, "P7Sign", 368, 2),
            {"1/1 0 done 2", "2/1 0 done 3"}},
        CallRow{{"ClockSetBack"}, At(9, 1, "P7Sign", 325) + At(2, 1, "P7Sign", 368), {"1/1 0 done -7"}},
        CallRow{{"OtherPrograms"},
                Entry("f Enter.", "f", 1, Time(0)) + "\r\n\r\n" + Entry("talk", "f", 2, Time(1)) + "\r\n\r\n" +
                    Entry("f Leave.", "f", 3, Time(2)) + "\r\n\r\n",
                {"4711/-12 0 done 2"}}),
    RowName);

TEST(StatsTest, LeavesOutDurationsOfAChangedClock) {
    vexlog::Stats stats;
    vexlog::RecordParser parser(stats);
    const auto feed = [&](const char* pszFrom, const char* pszTo) {
        for (const auto& [pszTime, nLine] : {std::pair(pszFrom, 325), std::pair(pszTo, 368)}) {
            parser.Feed(Entry("x", "Java_vex_jni_TAVClientJNI_P7Sign", nLine, pszTime) + "\r\n\r\n");
        }
    };
    feed("2024-03-05 09:07:00:000000", "2024-03-06 09:07:00:000000");
    feed("2024-03-06 09:07:00:000000", "2024-03-07 09:07:00:000001");
    feed("2024-03-07 09:07:00:000001", "2024-03-07 09:07:00:000000");
    feed("2024-03-07 09:07:00:000001", "2024-03-07 09:07:00:000001");
    parser.Finish();
    stats.Finish();
    EXPECT_EQ(stats.Of(0).cCalls, 4U);
    EXPECT_EQ(stats.Of(0).cImpossible, 2U);
    EXPECT_EQ(stats.Of(0).durations.Count(), 2U);
    EXPECT_EQ(stats.Of(0).durations.Maximum(), static_cast<std::uint64_t>(vexlog::kLongestCall));
}

TEST(EventTest, KnowsTheLinesOfEveryNative) {
    for (const Lines& lines : kLines) {
        const std::string strFunction = std::string("Java_vex_jni_TAVClientJNI_") + lines.pszNative;
        vexlog::Record record;
        record.kind = vexlog::Kind::kRecord;
        record.function = strFunction;
        EXPECT_EQ(vexlog::ShortFunction(strFunction), lines.pszNative);
        record.nLine = lines.nLeave;
        EXPECT_EQ(vexlog::EventOf(record), vexlog::Event::kLeave) << lines.pszNative;
        record.nLine = lines.nEnter;
        EXPECT_EQ(vexlog::EventOf(record), lines.nEnter == 0 ? vexlog::Event::kNone : vexlog::Event::kEnter);
    }
}

TEST(CallsBoundTest, OpenCallsAndFunctionsHaveAGreatestNumber) {
    DescribedCalls calls;
    vexlog::CallMatcher matcher(calls);
    vexlog::Record record;
    record.kind = vexlog::Kind::kRecord;
    record.time = 0;
    record.message = "f Enter.";
    std::string strName;
    constexpr std::size_t kOver = 10;
    for (std::size_t n = 0; n < vexlog::CallMatcher::kMostOpen + kOver; ++n) {
        strName = "f" + std::to_string(n);
        record.function = strName;
        record.nProcess = static_cast<std::int64_t>(n);
        matcher.OnRecord(record);
    }
    EXPECT_EQ(calls.lines.size(), kOver);
    ASSERT_EQ(matcher.Functions().size(), vexlog::CallMatcher::kMostFunctions);
    EXPECT_EQ(matcher.Functions().back(), "(others)");
    matcher.Finish();
    EXPECT_EQ(calls.lines.size(), vexlog::CallMatcher::kMostOpen + kOver);
}

// Matches calls that never end, one in each process. Returns the processor time in seconds.
double SecondsFor(const std::vector<std::int64_t>& processes) {
    DescribedCalls calls;
    vexlog::CallMatcher matcher(calls);
    vexlog::Record record;
    record.kind = vexlog::Kind::kRecord;
    record.time = 0;
    record.function = "f";
    record.message = "f Enter.";
    const std::clock_t nBegin = std::clock();
    for (const std::int64_t nProcess : processes) {
        record.nProcess = nProcess;
        matcher.OnRecord(record);
    }
    matcher.Finish();
    EXPECT_EQ(calls.lines.size(), processes.size());
    return static_cast<double>(std::clock() - nBegin) / CLOCKS_PER_SEC;
}

// Process numbers chosen for it once took quadratic time: they shared one bucket of a hash table, because they are
// multiples of its sizes, divided by the factor of its hash.
TEST(CallsBoundTest, NoProcessNumbersTakeLonger) {
    constexpr std::uint64_t kSizes = std::uint64_t{20'753} * 42'043 * 85'229;  // of libstdc++
    constexpr std::uint64_t kFactor = 0x9E3779B1;
    std::uint64_t uInverse = kFactor;
    for (int nStep = 0; nStep < 6; ++nStep) {
        uInverse *= 2 - kFactor * uInverse;
    }
    ASSERT_EQ(uInverse * kFactor, 1U);
    std::vector<std::int64_t> plain;
    std::vector<std::int64_t> chosen;
    for (std::uint64_t uNumber = 1; chosen.size() < 40'000; ++uNumber) {
        const auto nProcess = static_cast<std::int64_t>(uNumber * kSizes * uInverse);
        if (nProcess >= 0) {
            plain.push_back(static_cast<std::int64_t>(uNumber));
            chosen.push_back(nProcess);
        }
    }
    const double dPlain = SecondsFor(plain);
    EXPECT_LT(SecondsFor(chosen), 10 * dPlain + 0.1);
}

TEST(ShortFunctionTest, LeavesOutThePrefixOfANativeOnly) {
    for (const std::string_view function : {"Java_vex_jni_TAVClientJNI_", "Java_vex_jni_TAVClientJNI", "Sign", ""}) {
        EXPECT_EQ(vexlog::ShortFunction(function), function);
    }
    EXPECT_EQ(vexlog::ShortFunction("Java_vex_jni_TAVClientJNI_S"), "S");
}

struct StatsSelectionRow : Row {
    vexlog::Filter filter;
    std::vector<std::string> expected;  // "P7Sign 2 calls 1 failed 0 open"
    std::uint64_t cRecords;
};

class StatsSelectionTest : public testing::TestWithParam<StatsSelectionRow> {};

// P7Sign of thread 1 fails, which only its record of GetLastError shows. P7Sign of process 2 lasts from 3 to 9.
TEST_P(StatsSelectionTest, CountsTheCallsThatPassAsTheyEnded) {
    const std::string strLog = At(1, 1, "P7Sign", 325) + At(2, 1, "GetLastError", 501) + At(3, 1, "P7Sign", 325, 2) +
                               At(4, 1, "GetLastError", 505) + At(9, 1, "P7Sign", 368, 2);
    vexlog::Stats stats(nullptr, GetParam().filter);
    vexlog::RecordParser parser(stats);
    parser.Feed(strLog);
    parser.Finish();
    stats.Finish();
    std::vector<std::string> lines;
    for (const std::size_t nFunction : stats.SortedFunctions()) {
        const vexlog::FunctionStats& of = stats.Of(nFunction);
        lines.push_back(stats.FunctionNames()[nFunction] + " " + std::to_string(of.cCalls) + " calls " +
                        std::to_string(of.cFailed) + " failed " + std::to_string(of.cOpen) + " open");
        EXPECT_EQ(of.cCalls, of.cFailed + of.durations.Count());
    }
    EXPECT_EQ(lines, GetParam().expected);
    EXPECT_EQ(stats.Log().cRecords, GetParam().cRecords);
    // The report reads the numbers of all functions.
    for (std::size_t nFunction = 0; nFunction < stats.FunctionNames().size(); ++nFunction) {
        EXPECT_LE(stats.Of(nFunction).cCalls, 2U);
    }
}

vexlog::Filter Between(int nFrom, int nTo) {
    const vexlog::CivilMicroseconds minute = vexlog::ToCivil({2024, 3, 5, 9, 7, 0, 0}).value();
    vexlog::Filter filter;
    filter.since = minute + nFrom;
    filter.until = minute + nTo;
    return filter;
}

INSTANTIATE_TEST_SUITE_P(
    Selections, StatsSelectionTest,
    testing::Values(
        StatsSelectionRow{{"All"}, {}, {"GetLastError 1 calls 0 failed 0 open", "P7Sign 2 calls 1 failed 0 open"}, 5},
        StatsSelectionRow{{"Function"}, {.functions = {"P7Sign"}}, {"P7Sign 2 calls 1 failed 0 open"}, 3},
        StatsSelectionRow{{"WholeFunction"},
                          {.functions = {"Java_vex_jni_TAVClientJNI_P7Sign"}},
                          {"P7Sign 2 calls 1 failed 0 open"},
                          3},
        StatsSelectionRow{{"Process"}, {.processes = {2}}, {"P7Sign 1 calls 0 failed 0 open"}, 2},
        StatsSelectionRow{{"Thread"}, {.threads = {7}}, {}, 0},
        StatsSelectionRow{{"CallsThatBeginThen"}, Between(3, 5), {"P7Sign 1 calls 0 failed 0 open"}, 2},
        StatsSelectionRow{{"CallsThatBeganBefore"}, Between(4, 9), {}, 2}),
    RowName);

TEST(StatsTest, TheRestOfAMessageIsCountedApart) {
    vexlog::Stats stats;
    vexlog::RecordParser parser(stats);
    parser.Feed(Entry("one") + "\r\n\r\ntwo\r\n\r\n");
    parser.Finish();
    stats.Finish();
    EXPECT_EQ(stats.Log().cRecords, 1U);
    EXPECT_EQ(stats.Log().cContinued, 1U);
    EXPECT_EQ(stats.Log().cFragments, 0U);
    EXPECT_EQ(stats.Log().cTorn, 0U);
}

TEST(HistogramTest, SmallValuesAreExact) {
    vexlog::Histogram histogram;
    EXPECT_EQ(histogram.Minimum(), 0U);
    EXPECT_EQ(histogram.Percentile(0.5), 0U);
    for (unsigned nValue = 1; nValue <= 200; ++nValue) {
        histogram.Add(nValue);
    }
    EXPECT_EQ(histogram.Minimum(), 1U);
    EXPECT_EQ(histogram.Percentile(0.5), 100U);
    EXPECT_EQ(histogram.Percentile(0.99), 198U);
    EXPECT_EQ(histogram.Maximum(), 200U);
}

TEST(HistogramTest, PercentilesAreWithinHalfAPercent) {
    std::mt19937_64 random(4711);
    for (const double dSpread : {0.5, 2.0, 4.0}) {
        std::lognormal_distribution<double> durations(8.0, dSpread);
        std::vector<std::uint64_t> values(9'999);
        vexlog::Histogram histogram;
        for (std::uint64_t& nValue : values) {
            nValue = static_cast<std::uint64_t>(durations(random));
            histogram.Add(nValue);
        }
        std::sort(values.begin(), values.end());
        EXPECT_EQ(histogram.Minimum(), values.front());
        EXPECT_EQ(histogram.Maximum(), values.back());
        for (const double dShare : {0.01, 0.25, 0.5, 0.9, 0.99, 0.999}) {
            const auto nRank = static_cast<std::size_t>(std::ceil(dShare * static_cast<double>(values.size())));
            const auto dExact = static_cast<double>(values[nRank - 1]);
            EXPECT_NEAR(static_cast<double>(histogram.Percentile(dShare)), dExact, dExact * 0.005) << dShare;
        }
    }
}

TEST(HistogramTest, TakesHugeValues) {
    vexlog::Histogram histogram;
    histogram.Add(std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(histogram.Maximum(), std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(histogram.Percentile(0.5), std::numeric_limits<std::uint64_t>::max());
}

}  // namespace
