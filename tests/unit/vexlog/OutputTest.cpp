// How the printers show hostile text, and which records the filter and others pass.
#include <gmock/gmock.h>
#include <unistd.h>

#include "Collected.h"
#include "EmptyEntries.h"
#include "Filter.h"
#include "JsonPrinter.h"
#include "LastRecords.h"
#include "Row.h"
#include "TempDirectory.h"
#include "TextPrinter.h"
#include "UserTime.h"
#include "posix/VisibleText.h"

namespace {

using namespace std::string_literals;
using vexposix::OutputBuffer;

// Returns the text that fnWrite writes.
template <typename Function>
std::string Written(Function fnWrite) {
    int nEnds[2] = {};
    EXPECT_EQ(pipe(nEnds), 0);
    {
        vexposix::OutputBuffer output(nEnds[1]);
        fnWrite(output);
        output.Flush();
    }
    close(nEnds[1]);
    std::string strText(65536, '\0');
    const ssize_t cb = read(nEnds[0], strText.data(), strText.size());
    close(nEnds[0]);
    strText.resize(static_cast<std::size_t>(std::max<ssize_t>(cb, 0)));
    return strText;
}

struct TextRow : Row {
    std::string strText;
    std::string strUtf8;
    std::string strAscii;
    std::string strJson;
    std::string strHtml;
};

class HostileTextTest : public testing::TestWithParam<TextRow> {};

TEST_P(HostileTextTest, IsEscaped) {
    const TextRow& row = GetParam();
    EXPECT_EQ(Written([&](vexposix::OutputBuffer& output) { vexposix::AppendVisible(output, row.strText, true); }),
              row.strUtf8);
    EXPECT_EQ(Written([&](vexposix::OutputBuffer& output) { vexposix::AppendVisible(output, row.strText, false); }),
              row.strAscii);
    EXPECT_EQ(Written([&](vexposix::OutputBuffer& output) { vexposix::AppendJsonText(output, row.strText); }),
              row.strJson);
    EXPECT_EQ(Written([&](vexposix::OutputBuffer& output) { vexposix::AppendHtml(output, row.strText); }), row.strHtml);
}

constexpr char kBad[] = "\xEF\xBF\xBD";

INSTANTIATE_TEST_SUITE_P(
    Texts, HostileTextTest,
    testing::Values(
        TextRow{{"Plain"}, "abc ~", "abc ~", "abc ~", "abc ~", "abc ~"},
        TextRow{{"LineEnds"},
                "a\r\nb\tc",
                "a\\r\\nb\\tc",
                "a\\r\\nb\\tc",
                "a\\u000d\\u000ab\\u0009c",
                "a"s + kBad + kBad + "b" + kBad + "c"},
        TextRow{{"Escape"}, "\x1b[2J\x7f", "\\x1b[2J\\x7f", "\\x1b[2J\\x7f", "\\u001b[2J\\u007f", kBad + "[2J"s + kBad},
        TextRow{{"Nuls"},
                "a\0b\0\0\0\0\0c"s,
                "a\\0b\\0{5}c",
                "a\\0b\\0{5}c",
                "a\\u0000b\\u0000\\u0000\\u0000\\u0000\\u0000c",
                "a"s + kBad + "b" + kBad + kBad + kBad + kBad + kBad + "c"},
        TextRow{{"Accent"}, "\xC3\xA9", "\xC3\xA9", "\\u{e9}", "\xC3\xA9", "\xC3\xA9"},
        TextRow{
            {"Emoji"}, "\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80", "\\u{1f600}", "\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
        TextRow{{"SecondControlSet"}, "\xC2\x9B", "\\u{9b}", "\\u{9b}", "\\u009b", kBad},
        TextRow{{"Reordering"}, "\xE2\x80\xAE", "\\u{202e}", "\\u{202e}", "\\u202e", kBad},
        TextRow{{"InvisibleTag"}, "\xF3\xA0\x81\x81", "\\u{e0041}", "\\u{e0041}", "\\udb40\\udc41", kBad},
        TextRow{{"NotUtf8"}, "\xE9\xFF", "\\xe9\\xff", "\\xe9\\xff", kBad + ""s + kBad, kBad + ""s + kBad},
        TextRow{{"Surrogate"},
                "\xED\xA0\x80",
                "\\xed\\xa0\\x80",
                "\\xed\\xa0\\x80",
                kBad + ""s + kBad + kBad,
                kBad + ""s + kBad + kBad},
        TextRow{{"Markup"},
                "</script><b a='\"'>&\\",
                "</script><b a='\"'>&\\",
                "</script><b a='\"'>&\\",
                "\\u003c/script\\u003e\\u003cb a='\\\"'\\u003e\\u0026\\\\",
                "&#60;/script&#62;&#60;b a=&#39;&#34;&#39;&#62;&#38;\\"}),
    RowName);

std::string Printed(std::string_view bytes, bool bJson, const vexlog::Filter& filter = {}, bool bColour = false) {
    struct Filtered : vexlog::RecordSink {
        Filtered(const vexlog::Filter& f, vexlog::RecordSink& n) : conditions(f), next(n) {}
        void OnRecord(const vexlog::Record& record) override {
            if (conditions.Passes(record)) {
                next.OnRecord(record);
            }
        }
        const vexlog::Filter& conditions;
        vexlog::RecordSink& next;
    };
    return Written([&](vexposix::OutputBuffer& output) {
        vexlog::TextPrinter text(output, {bColour, true});
        vexlog::JsonPrinter json(output);
        Filtered filtered(filter, bJson ? static_cast<vexlog::RecordSink&>(json) : text);
        vexlog::RecordParser parser(filtered);
        parser.Feed(bytes);
        parser.Finish();
    });
}

const std::string kMixedLog = std::string(kHead) + "rest\r\n\r\n" +
                              Entry("one\x1b Enter.", "Java_vex_jni_TAVClientJNI_P7Sign", 325) + "\r\n\r\n\r\n\r\n" +
                              "[05/Mar/2024:09:07:03 CET] [4712 4294967284d][WARN]two\n" + Entry("thr");

TEST(TextPrinterTest, PrintsOneLineARecord) {
    EXPECT_EQ(Printed(kMixedLog, false),
              "-- fragment: rest\n"
              "2024-03-05 09:07:02.048213 INFO P4711   T-12         P7Sign:325               one\\x1b Enter.\n"
              "-- 1 empty entry\n"
              "2024-03-05 09:07:03        WARN P4712   T-12         two\n"
              "2024-03-05 09:07:02.048213 INFO P4711   T-12         Function:7               thr (torn)\n");
}

// Such a record comes from a clock that is far ahead. Its seconds lacked their last digit.
TEST(TextPrinterTest, AYearMayHaveFiveDigits) {
    constexpr const char* kLog = "[05/Mar/12024:09:07:03 CET] [4712 4294967284d][WARN]two\n";
    EXPECT_EQ(Printed(kLog, false), "12024-03-05 09:07:03        WARN P4712   T-12         two\n");
    EXPECT_THAT(Printed(kLog, true), testing::HasSubstr(R"("time":"12024-03-05T09:07:03","time_text":)"));
}

// The colours are those of a terminal's own palette: times are dim, places blue, and what is not a record yellow.
TEST(TextPrinterTest, ColoursParts) {
    const std::string strTorn = "\x1b[33m (torn)\x1b[0m\n";
    const std::string strLines = Printed(kMixedLog, false, {}, true);
    EXPECT_THAT(strLines, testing::StartsWith("\x1b[33m-- fragment: \x1b[0mrest\n"
                                              "\x1b[2m2024-03-05 09:07:02.048213\x1b[0m INFO "));
    EXPECT_THAT(strLines, testing::HasSubstr("\n\x1b[33m-- 1 empty entry\x1b[0m\n"));
    EXPECT_THAT(strLines, testing::EndsWith("thr" + strTorn));
}

TEST(JsonPrinterTest, PrintsOneObjectARecord) {
    EXPECT_EQ(Printed(kMixedLog, true),
              R"({"kind":"fragment","offset":2,"size":8,"message":"rest","torn":true}
{"kind":"record","offset":10,"size":114,"time":"2024-03-05T09:07:02.048213","pid":4711,"thread":-12,"type":"INFO","file":"src.cpp","function":"Java_vex_jni_TAVClientJNI_P7Sign","line":325,"event":"enter","message":"one\u001b Enter."}
{"kind":"empty","offset":124,"size":4,"count":1}
{"kind":"minimal","offset":128,"size":55,"time":"2024-03-05T09:07:03","time_text":"05/Mar/2024:09:07:03 CET","pid":4712,"thread":-12,"type":"WARN","message":"two"}
{"kind":"record","offset":183,"size":76,"time":"2024-03-05T09:07:02.048213","pid":4711,"thread":-12,"type":"INFO","file":"src.cpp","function":"Function","line":7,"message":"thr","torn":true}
)");
}

const std::string kContinuedLog = std::string(kHead) + Entry("one") + "\r\n\r\ntwo\r\n\r\n";

TEST(TextPrinterTest, MarksTheRestOfAMessage) {
    EXPECT_EQ(Printed(kContinuedLog, false),
              "2024-03-05 09:07:02.048213 INFO P4711   T-12         Function:7               one\n"
              "-- continued: two\n");
}

// A program that selects by process or time selects the rest of the message, too.
TEST(JsonPrinterTest, TheRestOfAMessageHasTheFieldsOfItsRecord) {
    const std::string strFields =
        R"("time":"2024-03-05T09:07:02.048213","pid":4711,"thread":-12,"type":"INFO","file":"src.cpp","function":"Function","line":7)";
    EXPECT_EQ(Printed(kContinuedLog, true),
              R"({"kind":"record","offset":2,"size":80,)" + strFields + R"(,"message":"one"})" + "\n" +
                  R"({"kind":"continued","offset":82,"size":7,)" + strFields + R"(,"message":"two"})" + "\n");
}

// The log is named if several are read.
TEST(JsonPrinterTest, NamesTheLog) {
    vexlog::Record record;
    record.kind = vexlog::Kind::kEmpty;
    record.input = "PILog.txt.1";
    record.cEmpty = 2;
    EXPECT_EQ(Written([&](OutputBuffer& output) { vexlog::JsonPrinter(output).OnRecord(record); }),
              "{\"kind\":\"empty\",\"input\":\"PILog.txt.1\",\"offset\":0,\"size\":0,\"count\":2}\n");
}

TEST(JsonPrinterTest, KeepsBytesThatAreNotUtf8) {
    EXPECT_EQ(Printed("\xE9x", true),
              "{\"kind\":\"fragment\",\"offset\":0,\"size\":2,\"message\":\"\xEF\xBF\xBDx\",\"message_hex\":\"e978\","
              "\"torn\":true}\n");
}

struct FilterRow : Row {
    vexlog::Filter filter;
    std::string strExpected;  // the first letters of the messages that pass
};

class FilterTest : public testing::TestWithParam<FilterRow> {};

TEST_P(FilterTest, PassesTheRecordsAskedFor) {
    const std::string strLog = "e, a fragment\r\n\r\n" + Entry("a Enter.", "Java_vex_jni_TAVClientJNI_P7Sign", 325) +
                               "\r\n\r\n" + Entry("b", "Function", 7, "2024-03-05 09:08:00:000", 4712, 34) +
                               "\r\n\r\n" +
                               "c, continued\r\n\r\n[05/Mar/2024:09:09:00 CET] [4712 4294967284d][WARN]dz\n";
    struct Letters : vexlog::RecordSink {
        explicit Letters(const vexlog::Filter& f) : filter(f) {}
        void OnRecord(const vexlog::Record& record) override {
            strLetters += filter.Passes(record) ? std::string(record.message.substr(0, 1)) : "";
        }
        const vexlog::Filter& filter;
        std::string strLetters;
    } letters(GetParam().filter);
    vexlog::RecordParser parser(letters);
    parser.Feed(strLog);
    parser.Finish();
    EXPECT_EQ(letters.strLetters, GetParam().strExpected);
}

vexlog::Filter Since(const char* pszFrom, const char* pszTo) {
    vexlog::Filter filter;
    filter.since = *pszFrom == '\0' ? std::nullopt : vexlog::ParseUserTime(pszFrom, 0).time;
    filter.until = *pszTo == '\0' ? std::nullopt : vexlog::ParseUserTime(pszTo, 0).time;
    return filter;
}

vexlog::Filter Text(std::string strText, bool bIgnoreCase) {
    vexlog::Filter filter;
    filter.strText = std::move(strText);
    filter.bIgnoreCase = bIgnoreCase;
    return filter;
}

INSTANTIATE_TEST_SUITE_P(
    Conditions, FilterTest,
    testing::Values(FilterRow{{"None"}, {}, "eabcd"}, FilterRow{{"ShortName"}, {.functions = {"P7Sign"}}, "a"},
                    FilterRow{{"WholeName"}, {.functions = {"Java_vex_jni_TAVClientJNI_P7Sign"}}, "a"},
                    FilterRow{{"WholeNameOfAnother"}, {.functions = {"Java_vex_jni_TAVClientJNI_P1Sign"}}, ""},
                    FilterRow{{"EitherName"}, {.functions = {"P7Sign", "Function"}}, "abc"},
                    FilterRow{{"OtherName"}, {.functions = {"P7"}}, ""},
                    FilterRow{{"Thread"}, {.threads = {-12}}, "ad"},
                    FilterRow{{"Process"}, {.processes = {4712}}, "bcd"},
                    FilterRow{{"Both"}, {.threads = {-12}, .processes = {4712}}, "d"},
                    FilterRow{{"SinceIsInclusive"}, Since("2024-03-05T09:08", ""), "bcd"},
                    FilterRow{{"UntilIsInclusive"}, Since("", "2024-03-05T09:08"), "abc"},
                    FilterRow{{"Between"}, Since("2024-03-05T09:07:03", "2024-03-05T09:08:59"), "bc"},
                    FilterRow{{"Text"}, Text("ENTER", false), ""},
                    FilterRow{{"TextOfAnyCase"}, Text("ENTER", true), "a"},
                    FilterRow{{"FirstLetterOfAnyCase"}, Text("A Fragment", true), "e"},
                    FilterRow{{"LastLetterOfAnyCase"}, Text("DZ", true), "d"},
                    FilterRow{{"TextOfAFragment"}, Text("frag", false), "e"}),
    RowName);

// ---- The last records ----

std::vector<std::string> LastOf(std::size_t cMost, std::string_view before, std::string_view behind) {
    Collector collector;
    vexlog::LastRecords last(cMost, collector);
    vexlog::RecordParser parser(last);
    parser.Feed(before);
    parser.Finish();
    EXPECT_TRUE(collector.lines.empty());
    last.Release();
    parser.Feed(behind);
    parser.Finish();
    return collector.lines;
}

TEST(LastRecordsTest, AreHandedOnWithTheirTexts) {
    const std::vector<std::string> all = Collected(kMixedLog, 7);
    ASSERT_EQ(all.size(), 5U);
    for (std::size_t cMost = 0; cMost <= all.size() + 1; ++cMost) {
        const std::size_t cLeftOut = all.size() - std::min(cMost, all.size());
        EXPECT_EQ(LastOf(cMost, kMixedLog, ""),
                  std::vector(all.begin() + static_cast<std::ptrdiff_t>(cLeftOut), all.end()))
            << cMost;
    }
}

TEST(LastRecordsTest, WhatComesBehindThemIsNotKept) {
    EXPECT_EQ(LastOf(0, kMixedLog, kMixedLog), Collected(kMixedLog, 7));
}

TEST(LastRecordsTest, ADecodedMessageStaysDecoded) {
    const std::string strLog = Entry(Garbled("Java_vex_jni_TAVClientJNI_AddFilter") + " Enter.") + "\r\n\r\n";
    EXPECT_EQ(LastOf(1, strLog, ""), Collected(strLog, 100));
}

// ---- Blank entries ----

std::string AdviceFor(const std::string& strLog) {
    Collector collector;
    vexlog::EmptyEntries entries(collector);
    vexlog::RecordParser parser(entries);
    parser.Feed(strLog);
    parser.Finish();
    EXPECT_EQ(collector.lines, Collected(strLog, 1000));
    return entries.Advice();
}

TEST(EmptyEntriesTest, ALogOfBlankEntriesNamesTheLocale) {
    const std::string strOne = Entry("one") + std::string(kEnd);
    const std::string strBlank(kEnd);
    EXPECT_EQ(AdviceFor(""), "");
    EXPECT_EQ(AdviceFor(strOne), "");
    EXPECT_EQ(AdviceFor(strOne + strOne + strBlank), "");
    EXPECT_THAT(AdviceFor(strOne + strBlank), testing::StartsWith("1 entry of the log is blank: "));
    EXPECT_THAT(AdviceFor(strBlank + strBlank + strBlank),
                testing::AllOf(testing::StartsWith("3 entries of the log are blank: "), testing::HasSubstr("locale"),
                               testing::HasSubstr("LC_ALL=C.UTF-8")));
}

TEST(OutputBufferTest, AClosedPipeThrowsOutputClosed) {
    int nEnds[2] = {};
    ASSERT_EQ(pipe(nEnds), 0);
    close(nEnds[0]);
    signal(SIGPIPE, SIG_IGN);
    vexposix::OutputBuffer output(nEnds[1]);
    output.Append("x");
    EXPECT_THROW(output.Flush(), vexposix::OutputClosed);
    close(nEnds[1]);
}

TEST(OutputBufferTest, AFullDiskIsAFailure) {
    std::FILE* const full = std::fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    vexposix::OutputBuffer output(fileno(full));
    output.Append("x");
    EXPECT_THROW(output.Flush(), std::system_error);
    std::fclose(full);
}

}  // namespace
