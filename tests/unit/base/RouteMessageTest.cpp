// The bytes of the records in messages and packets, and the rules for route messages.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "ParsePacket.h"
#include "PipeIPC.h"
#include "RouteMessage.h"
#include "VEXCltpmCommProtocolDef.h"

namespace {

template <typename TRecord>
std::vector<int> BytesOf(const TRecord& record) {
    BYTE aBytes[sizeof(TRecord)];
    std::memcpy(aBytes, &record, sizeof record);
    return std::vector<int>(std::begin(aBytes), std::end(aBytes));
}

// Literal bytes of the records on a little-endian machine.
TEST(Records, Bytes) {
    const RegClient regClient = {0x0201, 0x0403, 5};
    EXPECT_EQ(BytesOf(regClient), (std::vector<int>{1, 2, 3, 4, 5}));

    const RouteMessageHeader header = {
        {0x0201, 0x0403, 5}, {0x0706, 0x0908, 10}, 0x1211100F0E0D0C0B, 0x1A19181716151413, 0x2221201F1E1D1C1B};
    std::vector<int> counting(34);
    for (int n = 0; n < 34; ++n) {
        counting[static_cast<std::size_t>(n)] = n + 1;
    }
    EXPECT_EQ(BytesOf(header), counting);

    const ClientInfo clientInfo = {{0x0201, 0x0403, 5}, 0x09080706, 0x0D0C0B0A};
    counting.resize(13);
    EXPECT_EQ(BytesOf(clientInfo), counting);

    ClientRecvParamter paramter = {0x04030201, nullptr};
    const std::uintptr_t nThis = 0x0C0B0A0908070605;
    std::memcpy(reinterpret_cast<BYTE*>(&paramter) + 4, &nThis, sizeof nThis);
    CPipeIPC* const pThis = paramter.pThis;
    EXPECT_EQ(pThis, reinterpret_cast<CPipeIPC*>(nThis));
    counting.resize(12);
    EXPECT_EQ(BytesOf(paramter), counting);

    VEX_Packet_TLV tlv;
    std::memset(&tlv, 0, sizeof tlv);
    tlv.usType = 0x0201;
    tlv.usChildCount = 0x0403;
    tlv.dwDataLen = 0x0C0B0A0908070605;
    EXPECT_EQ(BytesOf(tlv), (std::vector<int>{1, 2, 3, 4, 0, 0, 0, 0, 5, 6, 7, 8, 9, 10, 11, 12}));
    EXPECT_TRUE((std::is_same_v<PVEX_Packet_TLV, tag_VEX_Packet_TLV*>));

    const _tagVEX_COMM_PROTOCOL command = {10, 0, 0x0102};
    EXPECT_EQ(BytesOf(command),
              (std::vector<int>{10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 1, 0, 0, 0, 0, 0, 0}));
}

TEST(Records, MessagesOwnTheirPayload) {
    RouteMessage message = {};
    message.Header.MessageLen = 3;
    message.Buffer.SetBuffer("abc", 3);
    const RouteMessage copy = message;
    message.Buffer.GetBytes()[0] = 'X';
    EXPECT_EQ(std::memcmp(copy.Buffer.GetAddress(), "abc", 3), 0);

    RequestParamter paramter = {nullptr, message.Buffer};
    EXPECT_EQ(paramter.Buffer.GetSize(), 3U);
}

TEST(RouteRules, Ports) {
    const struct {
        USHORT usSessionID;
        USHORT usObjID;
        int nPort;
        USHORT usSocketPort;
    } aCases[] = {
        {0, 0, 8665, 8665},   {0, 101, 8766, 8766}, {7, 101, 8773, 8773},         {0, 56870, 65535, 65535},
        {0, 56871, 65536, 0}, {1, 56871, 65537, 1}, {65535, 65535, 139735, 8663}, {30000, 30000, 68665, 3129},
    };
    for (const auto& c : aCases) {
        EXPECT_EQ(CRouteRules::ServerPort(c.usSessionID, c.usObjID), c.nPort);
        EXPECT_EQ(CRouteRules::SocketPort(c.nPort), c.usSocketPort);
    }
}

TEST(RouteRules, TenServiceObjects) {
    std::vector<int> services;
    for (int nObjID = 0; nObjID <= 0xFFFF; ++nObjID) {
        if (CRouteRules::IsServiceObject(static_cast<USHORT>(nObjID))) {
            services.push_back(nObjID);
        }
    }
    EXPECT_EQ(services, (std::vector<int>{2003, 2004, 2005, 2006, 4003, 6115, 6116, 22000, 32001, 42002}));
}

TEST(RouteRules, Registration) {
    const struct {
        RegClient owner;
        SOCKET socket;
        USHORT usSessionID;
    } aCases[] = {
        {{1000, 7, 1}, 5, 5},
        {{1000, 7, 0}, 0x12345, 0x2345},
        {{1000, 2003, 1}, 5, 1000},
        {{0, 42002, 0}, 5, 0},
    };
    for (const auto& c : aCases) {
        const RegClient registration = CRouteRules::BuildRegistration(c.owner, c.socket);
        EXPECT_EQ(USHORT{registration.SessionID}, c.usSessionID);
        EXPECT_EQ(USHORT{registration.ObjID}, USHORT{c.owner.ObjID});
        EXPECT_EQ(registration.WithCallBack, c.owner.WithCallBack);
    }
    // The status when the server closes without sending it.
    EXPECT_EQ(BYTE{CRouteRules::REGISTER_ACCEPTED}, 0);
}

TEST(RouteRules, RequestHeader) {
    for (const USHORT usOwnerObjID : {USHORT{7}, USHORT{2003}}) {
        const RegClient owner = {1000, usOwnerObjID, 1};
        const RouteMessageHeader header = CRouteRules::BuildRequestHeader(owner, 0x10009, 3, 101, 77, 12);
        const RouteMessageHeader expected = {{9, usOwnerObjID, 1}, {3, 101, 0}, 77, 4, 12};
        EXPECT_EQ(BytesOf(header), BytesOf(expected));
    }
}

TEST(RouteRules, ReplyHeader) {
    for (const DWORD dwParamter : {4UL, 0UL, 15UL, 11UL, 6UL}) {
        const RouteMessageHeader request = {{9, 7, 1}, {3, 101, 0}, 77, dwParamter, 12};
        const RouteMessageHeader expected = {{3, 101, 0}, {9, 7, 1}, 78, dwParamter & 0xB, 5};
        EXPECT_EQ(BytesOf(CRouteRules::BuildReplyHeader(request, 5)), BytesOf(expected)) << dwParamter;
    }
    RouteMessageHeader last = {};
    last.SequenceNum = std::numeric_limits<DWORD>::max();
    EXPECT_EQ(DWORD{CRouteRules::BuildReplyHeader(last, 0).SequenceNum}, 0U);
    EXPECT_EQ(DWORD{CRouteRules::BuildReplyHeader(last, 0).MessageLen}, 0U);
}

TEST(RouteRules, ReplyCheck) {
    struct Case {
        const char* pszName;
        void (*pfnChange)(RouteMessageHeader& reply);
        BOOL bAccepted;
    };
    const Case aCases[] = {
        {"as built", [](RouteMessageHeader&) {}, TRUE},
        {"no payload", [](RouteMessageHeader& r) { r.MessageLen = 0; }, FALSE},
        {"longest payload", [](RouteMessageHeader& r) { r.MessageLen = ~DWORD{0}; }, TRUE},
        {"all flags", [](RouteMessageHeader& r) { r.Paramter = 15; }, TRUE},
        {"unknown flag", [](RouteMessageHeader& r) { r.Paramter = 16; }, FALSE},
        {"high flag", [](RouteMessageHeader& r) { r.Paramter = DWORD{1} << 32; }, FALSE},
        {"the request's number", [](RouteMessageHeader& r) { r.SequenceNum = r.SequenceNum - 1; }, FALSE},
        {"the next number", [](RouteMessageHeader& r) { r.SequenceNum = r.SequenceNum + 1; }, FALSE},
        {"another source object", [](RouteMessageHeader& r) { r.Source.ObjID = 102; }, FALSE},
        {"another source session", [](RouteMessageHeader& r) { r.Source.SessionID = 4; }, FALSE},
        {"another destination",
         [](RouteMessageHeader& r) {
             r.Destination = {1, 2, 0};
         },
         TRUE},
        {"other callback bytes",
         [](RouteMessageHeader& r) {
             r.Source.WithCallBack = 1;
             r.Destination.WithCallBack = 7;
         },
         TRUE},
    };
    const RouteMessageHeader request = {{9, 7, 1}, {3, 101, 0}, 77, 4, 12};
    for (const Case& c : aCases) {
        RouteMessageHeader reply = CRouteRules::BuildReplyHeader(request, 1);
        c.pfnChange(reply);
        EXPECT_EQ(CRouteRules::checkPipeRspHeader(reply, request), c.bAccepted) << c.pszName;
    }
    // The number after the last one is 0.
    RouteMessageHeader last = request;
    last.SequenceNum = ~DWORD{0};
    EXPECT_TRUE(CRouteRules::checkPipeRspHeader(CRouteRules::BuildReplyHeader(last, 1), last));
}

TEST(RouteRules, RecognisesTheReplyRightOrWrong) {
    const RouteMessageHeader request = {{9, 6116, 1}, {3, 101, 0}, 77, 4, 12};
    const struct {
        const char* pszName;
        RouteMessageHeader message;
        BOOL bReply;
    } aCases[] = {
        {"the right one", {{3, 101, 0}, {9, 6116, 1}, 78, 0, 5}, TRUE},
        {"with the flag of a request", {{3, 101, 0}, {9, 6116, 1}, 78, 4, 5}, TRUE},
        {"to another address", {{3, 101, 0}, {1, 2, 0}, 78, 0, 5}, TRUE},
        {"with another number", {{3, 101, 0}, {9, 6116, 1}, 79, 0, 5}, TRUE},
        {"from another session", {{4, 101, 0}, {9, 6116, 1}, 78, 0, 5}, TRUE},
        {"from another object", {{3, 102, 0}, {9, 6116, 1}, 78, 0, 5}, TRUE},
        {"without payload", {{3, 101, 0}, {9, 6116, 1}, 78, 0, 0}, TRUE},
        {"with an unknown flag", {{3, 101, 0}, {9, 6116, 1}, 78, 16, 5}, TRUE},
        {"with another number, to another address", {{3, 101, 0}, {1, 2, 0}, 79, 0, 5}, TRUE},
        {"without payload, to another address", {{3, 101, 0}, {1, 2, 0}, 79, 0, 0}, TRUE},
        {"a request", {{3, 101, 0}, {9, 6116, 1}, 79, 4, 5}, FALSE},
        {"without payload, with the flag of a request", {{3, 101, 0}, {9, 6116, 1}, 78, 4, 0}, TRUE},
        {"with an unknown flag and the flag of a request", {{3, 101, 0}, {9, 6116, 1}, 78, 20, 5}, TRUE},
        {"a request without payload", {{3, 101, 0}, {1000, 6116, 1}, 78, 4, 0}, FALSE},
        {"a notification from the object asked", {{3, 101, 0}, {1000, 6116, 1}, 79, 0, 5}, FALSE},
        {"a notification from another object", {{3, 5, 0}, {1000, 6116, 1}, 79, 0, 5}, FALSE},
        {"from another object, to another address", {{3, 5, 0}, {1, 2, 0}, 78, 0, 5}, FALSE},
    };
    for (const auto& c : aCases) {
        EXPECT_EQ(CRouteRules::IsReply(c.message, request), c.bReply) << c.pszName;
    }
}

TEST(RouteRules, IncomingRequestCheck) {
    const struct {
        USHORT usSource;
        USHORT usDestination;
        DWORD dwParamter;
        DWORD dwMessageLen;
        BOOL bAccepted;
    } aCases[] = {
        {5, 6116, 4, 1, TRUE},    {5, 6115, 0, 1, TRUE},         {5, 4003, 4, 1, TRUE},     {5, 2003, 4, 1, TRUE},
        {5, 2004, 4, 1, TRUE},    {5, 2005, 4, 1, TRUE},         {5, 2006, 4, 1, TRUE},     {5, 32001, 4, 1, TRUE},
        {5, 42002, 4, 1, TRUE},   {5, 22000, 4, 1, TRUE},        {5, 7000, 4, 1, FALSE},    {5, 2001, 4, 1, FALSE},
        {2001, 7000, 4, 1, TRUE}, {2001, 0, 4, 1, TRUE},         {2003, 7000, 4, 1, FALSE}, {6116, 7000, 4, 1, FALSE},
        {5, 6116, 15, 1, TRUE},   {5, 6116, 16, 1, FALSE},       {2001, 0, 16, 1, FALSE},   {5, 6116, 4, 0, FALSE},
        {2001, 0, 4, 0, FALSE},   {5, 6116, 4, ~DWORD{0}, TRUE},
    };
    for (const auto& c : aCases) {
        const RouteMessageHeader header = {
            {1, c.usSource, 0}, {2, c.usDestination, 0}, 3, c.dwParamter, c.dwMessageLen};
        EXPECT_EQ(CRouteRules::checkPipeRequestHeader(header), c.bAccepted)
            << c.usSource << " to " << c.usDestination << ", " << c.dwParamter << ", " << c.dwMessageLen;
    }
}

}  // namespace
