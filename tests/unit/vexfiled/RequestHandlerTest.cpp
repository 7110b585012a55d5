// Requests and their replies, byte by byte.
#include "RequestHandler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <optional>

#include "FileRequests.h"
#include "Row.h"
#include "TempDirectory.h"
#include "VEXCompat.h"

namespace {

using namespace std::chrono_literals;
using vexfiled::FileTable;
using vexfiled::Reply;
using vexfiled::RequestHandler;
using vexfiled::Root;

constexpr std::size_t kMaxReply = 3 * 1024 * 1024;

// The files' IDs are 1, 2, 3 and so on.
class RequestHandlerTest : public testing::Test {
protected:
    std::string Handle(const std::string& strRequest) {
        const std::span<const char> bytes(strRequest);
        m_last = m_handler.Handle({reinterpret_cast<const BYTE*>(bytes.data()), bytes.size()});
        return {m_last.bytes.begin(), m_last.bytes.end()};
    }

    // Expects that the request succeeds.
    void Do(const std::string& strRequest) {
        Handle(strRequest);
        EXPECT_TRUE(m_last.bDone) << m_last.strAccount;
    }

    std::string Content(const std::string& strName = "log") const { return ReadWholeFile(m_directory.Path(strName)); }

    const TempDirectory m_directory;
    std::uint64_t m_uLastId = 0;
    std::chrono::steady_clock::time_point m_now{1000h};
    const Root m_root{m_directory.Path()};
    FileTable m_files{{3, 10s}, [this] { return ++m_uLastId; }, [this] { return m_now; }};
    RequestHandler m_handler{m_root, m_files, kMaxReply};
    Reply m_last;
};

TEST_F(RequestHandlerTest, EachOperation) {
    EXPECT_EQ(Handle(OpenRequest("/tmp/log")), OpenedReply(1, true));
    EXPECT_EQ(Handle(OpenRequest("tmp/log")), OpenedReply(2, false));
    EXPECT_EQ(Handle(SizeRequest(1)), SizeReply(true, 0));
    EXPECT_EQ(Handle(WriteRequest(1, "hello, world")), WriteReply(true, 12));
    EXPECT_EQ(Handle(SizeRequest(2)), SizeReply(true, 12));
    EXPECT_EQ(Handle(ReadRequest(2, 5)), ReadReply(true, "hello"));
    EXPECT_EQ(Handle(ReadRequest(2, 100)), ReadReply(true, ", world"));
    EXPECT_EQ(Handle(ReadRequest(2, 100)), ReadReply(true, ""));
    EXPECT_EQ(Handle(SeekToBeginRequest(2)), kDoneReply);
    EXPECT_EQ(Handle(ReadRequest(2, 1)), ReadReply(true, "h"));
    EXPECT_EQ(Handle(SeekToRequest(1, 5)), kDoneReply);
    EXPECT_EQ(Handle(EndOfFileRequest(1)), kDoneReply);
    EXPECT_EQ(Content("tmp/log"), "hello");
    EXPECT_EQ(Handle(SeekToEndRequest(2)), kDoneReply);
    EXPECT_EQ(Handle(WriteRequest(2, "!")), WriteReply(true, 1));
    EXPECT_EQ(Handle(FlushRequest(2)), kDoneReply);
    EXPECT_EQ(Content("tmp/log"), "hello!");
    EXPECT_EQ(Handle(CloseRequest(1)), kDoneReply);
    EXPECT_EQ(Handle(CloseRequest(1)), kNotDoneReply);
    EXPECT_EQ(Handle(SizeRequest(2)), SizeReply(true, 6));
    EXPECT_EQ(m_files.Count(), 1U);
}

// The bytes of one exchange.
TEST_F(RequestHandlerTest, BytesOfAWrite) {
    Do(OpenRequest("log"));
    const std::string strRequest(
        "\x0A\0\0\0\0\0\0\0"  // write
        "\0\0\0\0\0\0\0\0"    // 0 in a request
        "\x12\0\0\0\0\0\0\0"  // 18 more bytes
        "\x01\0\0\0\0\0\0\0"  // file 1
        "\x02\0\0\0\0\0\0\0"  // 2 bytes of data
        "\xFF\xFE",
        42);
    EXPECT_EQ(Handle(strRequest), std::string("\x01\0\0\0\x02\0\0\0\0\0\0\0", 12));
    EXPECT_EQ(Content(), "\xFF\xFE");
}

TEST_F(RequestHandlerTest, AnEmptyWrite) {
    Do(OpenRequest("log"));
    const std::string strRequest = WriteRequest(1, "");
    ASSERT_EQ(strRequest.size(), 40U);
    EXPECT_EQ(Handle(strRequest), WriteReply(true, 0));
    EXPECT_EQ(Content(), "");
}

TEST_F(RequestHandlerTest, AllByteValues) {
    std::string strData;
    for (int i = 0; i < 256; ++i) {
        strData += static_cast<char>(i);
    }
    Do(OpenRequest("log"));
    EXPECT_EQ(Handle(WriteRequest(1, strData)), WriteReply(true, 256));
    Do(SeekToBeginRequest(1));
    EXPECT_EQ(Handle(ReadRequest(1, 256)), ReadReply(true, strData));
}

// ---- Not understood ----

struct BadRequest : Row {
    std::string strBytes;
};

class NotUnderstood : public RequestHandlerTest, public testing::WithParamInterface<BadRequest> {};

TEST_P(NotUnderstood, IsAnsweredWith8ZeroBytesAndChangesNothing) {
    Do(OpenRequest("log"));
    Do(WriteRequest(1, "content"));
    EXPECT_EQ(Handle(GetParam().strBytes), kNotDoneReply);
    EXPECT_FALSE(m_last.bDone);
    EXPECT_THAT(m_last.strAccount, testing::StartsWith("not understood: "));
    EXPECT_EQ(Content(), "content");
    EXPECT_EQ(m_files.Count(), 1U);
    EXPECT_EQ(Handle(WriteRequest(1, "!")), WriteReply(true, 1));
    EXPECT_EQ(Content(), "content!");
}

// Replaces the size in the request's header.
std::string WithExtendSize(std::string strRequest, std::uint64_t uSize) {
    return strRequest.replace(16, 8, Number(uSize));
}

std::vector<BadRequest> BadRequests() {
    std::vector<BadRequest> rows = {
        {{"Nothing"}, ""},
        {{"OneByte"}, "x"},
        {{"HeaderCutOff"}, FileRequest(5, "").substr(0, 23)},
        {{"ExtendSizeTooLarge"}, WithExtendSize(SizeRequest(1), 9)},
        {{"ExtendSizeTooSmall"}, WithExtendSize(SizeRequest(1), 7)},
        {{"ExtendSizeZero"}, WithExtendSize(SizeRequest(1), 0)},
        {{"ExtendSizeWraps"}, WithExtendSize(SizeRequest(1), ~std::uint64_t{0} - 15)},
        {{"OpenWithoutName"}, FileRequest(1, "")},
        {{"OpenCutOff"}, FileRequest(1, Number(0).substr(0, 7))},
        {{"OpenNameTooShort"}, FileRequest(1, Number(5) + "name")},
        {{"OpenNameTooLong"}, FileRequest(1, Number(3) + "name")},
        {{"OpenNameHuge"}, FileRequest(1, Number(~std::uint64_t{0}) + "name")},
        {{"SeekWithoutPosition"}, FileRequest(4, Number(1))},
        {{"SeekWithMore"}, FileRequest(4, Number(1) + Number(0) + "x")},
        {{"ReadWithoutCount"}, FileRequest(9, Number(1))},
        {{"ReadWithMore"}, FileRequest(9, Number(1) + Number(1) + "x")},
        {{"WriteWithoutCount"}, FileRequest(10, Number(1))},
        {{"WriteTooFewData"}, FileRequest(10, Number(1) + Number(5) + "data")},
        {{"WriteTooMuchData"}, FileRequest(10, Number(1) + Number(3) + "data")},
        {{"WriteCountHuge"}, FileRequest(10, Number(1) + Number(~std::uint64_t{0}) + "data")},
        {{"WriteCountZeroWithData"}, FileRequest(10, Number(1) + Number(0) + "data")},
    };
    for (const std::uint64_t uCommand :
         {std::uint64_t{0}, std::uint64_t{2}, std::uint64_t{3}, std::uint64_t{13}, std::uint64_t{0x100000005}}) {
        rows.push_back({{"Command" + std::to_string(uCommand)}, FileRequest(uCommand, Number(1))});
    }
    for (const std::uint64_t uCommand : {4, 5, 6, 7, 8, 9, 10, 11, 12}) {
        rows.push_back({{"NoFileId" + std::to_string(uCommand)}, FileRequest(uCommand, "")});
        rows.push_back({{"HalfAFileId" + std::to_string(uCommand)}, FileRequest(uCommand, Number(1).substr(0, 7))});
    }
    for (const std::uint64_t uCommand : {5, 6, 7, 8, 11, 12}) {
        rows.push_back({{"MoreThanAFileId" + std::to_string(uCommand)}, FileRequest(uCommand, Number(1) + "x")});
    }
    return rows;
}

INSTANTIATE_TEST_SUITE_P(All, NotUnderstood, testing::ValuesIn(BadRequests()), RowName);

// ---- IDs of no open file ----

struct MissingFile : Row {
    std::string strRequest;
    std::string strReply;
};

class NoSuchFile : public RequestHandlerTest, public testing::WithParamInterface<MissingFile> {};

TEST_P(NoSuchFile, NeverGivenOut) {
    EXPECT_EQ(Handle(GetParam().strRequest), GetParam().strReply);
    EXPECT_FALSE(m_last.bDone);
}

TEST_P(NoSuchFile, Closed) {
    Do(OpenRequest("log"));
    Do(CloseRequest(1));
    EXPECT_EQ(Handle(GetParam().strRequest), GetParam().strReply);
    EXPECT_EQ(Content(), "");
}

TEST_P(NoSuchFile, Expired) {
    Do(OpenRequest("log"));
    m_now += 10s;
    EXPECT_EQ(Handle(GetParam().strRequest), GetParam().strReply);
    EXPECT_EQ(Content(), "");
}

INSTANTIATE_TEST_SUITE_P(All, NoSuchFile,
                         testing::Values(MissingFile{{"SeekTo"}, SeekToRequest(1, 0), kNotDoneReply},
                                         MissingFile{{"SeekToBegin"}, SeekToBeginRequest(1), kNotDoneReply},
                                         MissingFile{{"SeekToEnd"}, SeekToEndRequest(1), kNotDoneReply},
                                         MissingFile{{"Size"}, SizeRequest(1), SizeReply(false, 0)},
                                         MissingFile{{"Close"}, CloseRequest(1), kNotDoneReply},
                                         MissingFile{{"Read"}, ReadRequest(1, 5), ReadReply(false, "")},
                                         MissingFile{{"Write"}, WriteRequest(1, "data"), WriteReply(false, 0)},
                                         MissingFile{{"Flush"}, FlushRequest(1), kNotDoneReply},
                                         MissingFile{{"EndOfFile"}, EndOfFileRequest(1), kNotDoneReply}),
                         RowName);

// ---- Opening ----

TEST_F(RequestHandlerTest, ARefusedOpenSaysWhy) {
    EXPECT_EQ(Handle(OpenRequest("../log")), NotOpenedReply(ERROR_ACCESS_DENIED));
    EXPECT_EQ(m_last.strAccount, "open \"../log\": \"..\" in a name");
    EXPECT_EQ(Handle(OpenRequest("")), NotOpenedReply(ERROR_INVALID_NAME));
    EXPECT_EQ(Handle(OpenRequest("\xFF")), NotOpenedReply(ERROR_NO_UNICODE_TRANSLATION));
    EXPECT_EQ(m_files.Count(), 0U);
}

TEST_F(RequestHandlerTest, DoesNotCreateAFileBeyondTheLimit) {
    Do(OpenRequest("a"));
    Do(OpenRequest("b"));
    Do(OpenRequest("b"));
    EXPECT_EQ(Handle(OpenRequest("c")), NotOpenedReply(ERROR_TOO_MANY_OPEN_FILES));
    EXPECT_FALSE(std::filesystem::exists(m_directory.Path("c")));
    Do(CloseRequest(2));
    EXPECT_EQ(Handle(OpenRequest("c")), OpenedReply(4, true));
    m_now += 10s;
    EXPECT_EQ(Handle(OpenRequest("d")), OpenedReply(5, true));
}

// ---- Positions ----

TEST_F(RequestHandlerTest, AfterSeekToEndWritesGoToTheEndOfAllWrites) {
    Do(OpenRequest("log"));
    Do(OpenRequest("log"));
    Do(SeekToEndRequest(1));
    Do(SeekToEndRequest(2));
    std::string strExpected;
    for (int i = 0; i < 10; ++i) {
        for (const std::uint64_t uId : {1, 2}) {
            const std::string strRecord = std::to_string(uId) + '.' + std::to_string(i) + ';';
            Do(WriteRequest(uId, strRecord));
            strExpected += strRecord;
        }
    }
    EXPECT_EQ(Content(), strExpected);
}

TEST_F(RequestHandlerTest, SeekingAndReadingLeaveTheEnd) {
    const std::string kLeave[] = {SeekToRequest(1, 3), SeekToBeginRequest(1), ReadRequest(1, 0), ReadRequest(1, 9)};
    const std::string kAfterwards[] = {"012X456789+", "X123456789+", "0123456789X", "0123456789X"};
    for (std::size_t i = 0; i < std::size(kLeave); ++i) {
        m_uLastId = 0;
        Do(OpenRequest("log"));
        Do(OpenRequest("log"));
        Do(EndOfFileRequest(1));
        Do(WriteRequest(1, "0123456789"));
        Do(SeekToEndRequest(1));
        Do(kLeave[i]);
        Do(SeekToEndRequest(2));
        Do(WriteRequest(2, "+"));
        Do(WriteRequest(1, "X"));
        EXPECT_EQ(Content(), kAfterwards[i]) << i;
        Do(CloseRequest(1));
        Do(CloseRequest(2));
    }
}

TEST_F(RequestHandlerTest, AtTheEndThereIsNothingToReadOrToCut) {
    Do(OpenRequest("log"));
    Do(OpenRequest("log"));
    Do(SeekToEndRequest(1));
    Do(WriteRequest(2, "of another"));
    EXPECT_EQ(Handle(EndOfFileRequest(1)), kDoneReply);
    EXPECT_EQ(Content(), "of another");
    EXPECT_EQ(Handle(ReadRequest(1, 100)), ReadReply(true, ""));
}

// The log sends these requests when it has grown too large.
TEST_F(RequestHandlerTest, CuttingALog) {
    m_directory.Write("log", "\xFF\xFEoldest.newest.");
    Do(OpenRequest("log"));
    Do(SeekToEndRequest(1));
    Do(WriteRequest(1, "last."));
    Do(SeekToBeginRequest(1));
    EXPECT_EQ(Handle(ReadRequest(1, 21)), ReadReply(true, "\xFF\xFEoldest.newest.last."));
    Do(SeekToBeginRequest(1));
    Do(WriteRequest(1, "\xFF\xFEnewest.last."));
    EXPECT_EQ(Handle(EndOfFileRequest(1)), kDoneReply);
    EXPECT_EQ(Content(), "\xFF\xFEnewest.last.");
}

TEST_F(RequestHandlerTest, PositionsBehindTheEnd) {
    Do(OpenRequest("log"));
    Do(SeekToRequest(1, 3));
    EXPECT_EQ(Handle(ReadRequest(1, 1)), ReadReply(true, ""));
    EXPECT_EQ(Handle(WriteRequest(1, "x")), WriteReply(true, 1));
    EXPECT_EQ(Content(), std::string("\0\0\0x", 4));
    Do(SeekToRequest(1, 6));
    Do(EndOfFileRequest(1));
    EXPECT_EQ(Content(), std::string("\0\0\0x\0\0", 6));
}

TEST_F(RequestHandlerTest, RefusesPositionsThatAFileCannotHave) {
    Do(OpenRequest("log"));
    Do(WriteRequest(1, "abc"));
    constexpr std::uint64_t kLargest = 0x7FFFFFFFFFFFFFFF;
    EXPECT_EQ(Handle(SeekToRequest(1, kLargest + 1)), kNotDoneReply);
    EXPECT_EQ(Handle(SeekToRequest(1, ~std::uint64_t{0})), kNotDoneReply);
    EXPECT_EQ(Handle(WriteRequest(1, "d")), WriteReply(true, 1));  // at the old position
    EXPECT_EQ(Content(), "abcd");

    EXPECT_EQ(Handle(SeekToRequest(1, kLargest)), kDoneReply);
    EXPECT_EQ(Handle(WriteRequest(1, "x")), WriteReply(false, 0));
    EXPECT_EQ(Content(), "abcd");
}

// ---- Sizes ----

TEST_F(RequestHandlerTest, AReadEndsAtTheLargestReply) {
    constexpr std::size_t cbLargest = kMaxReply - 12;
    const std::string strData(kMaxReply, 'd');
    m_directory.Write("log", strData);
    Do(OpenRequest("log"));
    for (const std::uint64_t uCount : {cbLargest - 1, cbLargest, cbLargest + 1, ~std::size_t{0}}) {
        Do(SeekToBeginRequest(1));
        const std::size_t cbExpected = std::min<std::size_t>(uCount, cbLargest);
        EXPECT_TRUE(Handle(ReadRequest(1, uCount)) == ReadReply(true, std::string(cbExpected, 'd'))) << uCount;
    }
    EXPECT_EQ(Handle(ReadRequest(1, ~std::uint64_t{0})), ReadReply(true, std::string(12, 'd')));
}

// Sizes around the size of one step of a read.
TEST_F(RequestHandlerTest, ReadsAreWhole) {
    std::string strData;
    while (strData.size() < 2 * 1024 * 1024 + 1) {
        strData += std::to_string(strData.size()) + ' ';
    }
    m_directory.Write("log", strData);
    Do(OpenRequest("log"));
    for (const std::size_t cb : {1048575, 1048576, 1048577, 2097152, 2097153}) {
        Do(SeekToBeginRequest(1));
        EXPECT_TRUE(Handle(ReadRequest(1, cb)) == ReadReply(true, strData.substr(0, cb))) << cb;
        EXPECT_TRUE(Handle(ReadRequest(1, 10)) == ReadReply(true, strData.substr(cb, 10))) << cb;
    }
}

// A limit of the file size stands for a full disk: it also ends a write in the middle.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t cbMost) : m_fnOldHandler(std::signal(SIGXFSZ, SIG_IGN)) {
        EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &m_oldLimit), 0);
        const rlimit limit = {cbMost, m_oldLimit.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &m_oldLimit);
        std::signal(SIGXFSZ, m_fnOldHandler);
    }

private:
    void (*m_fnOldHandler)(int);
    rlimit m_oldLimit{};
};

TEST_F(RequestHandlerTest, AWriteThatDoesNotFitSaysHowMuchDid) {
    Do(OpenRequest("log"));
    std::optional<FileSizeLimit> limit(1000);
    const std::string strPartly = Handle(WriteRequest(1, std::string(1500, 'a')));
    const std::string strNothing = Handle(WriteRequest(1, "b"));
    const bool bDone = m_last.bDone;
    limit.reset();

    EXPECT_EQ(strPartly, WriteReply(false, 1000));
    EXPECT_EQ(strNothing, WriteReply(false, 0));
    EXPECT_FALSE(bDone);
    EXPECT_EQ(Handle(WriteRequest(1, "c")), WriteReply(true, 1));
    EXPECT_EQ(Content(), std::string(1000, 'a') + 'c');
}

// Otherwise the log would contain a partial record.
TEST_F(RequestHandlerTest, AWriteAtTheEndThatDoesNotFitLeavesNothing) {
    Do(OpenRequest("log"));
    Do(SeekToEndRequest(1));
    EXPECT_EQ(Handle(WriteRequest(1, "before")), WriteReply(true, 6));
    {
        const FileSizeLimit limit(1000);
        EXPECT_EQ(Handle(WriteRequest(1, std::string(1500, 'a'))), WriteReply(false, 0));
        EXPECT_FALSE(m_last.bDone);
        EXPECT_EQ(Content(), "before");
        EXPECT_EQ(Handle(WriteRequest(1, " fits")), WriteReply(true, 5));
    }
    EXPECT_EQ(Content(), "before fits");
}

}  // namespace
