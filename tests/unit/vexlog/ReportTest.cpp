// What the report's page contains. Whether a browser shows it: tests/integration/VexlogReport.py.
#include "Report.h"

#include <gmock/gmock.h>
#include <stdlib.h>

#include "Collected.h"
#include "Merge.h"
#include "RecordParser.h"
#include "Row.h"
#include "TempDirectory.h"
#include "UserTime.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr int kNowhere = -1;

vexlog::ReportOrigin Origin() {
    return {"PILog.txt", "host", "UTC+01:00 (CET)", *vexlog::ParseUserTime("2024-03-10T12:00:01.5", 0).time};
}

std::string PageOf(vexlog::Report& report, const vexlog::ReportOrigin& origin = Origin()) {
    report.Finish();
    vexposix::OutputBuffer output(kNowhere);
    report.Print(origin, output);
    return std::string(output.Pending());
}

std::string Page(std::string_view log, const vexlog::ReportOrigin& origin = Origin(),
                 const vexlog::Filter& filter = {}) {
    vexlog::Report report(filter);
    vexlog::RecordParser parser(report);
    parser.Feed(log);
    parser.Finish();
    return PageOf(report, origin);
}

std::string Tile(const std::string& strName, int nValue) {
    return "<dt>" + strName + "</dt><dd>" + std::to_string(nValue) + "</dd>";
}

std::string Cell(const std::string& strText) {
    return "<td>" + strText + "</td>";
}

std::string Sign(const std::string& strTime, bool bEnter, int nThread = -12, int nProcess = 4711) {
    return Entry("x", "Java_vex_jni_TAVClientJNI_P7Sign", bEnter ? 325 : 368, strTime, nProcess, nThread) + "\r\n\r\n";
}

vexlog::CivilMicroseconds At(const std::string& strTime) {
    return vexlog::ParseUserTime(strTime, 0).time.value();
}

std::string WrongClock(const std::string& strFirst, const std::string& strLast, int cRecords) {
    return "<tr>" + Cell(strFirst) + Cell(strLast) + Cell(std::to_string(cRecords)) + "</tr>\n";
}

TEST(ReportTest, SaysWhatItIsAbout) {
    const std::string strPage = Page(Sign("2024-03-05 09:07:02:000", true) + Sign("2024-03-05 09:07:02:500", false));
    EXPECT_THAT(strPage, HasSubstr("<code>PILog.txt</code> <span>2024-03-05 09:07:02.000000</span> to "
                                   "<span>2024-03-05 09:07:02.000500</span>"));
    EXPECT_THAT(
        strPage,
        HasSubstr("<p class=\"source\" id=\"made\">Made on <code>host</code> at <span>2024-03-10 12:00:01</span> "
                  "<span>UTC+01:00 (CET)</span>"));
    EXPECT_THAT(strPage, HasSubstr(Tile("Calls", 1)));
    EXPECT_THAT(strPage, HasSubstr(Tile("Wrong clock", 0)));
    EXPECT_THAT(strPage, HasSubstr("\"calls\":[0,0,0,500],\n\"apart\":[],\n\"torn\":[]"));
    EXPECT_THAT(strPage, HasSubstr("<section aria-labelledby=\"clocks-title\" hidden>"));
    EXPECT_THAT(strPage, HasSubstr("<section aria-labelledby=\"damages-title\" hidden>"));
    EXPECT_THAT(strPage, Not(HasSubstr("id=\"left-out\"")));
    EXPECT_THAT(strPage, Not(HasSubstr("{{")));
}

TEST(ReportTest, OfAnEmptyLogBeginsAndEndsAtZero) {
    EXPECT_THAT(Page(""), HasSubstr("{\"start\":0,\"end\":0,\"threads\":[],"));
}

// Only the error that is asked for behind a call shows that it failed.
TEST(ReportTest, MarksFunctionsWithFailedCalls) {
    const std::string strAsked =
        Entry("x", "Java_vex_jni_TAVClientJNI_GetLastError", 501, "2024-03-05 09:07:02:500") + "\r\n\r\n" +
        Entry("x", "Java_vex_jni_TAVClientJNI_GetLastError", 505, "2024-03-05 09:07:02:600") + "\r\n\r\n";
    const std::string strRow = "<th scope=\"row\">P7Sign</th>" + Cell("1");
    EXPECT_THAT(Page(Sign("2024-03-05 09:07:02:000", true) + strAsked), HasSubstr(strRow + "<td class=\"bad\">1</td>"));
    EXPECT_THAT(Page(Sign("2024-03-05 09:07:02:000", true) + Sign("2024-03-05 09:07:02:400", false) + strAsked),
                HasSubstr(strRow + "<td>0</td>"));
}

// Each bar is the lower bound of its durations and their number.
TEST(ReportTest, ListsTheDurationsOfEachFunction) {
    const std::string strPage = Page(Sign("2024-03-05 09:07:02:000", true) + Sign("2024-03-05 09:07:02:001", false) +
                                     Sign("2024-03-05 09:07:02:010", true) + Sign("2024-03-05 09:07:02:012", false) +
                                     Entry("x Enter.", "Other", 1, "2024-03-05 09:07:02:020") + "\r\n\r\n");
    EXPECT_THAT(strPage, HasSubstr("\"functions\":[{\"name\":\"P7Sign\",\"median\":1,\"p99\":2,\"bars\":[1,1,2,1]},"
                                   "{\"name\":\"Other\",\"median\":0,\"p99\":0,\"bars\":[]}]"));
}

TEST(ReportTest, KeepsWrongClocksApart) {
    const std::string strPage =
        Page(Sign("2024-03-05 09:07:02:000", true) + Sign("2024-03-05 09:07:02:500", false) +
             Sign("2099-03-05 09:07:02:600", true, 1) + Sign("2024-03-05 09:07:02:700", false, 1) +
             Sign("2024-03-05 09:07:02:800", true) + Sign("2024-03-08 09:07:02:900", false) +
             Sign("2024-03-05 09:07:03:000", true) + Sign("2024-03-05 09:07:03:001", false));
    EXPECT_THAT(strPage,
                HasSubstr("<span>2024-03-05 09:07:02.000000</span> to <span>2024-03-05 09:07:03.000001</span>"));
    EXPECT_THAT(strPage, HasSubstr("<section aria-labelledby=\"clocks-title\">"));
    EXPECT_THAT(strPage, HasSubstr(Tile("Wrong clock", 2)));
    EXPECT_THAT(strPage, HasSubstr("<tr>" + Cell("2024-03-08 09:07:02.000900") + Cell("2024-03-08 09:07:02.000900") +
                                   Cell("1") + "</tr>\n<tr>" + Cell("2099-03-05 09:07:02.000600") +
                                   Cell("2099-03-05 09:07:02.000600") + Cell("1") + "</tr>"));
    // The second and third call have a wrong begin or end; the third takes three days and 100 microseconds.
    EXPECT_THAT(strPage, HasSubstr("\"end\":1000001,"));
    EXPECT_THAT(strPage, HasSubstr("\"calls\":[0,0,0,500,1,0,2366755200000600,0,0,0,800,259200000100,0,0,1000000,1],\n"
                                   "\"apart\":[1,700,2,259200000900],"));
    EXPECT_THAT(strPage, HasSubstr("Durations left out here and below: 2."));
}

TEST(ReportTest, ListsDamagedPlaces) {
    const std::string strTorn = Entry("x", "Java_vex_jni_TAVClientJNI_P7Sign", 325, "2024-03-05 09:07:02:000");
    const std::string strPage = Page("rest\r\n\r\n" + strTorn + Sign("2024-03-05 09:07:02:500", false));
    EXPECT_THAT(strPage, HasSubstr("<section aria-labelledby=\"damages-title\">"));
    EXPECT_THAT(strPage, HasSubstr(Tile("Torn records", 1)));
    EXPECT_THAT(strPage, HasSubstr(Tile("Fragments", 1)));
    EXPECT_THAT(strPage, HasSubstr("<tr>" + Cell("0") + Cell("8") + Cell("fragment") + Cell("") + Cell("") + Cell("") +
                                   Cell("") + "</tr>\n<tr>" + Cell("8") + Cell(std::to_string(strTorn.size())) +
                                   Cell("torn record") + Cell("2024-03-05 09:07:02.000000") + Cell("4711") +
                                   Cell("-12") + Cell("P7Sign") + "</tr>\n</tbody>"));
    EXPECT_THAT(strPage, HasSubstr("\"torn\":[0,0]"));
}

TEST(ReportTest, SaysHowManyDamagedPlacesItLeavesOut) {
    for (const std::size_t cMore : {0U, 1U}) {
        std::string strLog;
        for (std::size_t n = 0; n < vexlog::Report::kMostDamages + cMore; ++n) {
            strLog += "rest\r\n\r\n";
        }
        const std::string strPage = Page(strLog);
        EXPECT_THAT(strPage, HasSubstr(Tile("Fragments", static_cast<int>(vexlog::Report::kMostDamages + cMore))));
        EXPECT_EQ(strPage.find("The list has the first 1000 of 1001.") != std::string::npos, cMore > 0);
    }
}

TEST(ReportTest, ListsATornMessage) {
    const std::string strMessage = "first\r\nsecond\r\n\r\n";
    const std::string strRest = "third\r\nfourth";
    const std::string strFirst = Entry(strMessage, "Java_vex_jni_TAVClientJNI_P7Sign", 325, "2024-03-05 09:07:02:000");
    const std::string strPage = Page(strFirst + strRest + Sign("2024-03-05 09:07:02:500", false));
    EXPECT_THAT(strPage, HasSubstr(Tile("Continued", 1)));
    EXPECT_THAT(strPage, HasSubstr(Tile("Torn records", 0)));
    EXPECT_THAT(strPage,
                HasSubstr("<tr>" + Cell(std::to_string(strFirst.size())) + Cell(std::to_string(strRest.size())) +
                          Cell("torn message") + Cell("2024-03-05 09:07:02.000000") + Cell("4711") + Cell("-12") +
                          Cell("P7Sign") + "</tr>\n</tbody>"));
}

// ---- Selections ----

struct ReportSelectionRow : Row {
    vexlog::Filter filter;
    std::string strSentence;  // behind "only a part of the log"; empty: there is none
};

class ReportSelectionTest : public testing::TestWithParam<ReportSelectionRow> {};

TEST_P(ReportSelectionTest, IsSaid) {
    const std::string strPage = Page(Sign("2024-03-05 09:07:02:000", true), Origin(), GetParam().filter);
    const std::string strSentence = GetParam().strSentence;
    EXPECT_EQ(strPage.find("id=\"selection\"") != std::string::npos, !strSentence.empty());
    EXPECT_THAT(strPage, HasSubstr(strSentence.empty() ? "" : "only a part of the log: " + strSentence + ".</p>"));
}

INSTANTIATE_TEST_SUITE_P(
    Filters, ReportSelectionTest,
    testing::Values(
        ReportSelectionRow{{"None"}, {}, ""},
        ReportSelectionRow{{"Process"}, {.processes = {4711}}, "process <code>4711</code>"},
        ReportSelectionRow{{"SeveralThreads"},
                           {.threads = {-12, 7, 8}},
                           "thread <code>-12</code> or <code>7</code> or <code>8</code>"},
        ReportSelectionRow{{"Since"}, {.since = At("2024-03-05")}, "from <code>2024-03-05 00:00:00.000000</code>"},
        ReportSelectionRow{
            {"All"},
            {.functions = {"P7Sign"},
             .threads = {-12},
             .processes = {4711},
             .since = At("2024-03-05"),
             .until = At("2024-03-06")},
            "function <code>P7Sign</code>; process <code>4711</code>; thread <code>-12</code>; "
            "from <code>2024-03-05 00:00:00.000000</code>; until <code>2024-03-06 00:00:00.000000</code>"},
        ReportSelectionRow{{"Markup"}, {.functions = {"<b>&"}}, "function <code>&#60;b&#62;&#38;</code>"},
        ReportSelectionRow{{"Reordering"}, {.functions = {"a\xE2\x80\xAE"}}, "function <code>a\\u{202e}</code>"}),
    RowName);

TEST(ReportTest, ShowsOnlyTheSelectedDamages) {
    const std::string strTorn = Entry("x", "Java_vex_jni_TAVClientJNI_P7Sign", 325, "2024-03-05 09:07:02:000");
    const std::string strOther = Entry("x", "Java_vex_jni_TAVClientJNI_P1Sign", 200, "2024-03-05 09:07:02:100", 4712);
    const std::string strLog = "rest\r\n\r\n" + strOther + strTorn + Sign("2024-03-05 09:07:02:500", false);
    const std::string strPage = Page(strLog, Origin(), {.processes = {4711}});
    EXPECT_THAT(strPage, HasSubstr(Tile("Torn records", 1)));
    EXPECT_THAT(strPage, HasSubstr(Tile("Fragments", 0)));
    EXPECT_THAT(strPage, HasSubstr("<tbody>\n<tr>" + Cell(std::to_string(8 + strOther.size())) +
                                   Cell(std::to_string(strTorn.size())) + Cell("torn record")));
    EXPECT_THAT(strPage, HasSubstr("\"threads\":[[4711,-12]]"));
    EXPECT_THAT(strPage, HasSubstr("\"torn\":[0,0]"));
    EXPECT_THAT(strPage, Not(HasSubstr(Cell("4712"))));
    // Fragments have no process and no time.
    EXPECT_THAT(Page("rest\r\n\r\n", Origin(), {.since = At("2024-03-05")}),
                HasSubstr("<section aria-labelledby=\"damages-title\" hidden>"));
}

TEST(ReportTest, CountsOnlyTheSelectedWrongClocks) {
    const std::string strLog = Sign("2024-03-05 09:07:02:000", true) + Sign("2024-03-05 09:07:02:500", false) +
                               Sign("2099-03-05 09:07:02:000", true, 1, 4712) +
                               Sign("2024-03-07 09:07:02:000", true, 1, 4713) +
                               Sign("2024-03-07 09:07:02:500", false, 1, 4713) + Sign("2024-03-05 09:07:03:000", true) +
                               Sign("2024-03-05 09:07:03:500", false);
    EXPECT_THAT(Page(strLog), HasSubstr(Tile("Wrong clock", 3)));
    const std::string strRight = Page(strLog, Origin(), {.processes = {4711}});
    EXPECT_THAT(strRight, HasSubstr(Tile("Wrong clock", 0)));
    EXPECT_THAT(strRight, HasSubstr("<section aria-labelledby=\"clocks-title\" hidden>"));
    // Alone, these records are in order. The others show that their clock was wrong.
    const std::string strWrong = Page(strLog, Origin(), {.since = At("2024-03-06"), .until = At("2024-03-08")});
    EXPECT_THAT(strWrong, HasSubstr(Tile("Calls", 1)));
    EXPECT_THAT(strWrong, HasSubstr(Tile("Wrong clock", 2)));
    EXPECT_THAT(strWrong,
                HasSubstr("<tbody>\n" + WrongClock("2024-03-07 09:07:02.000000", "2024-03-07 09:07:02.000500", 2) +
                          "</tbody>"));
    EXPECT_THAT(strWrong, HasSubstr("\"apart\":[0,"));
}

// ---- Several logs ----

TEST(ReportTest, NamesTheLogOfADamage) {
    const TempDirectory directory;
    const std::string strFirst = directory.Write("first", "rest\r\n\r\n" + Sign("2024-03-05 09:07:02:000", true));
    const std::string strSecond = directory.Write("<b>", "lost\r\n\r\n" + Sign("2024-03-05 09:07:01:000", true, 1));
    vexlog::Report report;
    vexlog::Merge({strFirst, strSecond}).Read(report, [](const vexlog::Source&) {});
    const std::string strPage = PageOf(report);
    EXPECT_THAT(strPage, HasSubstr(Tile("Fragments", 2)));
    EXPECT_THAT(strPage, HasSubstr(Cell(strFirst + ": 0") + Cell("8") + Cell("fragment")));
    EXPECT_THAT(strPage, HasSubstr("&#60;b&#62;: 0</td>"));
}

// The first log's clock was a day ahead until it was set, so its right records are read behind those of the second.
TEST(ReportTest, JudgesTheClockOfEachLog) {
    const TempDirectory directory;
    const std::string strAhead =
        directory.Write("ahead", Sign("2024-03-06 09:00:00:000", true) + Sign("2024-03-06 09:00:00:500", false) +
                                     Sign("2024-03-05 09:00:01:000", true) + Sign("2024-03-05 09:00:01:500", false) +
                                     Sign("2024-03-05 09:00:02:000", true) + Sign("2024-03-05 09:00:02:500", false));
    std::string strLong;
    for (int n = 0; n < 10; ++n) {
        strLong += Sign("2024-03-05 12:00:0" + std::to_string(n) + ":000", true, 1, 4712) +
                   Sign("2024-03-05 12:00:0" + std::to_string(n) + ":500", false, 1, 4712);
    }
    vexlog::Report report;
    vexlog::Merge({strAhead, directory.Write("long", strLong)}).Read(report, [](const vexlog::Source&) {});
    const std::string strPage = PageOf(report);
    EXPECT_THAT(strPage, HasSubstr(Tile("Wrong clock", 2)));
    EXPECT_THAT(strPage,
                HasSubstr("<tbody>\n" + WrongClock("2024-03-06 09:00:00.000000", "2024-03-06 09:00:00.000500", 2) +
                          "</tbody>"));
    EXPECT_THAT(strPage,
                HasSubstr("<span>2024-03-05 09:00:01.000000</span> to <span>2024-03-05 12:00:09.000500</span>"));
}

// ---- Names ----

struct NameRow : Row {
    std::string strText;
    std::string strHtml;
    std::string strJson;
};

class ReportNamesTest : public testing::TestWithParam<NameRow> {};

TEST_P(ReportNamesTest, AreEscapedVisibly) {
    const NameRow& row = GetParam();
    const std::string strPage = Page(Entry("x Enter.", row.strText, 7, "2024-03-05 09:07:02:000") + "\r\n\r\n",
                                     {"log" + row.strText, "host" + row.strText, "zone" + row.strText, Origin().made});
    EXPECT_THAT(strPage, HasSubstr("<code>log" + row.strHtml + "</code>"));
    EXPECT_THAT(strPage, HasSubstr("<code>host" + row.strHtml + "</code>"));
    EXPECT_THAT(strPage, HasSubstr("<span>zone" + row.strHtml + "</span>"));
    EXPECT_THAT(strPage, HasSubstr("<th scope=\"row\">" + row.strHtml + "</th>"));
    EXPECT_THAT(strPage, HasSubstr("{\"name\":\"" + row.strJson + "\""));
}

INSTANTIATE_TEST_SUITE_P(Names, ReportNamesTest,
                         testing::Values(NameRow{{"Plain"}, "f", "f", "f"},
                                         NameRow{{"RightToLeftOverride"},
                                                 "a\xE2\x80\xAE"
                                                 "b",
                                                 "a\\u{202e}b",
                                                 "a\\\\u{202e}b"},
                                         NameRow{{"Isolate"}, "\xE2\x81\xA7", "\\u{2067}", "\\\\u{2067}"},
                                         NameRow{{"Invisible"}, "\xE2\x80\x8B", "\\u{200b}", "\\\\u{200b}"},
                                         NameRow{{"Control"}, "\x1b[2J", "\\x1b[2J", "\\\\x1b[2J"},
                                         NameRow{{"NotUtf8"}, "a\xE9", "a\\xe9", "a\\\\xe9"},
                                         NameRow{{"Hebrew"}, "\xD7\x90", "\xD7\x90", "\xD7\x90"},
                                         NameRow{{"Markup"}, "<b>&", "&#60;b&#62;&#38;", "\\u003cb\\u003e\\u0026"}),
                         RowName);

// The zone of this process for a test.
class TimeZone {
public:
    explicit TimeZone(const char* pszZone) {
        const char* const pszOld = getenv("TZ");
        m_old = pszOld == nullptr ? std::nullopt : std::optional<std::string>(pszOld);
        setenv("TZ", pszZone, 1);
        tzset();
    }
    ~TimeZone() {
        if (m_old) {
            setenv("TZ", m_old->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;

private:
    std::optional<std::string> m_old;
};

struct ZoneRow : Row {
    const char* pszZone;
    std::string strExpected;
};

class ZoneTest : public testing::TestWithParam<ZoneRow> {};

TEST_P(ZoneTest, HasOffsetAndName) {
    const TimeZone zone(GetParam().pszZone);
    EXPECT_EQ(vexlog::ZoneText(1'700'000'000), GetParam().strExpected);
    EXPECT_EQ(vexlog::OriginHere("x").strZone, GetParam().strExpected);
}

INSTANTIATE_TEST_SUITE_P(Zones, ZoneTest,
                         testing::Values(ZoneRow{{"Utc"}, "UTC0", "UTC"},
                                         ZoneRow{{"East"}, "IST-5:30", "UTC+05:30 (IST)"},
                                         ZoneRow{{"West"}, "NST3:30", "UTC-03:30 (NST)"},
                                         ZoneRow{{"Nameless"}, "<+03>-3", "UTC+03:00"},
                                         ZoneRow{{"OtherNameAtNoOffset"}, "WET0", "UTC+00:00 (WET)"}),
                         RowName);

TEST(OriginTest, IsThisHostNow) {
    const TimeZone zone("IST-5:30");
    const auto now = [] { return vexlog::CivilOfSystem(vexlog::SystemNow()); };
    const auto before = now();
    const vexlog::ReportOrigin origin = vexlog::OriginHere("log");
    EXPECT_EQ(origin.strSource, "log");
    EXPECT_FALSE(origin.strHost.empty());
    EXPECT_GE(origin.made, before);
    EXPECT_LE(origin.made, now());
}

}  // namespace
