#include "timestamp/HttpMessage.h"

#include "Row.h"
#include "TimeStampWorld.h"

namespace vextimestamp {
namespace {

const std::string kHead = "HTTP/1.0 200 OK\r\nContent-Type: application/timestamp-reply\r\n";

HttpMessage NewMessage() {
    return {ReadUrl("http://clock.example:8080/path?q=1"), BytesOf(kRequest)};
}

struct UrlRow : Row {
    std::string strUrl;
    std::string strHost;
    std::string strPort;
    std::string strHostField;
    std::string strPath;
};

class GoodUrl : public testing::TestWithParam<UrlRow> {};

TEST_P(GoodUrl, IsTakenApart) {
    const UrlRow& row = GetParam();
    const HttpAddress address = ReadUrl(row.strUrl);
    EXPECT_EQ(address.strHost, row.strHost);
    EXPECT_EQ(address.strPort, row.strPort);
    EXPECT_EQ(address.strHostField, row.strHostField);
    EXPECT_EQ(address.strPath, row.strPath);
}

INSTANTIATE_TEST_SUITE_P(
    Urls, GoodUrl,
    testing::Values(UrlRow{{"HostOnly"}, "http://clock.example", "clock.example", "80", "clock.example", "/"},
                    UrlRow{{"Slash"}, "http://clock.example/", "clock.example", "80", "clock.example", "/"},
                    UrlRow{{"All"}, "http://h:65535/a/b?c=d&e", "h", "65535", "h:65535", "/a/b?c=d&e"},
                    UrlRow{{"Version6"}, "http://[::1]:81/x", "::1", "81", "[::1]:81", "/x"}),
    RowName);

struct BadUrlRow : Row {
    std::string strUrl;
    std::string strFault;
};

class BadUrl : public testing::TestWithParam<BadUrlRow> {};

TEST_P(BadUrl, IsRefused) {
    EXPECT_THAT(FaultOf([] { ReadUrl(GetParam().strUrl); }), testing::HasSubstr(GetParam().strFault));
}

INSTANTIATE_TEST_SUITE_P(Urls, BadUrl,
                         testing::Values(BadUrlRow{{"Empty"}, "", "http://"},
                                         BadUrlRow{{"Https"}, "https://h/", "does not begin with http://"},
                                         BadUrlRow{{"NoScheme"}, "h/path", "does not begin with http://"},
                                         BadUrlRow{{"NewLine"}, "http://h/\r\nX: y", "blanks or other characters"},
                                         BadUrlRow{{"Blank"}, "http://h/a b", "%20"},
                                         BadUrlRow{{"NotAscii"}, "http://h/\xC3\xBC", "other characters"},
                                         BadUrlRow{{"Delete"}, "http://h/\x7F", "other characters"},
                                         BadUrlRow{{"User"}, "http://me:secret@h/", "user name"},
                                         BadUrlRow{{"EmptyUser"}, "http://@h/", "user name"},
                                         BadUrlRow{{"Fragment"}, "http://h/a#b", "#"},
                                         BadUrlRow{{"NoHost"}, "http:///a", "no address"},
                                         BadUrlRow{{"PortZero"}, "http://h:0/", "no address"},
                                         BadUrlRow{{"PortTooLarge"}, "http://h:65536/", "no address"},
                                         BadUrlRow{{"PortByName"}, "http://h:http/", "no address"},
                                         BadUrlRow{{"OpenBracket"}, "http://[::1/", "no address"}),
                         RowName);

TEST(HttpMessage, SendsTheRequestAsItIs) {
    const HttpMessage message = NewMessage();
    const std::string strSent(message.RequestBytes());
    EXPECT_THAT(strSent, testing::StartsWith("POST /path?q=1 HTTP/1.0\r\n"));
    EXPECT_THAT(strSent, testing::HasSubstr("\r\nHost: clock.example:8080\r\n"));
    EXPECT_THAT(strSent, testing::HasSubstr("\r\nContent-Type: application/timestamp-query\r\n"));
    EXPECT_THAT(strSent, testing::HasSubstr("\r\nContent-Length: 9\r\n"));
    EXPECT_THAT(strSent, testing::EndsWith("\r\n\r\n" + kRequest));
}

TEST(HttpMessage, IsMadeOnlyOfDer) {
    EXPECT_NE(FaultOf([] { HttpMessage(ReadUrl("http://h/"), BytesOf("request")); }), "");
}

// The same answer in every partition into two pieces, and byte by byte.
TEST(HttpMessage, TakesAnAnswerInAnyPieces) {
    const std::string strBody(300, '\n');
    const std::string strAnswer = kHead + "Content-Length: 300\r\n\r\n" + strBody;
    for (std::size_t cb = 1; cb < strAnswer.size(); ++cb) {
        HttpMessage message = NewMessage();
        EXPECT_FALSE(message.Take(strAnswer.substr(0, cb))) << cb;
        EXPECT_TRUE(message.Take(strAnswer.substr(cb))) << cb;
        EXPECT_EQ(TextOf(message.TakeBody()), strBody) << cb;
    }
    HttpMessage message = NewMessage();
    for (std::size_t i = 0; i < strAnswer.size(); ++i) {
        EXPECT_EQ(message.Take(strAnswer.substr(i, 1)), i + 1 == strAnswer.size()) << i;
    }
    EXPECT_EQ(TextOf(message.TakeBody()), strBody);
}

TEST(HttpMessage, WithoutLengthEndsWithTheConnection) {
    HttpMessage message = NewMessage();
    EXPECT_FALSE(message.Take(kHead + "\r\nbody"));
    EXPECT_FALSE(message.Take(" and more"));
    EXPECT_TRUE(message.Take(""));
    EXPECT_EQ(TextOf(message.TakeBody()), "body and more");
}

TEST(HttpMessage, HasNothingBehindItsLength) {
    HttpMessage message = NewMessage();
    EXPECT_TRUE(message.Take(kHead + "Content-Length: 4\r\n\r\nbodyX"));
    EXPECT_EQ(TextOf(message.TakeBody()), "body");
}

TEST(HttpMessage, OfLengthZeroIsCompleteAtOnce) {
    HttpMessage message = NewMessage();
    EXPECT_TRUE(message.Take(kHead + "Content-Length: 0\r\n\r\n"));
    EXPECT_EQ(TextOf(message.TakeBody()), "");
}

// OpenSSL 3.0 takes none of them but the first.
TEST(HttpMessage, TakesEveryFormOfTheTypeOfTheContent) {
    for (const char* const pszType : {"application/timestamp-reply", "application/timestamp-reply; charset=utf-8",
                                      "application/timestamp-reply;x=\"a;b\"", " \tAPPLICATION/TimeStamp-Reply ;",
                                      "application/timestamp-reply \t"}) {
        for (const char* const pszName : {"Content-Type:", "content-TYPE:"}) {
            HttpMessage message = NewMessage();
            const std::string strHead =
                std::string("HTTP/1.1 200 OK\r\nX: y\r\nContent_Type: z\r\n") + pszName + pszType + "\r\n";
            EXPECT_TRUE(message.Take(strHead + "Content-Length: 4\r\n\r\nbody")) << strHead;
            EXPECT_EQ(TextOf(message.TakeBody()), "body");
        }
    }
}

// OpenSSL takes neither blanks behind a length nor a field of several lines.
TEST(HttpMessage, TakesEveryFormOfItsFields) {
    const std::string strType = "Content-Type: application/timestamp-reply\r\n";
    for (const std::string& strFields : std::initializer_list<std::string>{
             strType + "Content-Length: 4 \t\r\n", strType + "Content-Length:4 \n",
             strType + "Content-Length:\r\n 4\r\n", strType + "Content-Length:\r\n\t \r\n 4\r\n",
             "Content-Type:\r\n\tapplication/timestamp-reply;\r\n x=y\r\nContent-Length: 4\r\n",
             "X: y\r\n Content-Type: text/html\r\n Content-Length: 5\r\n" + strType + "Content-Length: 4\r\n"}) {
        HttpMessage message = NewMessage();
        EXPECT_TRUE(message.Take("HTTP/1.1 200 OK\r\n" + strFields + "\r\nbody")) << strFields;
        EXPECT_EQ(TextOf(message.TakeBody()), "body");
    }
}

TEST(HttpMessage, HasAtMost64KiB) {
    for (const std::size_t cb : {kMostReply - 1, kMostReply, kMostReply + 1}) {
        const std::string strBody(cb, 'x');
        HttpMessage announced = NewMessage();
        HttpMessage open = NewMessage();
        const std::string strLength = "Content-Length: " + std::to_string(cb) + "\r\n\r\n";
        const std::string strFirst = FaultOf([&] { EXPECT_TRUE(announced.Take(kHead + strLength + strBody)); });
        const std::string strSecond = FaultOf([&] {
            EXPECT_FALSE(open.Take(kHead + "\r\n" + strBody));
            EXPECT_TRUE(open.Take(""));
        });
        EXPECT_EQ(strFirst.empty(), cb <= kMostReply) << strFirst;
        EXPECT_EQ(strSecond.empty(), cb <= kMostReply) << strSecond;
    }
}

struct AnswerRow : Row {
    std::string strAnswer;  // then the connection ends
    std::string strFault;
};

class BadAnswer : public testing::TestWithParam<AnswerRow> {};

TEST_P(BadAnswer, IsAFault) {
    const std::string strWhole = FaultOf([] {
        HttpMessage message = NewMessage();
        if (!GetParam().strAnswer.empty()) {
            EXPECT_FALSE(message.Take(GetParam().strAnswer));
        }
        EXPECT_FALSE(message.Take(""));
    });
    EXPECT_THAT(strWhole, testing::HasSubstr(GetParam().strFault));
    const std::string strPieces = FaultOf([] {
        HttpMessage message = NewMessage();
        for (const char ch : GetParam().strAnswer) {
            EXPECT_FALSE(message.Take(std::string_view(&ch, 1)));
        }
        EXPECT_FALSE(message.Take(""));
    });
    EXPECT_THAT(strPieces, testing::HasSubstr(GetParam().strFault));
    EXPECT_EQ(strPieces.find_first_of("\n\r\x1b"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, BadAnswer,
    testing::Values(
        AnswerRow{{"Nothing"}, "", "ends within its header"},
        AnswerRow{{"NotHttp"}, "220 mail.example ready\r\n", "not HTTP"},
        AnswerRow{{"ShortVersion"}, "HTTP/1.1\r\n\r\n", "not HTTP"},
        AnswerRow{{"NoNumber"}, "HTTP/1.1 OK, that will do\r\n\r\n", "not HTTP"},
        AnswerRow{{"ShortNumber"}, "HTTP/1.1 20", "ends within its header"},
        AnswerRow{{"ShortNumberOfALine"}, "HTTP/1.1 20\n\n", "not HTTP"},
        AnswerRow{{"NumberWithASign"}, "HTTP/1.1 +20 OK\r\n\r\n", "not HTTP"},
        AnswerRow{{"ServerError"}, "HTTP/1.1 500 Out of order\r\n\r\n", "HTTP 500 Out of order;"},
        // Some versions of OpenSSL would return the body.
        AnswerRow{{"ServerErrorWithReply"},
                  "HTTP/1.1 500 x\r\nContent-Type: application/timestamp-reply\r\nContent-Length: 1\r\n\r\nx",
                  "HTTP 500 x;"},
        AnswerRow{{"Redirect"}, "HTTP/1.1 302 Found\r\nLocation: http://other/\r\n\r\n", "a redirect"},
        AnswerRow{{"PermanentRedirect"}, "HTTP/1.1 308 Moved\r\nLocation: http://other/\r\n\r\n", "a redirect"},
        AnswerRow{{"NoContent"}, "HTTP/1.1 204 None\r\n\r\n", "HTTP 204 None;"},
        AnswerRow{{"HostileStatus"}, "HTTP/1.1 500 a\x1b[2Jb\r\n\r\n", R"(a\x1b[2Jb)"},
        AnswerRow{{"Page"}, "HTTP/1.1 200 OK\r\nContent-Type: text/html\r\n\r\nx", "no time-stamp reply"},
        AnswerRow{{"OtherTypeWithParameter"},
                  "HTTP/1.1 200 OK\r\nContent-Type: text/plain; x=application/timestamp-reply\r\n\r\nx",
                  "it is text/plain; x=application/timestamp-reply, not"},
        AnswerRow{{"LongerType"},
                  "HTTP/1.1 200 OK\r\nContent-Type: application/timestamp-reply2\r\n\r\nx",
                  "it is application/timestamp-reply2, not"},
        AnswerRow{{"HostileType"}, "HTTP/1.1 200 OK\r\nContent-Type: a\x1b[2Jb\r\n\r\nx", R"(it is a\x1b[2Jb, not)"},
        AnswerRow{
            {"TypeInTheBody"}, "HTTP/1.1 200 OK\r\n\r\nContent-Type: application/timestamp-reply\r\n", "does not say"},
        AnswerRow{{"NoType"}, "HTTP/1.1 200 OK\r\n\r\nx", "does not say"},
        AnswerRow{{"TwoGiB"}, kHead + "Content-Length: 2147483648\r\n\r\nx", "no time-stamp reply"},
        AnswerRow{{"NegativeLength"}, kHead + "Content-Length: -1\r\n\r\nx", "no time-stamp reply"},
        AnswerRow{{"LengthIsNoNumber"}, kHead + "Content-Length: all\r\n\r\nx", "no time-stamp reply"},
        AnswerRow{{"Cut"}, kHead + "Content-Length: 10\r\n\r\nbody", "ends after 4 of 10 bytes"},
        AnswerRow{{"CutAtOnce"}, kHead + "Content-Length: 10\r\n\r\n", "ends after 0 of 10 bytes"},
        AnswerRow{{"EndlessStatus"}, "HTTP/1.1 " + std::string(5000, 'x'), "too long"},
        AnswerRow{{"EndlessLine"}, "HTTP/1.1 200 OK\r\nX: " + std::string(20000, 'x'), "no time-stamp reply"},
        AnswerRow{{"EndsInTheHeader"}, kHead, "ends within its header"}),
    RowName);

TEST(HttpMessage, WithAHeaderWithoutEndIsAFault) {
    HttpMessage message = NewMessage();
    const std::string strLine = "X: " + std::string(95, 'x') + "\r\n";
    const std::string strFault = FaultOf([&] {
        message.Take("HTTP/1.1 200 OK\r\n");
        for (int i = 0; i < 1000; ++i) {
            message.Take(strLine);
        }
    });
    EXPECT_THAT(strFault, testing::HasSubstr("header is too long"));
}

}  // namespace
}  // namespace vextimestamp
