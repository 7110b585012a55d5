// Replies to clients that follow the protocol and to clients that break it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>

#include "FileServerFixture.h"
#include "Row.h"
#include "Threads.h"
#include "VEXCompat.h"

namespace {

using FileServer = FileServerFixture;

TEST_F(FileServer, EachOperationOnAConnectionOfItsOwn) {
    Start();
    const std::string strOpened = Ask(OpenRequest("/tmp/PILog.txt"));
    ASSERT_EQ(strOpened.size(), 24U);
    const std::uint64_t uId = NumberAt(strOpened, 0);
    ASSERT_NE(uId, 0U);
    EXPECT_EQ(strOpened, OpenedReply(uId, true));
    EXPECT_EQ(Ask(WriteRequest(uId, "hello, world")), WriteReply(true, 12));
    EXPECT_EQ(Ask(SizeRequest(uId)), SizeReply(true, 12));
    EXPECT_EQ(Ask(SeekToRequest(uId, 7)), kDoneReply);
    EXPECT_EQ(Ask(ReadRequest(uId, 100)), ReadReply(true, "world"));
    EXPECT_EQ(Ask(SeekToBeginRequest(uId)), kDoneReply);
    EXPECT_EQ(Ask(ReadRequest(uId, 5)), ReadReply(true, "hello"));
    EXPECT_EQ(Ask(EndOfFileRequest(uId)), kDoneReply);
    EXPECT_EQ(Ask(SeekToEndRequest(uId)), kDoneReply);
    EXPECT_EQ(Ask(WriteRequest(uId, "!")), WriteReply(true, 1));
    EXPECT_EQ(Ask(FlushRequest(uId)), kDoneReply);
    EXPECT_EQ(Content("tmp/PILog.txt"), "hello!");
    EXPECT_EQ(Ask(CloseRequest(uId)), kDoneReply);
    EXPECT_EQ(Ask(CloseRequest(uId)), kNotDoneReply);

    const std::string strAgain = Ask(OpenRequest("/tmp/PILog.txt"));
    EXPECT_NE(NumberAt(strAgain, 0), uId);
    EXPECT_EQ(strAgain, OpenedReply(NumberAt(strAgain, 0), false));
    EXPECT_EQ(Ask(FileRequest(2, Number(uId))), kNotDoneReply);
    EXPECT_EQ(Ask("x"), kNotDoneReply);
}

TEST_F(FileServer, TheReplyHeaderMirrorsThatOfTheRequest) {
    Start();
    FileServerClient client(m_uPort);
    ASSERT_EQ(client.Register(), 0);
    const std::string strRequest = FileRequest(2, "");
    MessageHeader header(m_uPort, strRequest.size());
    header.strSource = "\x11\x12\x13\x14\x01";
    header.strDestination[4] = '\x01';  // the callback bytes are part of the addresses
    header.uSequence = ~std::uint64_t{0};
    header.uParameter = 15;
    client.Send(header.Bytes() + strRequest);
    const std::string strExpected =
        header.strDestination + header.strSource + Number(0) + Number(11) + Number(8) + kNotDoneReply;
    EXPECT_EQ(client.Receive(strExpected.size()), strExpected);
}

// Each session and object that together give the port.
TEST_F(FileServer, AcceptsAnyDestinationOfThePort) {
    Start();
    FileServerClient client(m_uPort);
    ASSERT_EQ(client.Register(), 0);
    MessageHeader header(m_uPort, 1);
    header.strDestination = Number(1000, 2) + Number(static_cast<std::uint16_t>(m_uPort - 9665), 2) + Number(0, 1);
    client.Send(header.Bytes() + 'x');
    const std::string strReply = client.Receive(34 + 8);
    ASSERT_EQ(strReply.size(), 42U);
    EXPECT_EQ(strReply.substr(0, 5), header.strDestination);
}

TEST_F(FileServer, SeveralRequestsOnOneConnectionAreAnsweredInTurn) {
    Start();
    FileServerClient client(m_uPort);
    ASSERT_EQ(client.Register(), 0);
    const std::uint64_t uId = NumberAt(client.Exchange(OpenRequest("log")), 0);
    client.Send(client.Message(WriteRequest(uId, "one")) + client.Message(WriteRequest(uId, "three")) +
                client.Message(SizeRequest(uId)));
    EXPECT_EQ(client.ReceiveReply(), WriteReply(true, 3));
    EXPECT_EQ(client.ReceiveReply(), WriteReply(true, 5));
    EXPECT_EQ(client.ReceiveReply(), SizeReply(true, 8));
}

// A message may arrive in pieces of any size.
TEST_F(FileServer, AcceptsAMessageByteByByte) {
    Start();
    FileServerClient client(m_uPort);
    for (const char ch : Number(1, 5)) {
        client.Send({ch});
    }
    EXPECT_EQ(client.Receive(1), std::string(1, '\0'));
    for (const char ch : client.Message(OpenRequest("log"))) {
        client.Send({ch});
    }
    EXPECT_EQ(client.ReceiveReply().size(), 24U);
}

TEST_F(FileServer, ReadsAWholeLogInOneRequest) {
    Start();
    std::string strLog;
    while (strLog.size() <= 2097152) {
        strLog += "record " + std::to_string(strLog.size()) + "\r\n\r\n";
    }
    const std::uint64_t uId = Open("log");
    EXPECT_EQ(Ask(WriteRequest(uId, strLog)), WriteReply(true, strLog.size()));
    EXPECT_EQ(Ask(SeekToBeginRequest(uId)), kDoneReply);
    EXPECT_TRUE(Ask(ReadRequest(uId, strLog.size())) == ReadReply(true, strLog));
    EXPECT_TRUE(Content("log") == strLog);
}

TEST_F(FileServer, AppendersNeverOverwriteEachOther) {
    Start();
    constexpr int kRecords = 300;
    constexpr std::array kWriters = {'a', 'b'};
    std::array<std::uint64_t, kWriters.size()> ids{};
    for (std::uint64_t& uId : ids) {
        uId = Open("log");
        ASSERT_EQ(Ask(SeekToEndRequest(uId)), kDoneReply);
    }
    OnThreads(kWriters.size(), [&](int nWriter) {
        for (int i = 0; i < kRecords; ++i) {
            const std::string strRecord = kWriters[nWriter] + std::to_string(i) + '\n';
            EXPECT_EQ(Ask(WriteRequest(ids[nWriter], strRecord)), WriteReply(true, strRecord.size()));
        }
    });
    // Each writer's records are all there and in order.
    std::istringstream file(Content("log"));
    std::array<int, kWriters.size()> next{};
    for (std::string strLine; std::getline(file, strLine);) {
        const std::size_t nWriter = strLine[0] == kWriters[0] ? 0 : 1;
        ASSERT_EQ(strLine, kWriters[nWriter] + std::to_string(next[nWriter]));
        ++next[nWriter];
    }
    EXPECT_EQ(next[0], kRecords);
    EXPECT_EQ(next[1], kRecords);
}

TEST_F(FileServer, NoNameLeadsOutOfTheRoot) {
    namespace fs = std::filesystem;
    fs::create_directory(m_directory.Path("outside"));
    m_directory.Write("outside/secret", "untouched");
    fs::create_symlink("../outside", Root() + "/wayout");
    fs::create_symlink("../outside/secret", Root() + "/link");
    fs::create_hard_link(m_directory.Path("outside/secret"), Root() + "/secondname");
    ASSERT_EQ(mkfifo((Root() + "/pipe").c_str(), 0600), 0);
    Start();
    for (const char* pszName : {"../outside/secret", "/../outside/secret", "tmp/../../outside/new", "wayout/secret",
                                "wayout/new", "link", "secondname", "pipe"}) {
        EXPECT_EQ(Ask(OpenRequest(pszName)), NotOpenedReply(ERROR_ACCESS_DENIED)) << pszName;
        EXPECT_TRUE(m_server->WaitForLog("open \"" + std::string(pszName) + "\": ")) << pszName;
    }
    // An absolute name starts at the root.
    EXPECT_NE(Open(m_directory.Path("outside/secret")), 0U);
    EXPECT_EQ(Content(m_directory.Path("outside/secret")), "");
    EXPECT_EQ(ReadWholeFile(m_directory.Path("outside/secret")), "untouched");
    EXPECT_FALSE(fs::exists(m_directory.Path("outside/new")));
}

// A limit of the file size stands for a full disk.
TEST_F(FileServer, ReportsThatAFileCannotGrow) {
    Start({}, "-f 128");  // blocks of 512 bytes
    const std::uint64_t uId = Open("log");
    EXPECT_EQ(Ask(WriteRequest(uId, std::string(100000, 'd'))), WriteReply(false, 65536));
    EXPECT_TRUE(m_server->WaitForLog("write 65536 bytes of 100000 to \"log\": "));
    EXPECT_EQ(Ask(WriteRequest(uId, "d")), WriteReply(false, 0));
    EXPECT_EQ(Ask(SeekToBeginRequest(uId)), kDoneReply);
    EXPECT_EQ(Ask(EndOfFileRequest(uId)), kDoneReply);
    EXPECT_EQ(Ask(WriteRequest(uId, "d")), WriteReply(true, 1));
}

// ---- Headers that break a rule ----

struct BadHeader : Row {
    void (*fnSpoil)(MessageHeader& header);
    const char* pszLog;
};

class FileServerHeader : public FileServerFixture, public testing::WithParamInterface<BadHeader> {};

TEST_P(FileServerHeader, EndsTheConnectionWithOneLineInTheLog) {
    Start({"--max-message", "1000"});
    FileServerClient client(m_uPort);
    ASSERT_EQ(client.Register(), 0);
    MessageHeader header(m_uPort, 24);
    GetParam().fnSpoil(header);
    client.Send(header.Bytes());
    EXPECT_TRUE(client.IsClosedByServer());
    EXPECT_TRUE(m_server->WaitForLog(std::string("client 1 dropped: ") + GetParam().pszLog)) << m_server->Log();
    EXPECT_NE(Open("log"), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    All, FileServerHeader,
    testing::Values(
        BadHeader{{"UnknownFlag"}, [](MessageHeader& header) { header.uParameter = 20; }, "unknown flags 20"},
        BadHeader{{"NoRequest"}, [](MessageHeader& header) { header.uParameter = 11; }, "a message that"},
        BadHeader{{"OtherDestination"},
                  [](MessageHeader& header) { header.strDestination[0] = 1; },
                  "a message for another server"},
        BadHeader{{"Empty"}, [](MessageHeader& header) { header.uLength = 0; }, "an empty message"},
        BadHeader{{"TooLong"}, [](MessageHeader& header) { header.uLength = 1001; }, "a message of 1001 bytes"},
        BadHeader{{"Endless"},
                  [](MessageHeader& header) { header.uLength = ~std::uint64_t{0}; },
                  "a message of 18446744073709551615 bytes"}),
    RowName);

TEST_F(FileServer, AcceptsTheLargestMessages) {
    Start({"--max-message", "1000"});
    const std::uint64_t uId = Open("log");
    const std::string strLargest(1000 - 40, 'd');
    EXPECT_EQ(Ask(WriteRequest(uId, strLargest)), WriteReply(true, strLargest.size()));
    EXPECT_EQ(Ask(WriteRequest(uId, strLargest)), WriteReply(true, strLargest.size()));
    EXPECT_EQ(Ask(SeekToBeginRequest(uId)), kDoneReply);
    EXPECT_EQ(Ask(ReadRequest(uId, 5000)), ReadReply(true, std::string(1000 - 12, 'd')));
}

}  // namespace
