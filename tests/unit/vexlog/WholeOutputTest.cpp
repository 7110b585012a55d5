// All that the report and the statistics print about one log with everything in it, compared with known files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Collected.h"
#include "KnownText.h"
#include "RecordParser.h"
#include "Report.h"
#include "Stats.h"
#include "TempDirectory.h"
#include "UserTime.h"

namespace {

constexpr int kUnopened = -1;

std::string At(const std::string& strTime, const std::string& strFunction, int nLine, int nThread, int nProcess = 1) {
    return Entry("x", "Java_vex_jni_TAVClientJNI_" + strFunction, nLine, "2024-03-05 " + strTime, nProcess, nThread) +
           "\r\n\r\n";
}

// Two functions, two processes, three threads; calls that are done, failed, open, without begin and longer than a day;
// torn and continued records, fragments, empty entries and records of the minimal logger.
std::string Log() {
    return "rest\r\n\r\n" + At("09:07:02:000", "P7Sign", 325, 1) + At("09:07:02:017", "P7Sign", 368, 1) +
           At("09:07:03:000", "P7Sign", 325, 1) + At("09:07:03:950000", "P7Sign", 368, 1) +
           At("09:07:04:000", "P7Sign", 325, 1) + At("09:07:09:500000", "P7Sign", 368, 1) +
           At("09:07:10:000", "P7Sign", 325, 2) + At("09:07:10:001", "GetLastError", 501, 2) +
           At("09:07:10:003", "GetLastError", 505, 2) + At("09:07:11:000", "SetDigestAlg", 141, 3, 2) +
           At("09:07:12:000", "P7Sign", 325, 3, 2) + At("09:07:11:900000", "P7Sign", 368, 3, 2) +
           Entry("one", "Java_vex_jni_TAVClientJNI_P7Sign", 325, "2024-03-05 09:07:13:000", 2, 3) +
           At("09:07:13:001", "AddFilter", 171, 2) + "two\r\n\r\n" + "\r\n\r\n" +
           "[05/Mar/2024:09:07:14 CET] [4712 4294967284d][WARN]minimal\n";
}

vexlog::ReportOrigin OriginInUtc() {
    return {"PILog.txt", "host", "UTC", *vexlog::ParseUserTime("2024-03-10T12:00:01.5", 0).time};
}

template <typename Sink>
void Parse(std::string_view log, Sink& sink) {
    vexlog::RecordParser parser(sink);
    parser.Feed(log);
    parser.Finish();
    sink.Finish();
}

std::string WholePageOf(const vexlog::Report& report) {
    vexposix::OutputBuffer output(kUnopened);
    report.Print(OriginInUtc(), output);
    return std::string(output.Pending());
}

// Without what is the same on each page: the style, and the script with its digest.
std::string WithoutFixedParts(std::string strPage) {
    for (const auto& [strBegin, strEnd] : {std::pair<std::string, std::string>{"<style>", "</style>"},
                                           {"<script>", "</script>"},
                                           {"script-src 'sha256-", "'"},
                                           {"style-src 'sha256-", "'"}}) {
        const std::size_t nBegin = strPage.find(strBegin);
        if (nBegin == std::string::npos) {
            ADD_FAILURE() << strBegin;
            return strPage;
        }
        const std::size_t nText = nBegin + strBegin.size();
        strPage.replace(nText, strPage.find(strEnd, nText) - nText, "...");
    }
    return strPage;
}

TEST(WholeOutput, OfTheReport) {
    vexlog::Report report;
    Parse(Log(), report);
    ExpectKnownText(VEX_KNOWN_TEXTS "/Report.txt", "page", WithoutFixedParts(WholePageOf(report)));
}

TEST(WholeOutput, OfTheStatistics) {
    for (const auto& [pszName, strLog] : {std::pair<const char*, std::string>{"everything", Log()}, {"nothing", ""}}) {
        vexlog::Stats stats;
        Parse(strLog, stats);
        vexposix::OutputBuffer text(kUnopened);
        vexlog::PrintStatsText(stats, true, text);
        ExpectKnownText(VEX_KNOWN_TEXTS "/Stats.txt", std::string("text about ") + pszName,
                        std::string(text.Pending()));
        vexposix::OutputBuffer json(kUnopened);
        vexlog::PrintStatsJson(stats, json);
        ExpectKnownText(VEX_KNOWN_TEXTS "/Stats.txt", std::string("JSON about ") + pszName,
                        std::string(json.Pending()));
    }
}

// Only the last calls are drawn.
TEST(WholeOutput, OfTheReportSaysHowManyCallsItLeavesOut) {
    vexlog::Report report;
    vexlog::Record record;
    record.kind = vexlog::Kind::kRecord;
    record.time = 0;
    record.function = "Java_vex_jni_TAVClientJNI_SetDigestAlg";
    record.nLine = 141;
    constexpr std::size_t kOver = 7;
    for (std::size_t n = 0; n < vexlog::Report::kMostCalls + kOver; ++n) {
        report.OnRecord(record);
    }
    report.Finish();
    const TempDirectory directory;
    const int nFile = open(directory.Path("page").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(nFile, 0);
    vexposix::OutputBuffer output(nFile);
    report.Print(OriginInUtc(), output);
    output.Flush();
    close(nFile);
    EXPECT_NE(
        ReadWholeFile(directory.Path("page"))
            .find("<p class=\"note\">The timeline and the list of failures show the last 100000 calls; 7 earlier calls "
                  "are only in the numbers by function.</p>"),
        std::string::npos);
}

TEST(DurationText, HasFourDigitsAndAUnit) {
    for (const auto& [nMicroseconds, pszText] : {std::pair<std::uint64_t, const char*>{0, "0 us"},
                                                 {999, "999 us"},
                                                 {1000, "1 ms"},
                                                 {1234, "1.234 ms"},
                                                 {999'949, "999.9 ms"},
                                                 {1'000'000, "1.0 s"},
                                                 {86'400'000'000, "86400.0 s"}}) {
        EXPECT_EQ(vexlog::DurationText(nMicroseconds, "us"), pszText);
    }
}

}  // namespace
