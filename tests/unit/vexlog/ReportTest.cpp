// What the report's page contains. Whether a browser shows it: tests/integration/VexlogReport.py.
#include "Report.h"

#include <gmock/gmock.h>
#include <stdlib.h>

#include "Collected.h"
#include "RecordParser.h"
#include "Row.h"
#include "UserTime.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr int kNowhere = -1;

vexlog::ReportOrigin Origin() {
    return {"PILog.txt", "host", "UTC+01:00 (CET)", *vexlog::ParseUserTime("2024-03-10T12:00:01.5", 0).time};
}

std::string Page(std::string_view log, const vexlog::ReportOrigin& origin = Origin()) {
    vexlog::Report report;
    vexlog::RecordParser parser(report);
    parser.Feed(log);
    parser.Finish();
    report.Finish();
    vexposix::OutputBuffer output(kNowhere);
    report.Print(origin, output);
    return std::string(output.Pending());
}

std::string Tile(const std::string& strName, int nValue) {
    return "<dt>" + strName + "</dt><dd>" + std::to_string(nValue) + "</dd>";
}

std::string Cell(const std::string& strText) {
    return "<td>" + strText + "</td>";
}

std::string Sign(const std::string& strTime, bool bEnter, int nThread = -12) {
    return Entry("x", "Java_vex_jni_TAVClientJNI_P7Sign", bEnter ? 325 : 368, strTime, 4711, nThread) + "\r\n\r\n";
}

TEST(ReportTest, SaysWhatItIsAbout) {
    const std::string strPage = Page(Sign("2024-03-05 09:07:02:000", true) + Sign("2024-03-05 09:07:02:500", false));
    EXPECT_THAT(strPage, HasSubstr("<code>PILog.txt</code> <span>2024-03-05 09:07:02.000000</span> to "
                                   "<span>2024-03-05 09:07:02.000500</span>"));
    EXPECT_THAT(strPage, HasSubstr("Made on <code>host</code> at <span>2024-03-10 12:00:01</span> "
                                   "<span>UTC+01:00 (CET)</span>"));
    EXPECT_THAT(strPage, HasSubstr(Tile("Calls", 1)));
    EXPECT_THAT(strPage, HasSubstr(Tile("Wrong clock", 0)));
    EXPECT_THAT(strPage, HasSubstr("\"calls\":[0,0,0,500],\n\"apart\":[],\n\"torn\":[]"));
    EXPECT_THAT(strPage, HasSubstr("<section aria-labelledby=\"clocks-title\" hidden>"));
    EXPECT_THAT(strPage, HasSubstr("<section aria-labelledby=\"damages-title\" hidden>"));
    EXPECT_THAT(strPage, Not(HasSubstr("id=\"left-out\"")));
    EXPECT_THAT(strPage, Not(HasSubstr("{{")));
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
