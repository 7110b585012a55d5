// Which message headers the server accepts.
#include "RequestHeader.h"

#include <gtest/gtest.h>

#include "Row.h"

namespace {

constexpr DWORD kMaxMessage = 1000;

struct HeaderRow : Row {
    USHORT usSession;
    USHORT usObject;
    USHORT usPort;
    DWORD dwParameter;
    DWORD dwMessageLen;
    const char* pszFault;  // empty: accepted
};

class RequestHeader : public testing::TestWithParam<HeaderRow> {};

TEST_P(RequestHeader, IsServedOrNot) {
    const HeaderRow& row = GetParam();
    RouteMessageHeader header{};
    header.Source = {7, 8, 1};
    header.Destination = {row.usSession, row.usObject, 1};  // the callback byte is ignored
    header.SequenceNum = ~DWORD{0};
    header.Paramter = row.dwParameter;
    header.MessageLen = row.dwMessageLen;
    EXPECT_EQ(vexfiled::FaultOf(header, row.usPort, kMaxMessage), row.pszFault);
}

INSTANTIATE_TEST_SUITE_P(
    All, RequestHeader,
    testing::Values(
        HeaderRow{{"Plain"}, 0, 101, 8766, 4, 24, ""}, HeaderRow{{"AllFlags"}, 0, 101, 8766, 15, 24, ""},
        HeaderRow{{"FlagAbove"}, 0, 101, 8766, 20, 24, "unknown flags 20"},
        HeaderRow{{"HighFlag"}, 0, 101, 8766, 0x100000004, 24, "unknown flags 4294967300"},
        HeaderRow{{"NoRequest"}, 0, 101, 8766, 11, 24, "a message that is not a request"},
        HeaderRow{{"NoFlags"}, 0, 101, 8766, 0, 24, "a message that is not a request"},
        HeaderRow{{"OtherObject"}, 0, 102, 8766, 4, 24, "a message for another server: session 0, object 102"},
        HeaderRow{{"OtherSession"}, 1, 101, 8766, 4, 24, "a message for another server: session 1, object 101"},
        HeaderRow{{"SameSum"}, 100, 1, 8766, 4, 24, ""}, HeaderRow{{"OtherPort"}, 300, 35, 9000, 4, 24, ""},
        HeaderRow{{"OtherPortUsualObject"}, 0, 101, 9000, 4, 24, ""},
        HeaderRow{{"SumThatWraps"}, 0, 57871, 1000, 4, 24, ""},
        HeaderRow{{"LargestSum"}, 65535, 65535, 8663, 4, 24, ""},
        HeaderRow{{"Empty"}, 0, 101, 8766, 4, 0, "an empty message"}, HeaderRow{{"OneByte"}, 0, 101, 8766, 4, 1, ""},
        HeaderRow{{"BelowTheLimit"}, 0, 101, 8766, 4, kMaxMessage - 1, ""},
        HeaderRow{{"TheLimit"}, 0, 101, 8766, 4, kMaxMessage, ""},
        HeaderRow{
            {"AboveTheLimit"}, 0, 101, 8766, 4, kMaxMessage + 1, "a message of 1001 bytes; --max-message is 1000"},
        HeaderRow{
            {"Huge"}, 0, 101, 8766, 4, ~DWORD{0}, "a message of 18446744073709551615 bytes; --max-message is 1000"}),
    RowName);

}  // namespace
