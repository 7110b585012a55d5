#include "posix/VisibleText.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "posix/OutputBuffer.h"

namespace vexposix {
namespace {

constexpr int kNowhere = -1;

struct Shown {
    std::string strText;
    std::string strUtf8;   // where all characters can be shown
    std::string strAscii;  // where only ASCII can
};

TEST(VisibleText, ForATerminal) {
    const Shown rows[] = {
        {"", "", ""},
        {"plain ~", "plain ~", "plain ~"},
        {"a\nb\rc\td", "a\\nb\\rc\\td", "a\\nb\\rc\\td"},
        {"\x1b[2J\x7f", "\\x1b[2J\\x7f", "\\x1b[2J\\x7f"},
        {std::string(1, '\0') + "x", "\\0x", "\\0x"},
        {std::string(3, '\0'), "\\0\\0\\0", "\\0\\0\\0"},
        {std::string(4, '\0') + "x", "\\0{4}x", "\\0{4}x"},
        {std::string(2000, '\0'), "\\0{2000}", "\\0{2000}"},
        {"\xC3\xA4", "\xC3\xA4", "\\u{e4}"},
        {"\xC2\x80", "\\u{80}", "\\u{80}"},                                    // a control character
        {"\xE2\x80\xAE", "\\u{202e}", "\\u{202e}"},                            // from right to left
        {"\xEF\xBB\xBF", "\\u{feff}", "\\u{feff}"},                            // has no width
        {"\xF3\xA0\x81\x81", "\\u{e0041}", "\\u{e0041}"},                      // a tag
        {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80", "\\u{1f600}"},                //
        {"\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF", "\\u{10ffff}"},               // the last character
        {"\xF4\x90\x80\x80", "\\xf4\\x90\\x80\\x80", "\\xf4\\x90\\x80\\x80"},  // behind it
        {"\xED\xA0\x80", "\\xed\\xa0\\x80", "\\xed\\xa0\\x80"},                // a surrogate
        {"\xC0\x80", "\\xc0\\x80", "\\xc0\\x80"},                              // overlong
        {"\xE2\x82", "\\xe2\\x82", "\\xe2\\x82"},                              // cut
        {"\xE2(\xA1", "\\xe2(\\xa1", "\\xe2(\\xa1"},                           // broken
        {"\x80", "\\x80", "\\x80"},
        {"\xFF", "\\xff", "\\xff"},
        {"\xFD\xBF\xBF\xBF\xBF\xBF", "\\xfd\\xbf\\xbf\\xbf\\xbf\\xbf", "\\xfd\\xbf\\xbf\\xbf\\xbf\\xbf"},
    };
    for (const Shown& row : rows) {
        EXPECT_EQ(Visible(row.strText, true), row.strUtf8);
        EXPECT_EQ(Visible(row.strText, false), row.strAscii);
    }
}

struct Written {
    std::string strText;
    std::string strJson;
    bool bComplete;  // nothing was replaced
    std::string strHtml;
};

TEST(VisibleText, ForJsonAndHtml) {
    const std::string strReplacement = "\xEF\xBF\xBD";
    const Written rows[] = {
        {"", "", true, ""},
        {"plain", "plain", true, "plain"},
        {"\"quoted\\\"", "\\\"quoted\\\\\\\"", true, "&#34;quoted\\&#34;"},
        {"it's", "it's", true, "it&#39;s"},
        {"</script>&", "\\u003c/script\\u003e\\u0026", true, "&#60;/script&#62;&#38;"},
        {"a\nb", "a\\u000ab", true, "a" + strReplacement + "b"},
        {std::string(1, '\0'), "\\u0000", true, strReplacement},
        {"\x7F", "\\u007f", true, strReplacement},
        {"\xC3\xA4", "\xC3\xA4", true, "\xC3\xA4"},
        {"\xE2\x80\xAE", "\\u202e", true, strReplacement},
        {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80", true, "\xF0\x9F\x98\x80"},
        {"\xF3\xA0\x80\x81", "\\udb40\\udc01", true, strReplacement},
        {"\xFF", strReplacement, false, strReplacement},
        {"a\xED\xA0\x80"
         "b",
         "a" + strReplacement + strReplacement + strReplacement + "b", false,
         "a" + strReplacement + strReplacement + strReplacement + "b"},
    };
    for (const Written& row : rows) {
        OutputBuffer json(kNowhere);
        EXPECT_EQ(AppendJsonText(json, row.strText), row.bComplete) << row.strText;
        EXPECT_EQ(json.Pending(), row.strJson);
        OutputBuffer quoted(kNowhere);
        EXPECT_EQ(AppendJsonString(quoted, row.strText), row.bComplete);
        EXPECT_EQ(quoted.Pending(), '"' + row.strJson + '"');
        OutputBuffer html(kNowhere);
        AppendHtml(html, row.strText);
        EXPECT_EQ(html.Pending(), row.strHtml);
    }
}

TEST(OutputBuffer, PadsNumbersAndLines) {
    OutputBuffer output(kNowhere);
    output.AppendPadded(7, 3, '0');
    output.AppendPadded(-12345, 3, '0');
    output.AppendNumber(8U);
    output.PadTo(12);
    output.PadTo(3);
    EXPECT_EQ(output.Pending(), "007-123458  ");
    output.Discard();
    EXPECT_EQ(output.Length(), 0U);
    output.WriteWhenFull();  // is not, so it writes nothing
    EXPECT_EQ(output.Length(), 0U);
}

}  // namespace
}  // namespace vexposix
