// CVexFile with the file server: the bytes of each operation's request, and its result for every kind of answer.
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "Row.h"
#include "ServerFileFixture.h"
#include "TempDirectory.h"

namespace {

constexpr auto kNotSent = static_cast<DWORD>(kSendFailed);
constexpr auto kNotReceived = static_cast<DWORD>(kReceiveFailed);

TEST_F(ServerFile, Open) {
    AnsweringServer server;
    const struct {
        const wchar_t* pszName;
        std::string strName;
        std::string strAnswer;
        BOOL bResult;
        DWORD dwError;
    } aCases[] = {
        {L"/tmp/PILog.txt", "/tmp/PILog.txt", Bytes64(7) + Bytes64(1) + Bytes64(0), TRUE, ERROR_SUCCESS},
        {L"/tmp/PILog.txt", "/tmp/PILog.txt", Bytes64(7) + Bytes64(0) + Bytes64(0), TRUE, ERROR_ALREADY_EXISTS},
        {L"/\u00E9\u4E2D\U0001F600", "/\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80", Bytes64(7) + Bytes64(1) + Bytes64(0),
         TRUE, ERROR_SUCCESS},
        {L"", "", Bytes64(0) + Bytes64(0) + Bytes64(ERROR_INVALID_NAME), FALSE, ERROR_INVALID_NAME},
        {nullptr, "", Bytes64(0) + Bytes64(0) + Bytes64(ERROR_INVALID_NAME), FALSE, ERROR_INVALID_NAME},
        {L"/x", "/x", Bytes64(0) + Bytes64(0) + Bytes64(ERROR_ACCESS_DENIED), FALSE, ERROR_ACCESS_DENIED},
        {L"/x", "/x", Bytes64(0) + Bytes64(0) + Bytes64(0), FALSE, ERROR_GEN_FAILURE},
        {L"/x", "/x", Bytes64(0), FALSE, ERROR_GEN_FAILURE},
        {L"/x", "/x", "short", FALSE, ERROR_GEN_FAILURE},
        {L"/x", "/x", Bytes64(7), TRUE, ERROR_ALREADY_EXISTS},
    };
    for (const auto& c : aCases) {
        CVexFile file;
        EXPECT_FALSE(file.IsServerSupportEnabled());
        file.EnableServerSupport(TRUE);
        EXPECT_TRUE(file.IsServerSupportEnabled());
        server.Answer(c.strAnswer);
        DWORD dwError = 4711;
        EXPECT_EQ(file.OpenFile(c.pszName, dwError), c.bResult);
        EXPECT_EQ(dwError, c.dwError);
        EXPECT_EQ(file.IsOpen(), c.bResult);
        EXPECT_EQ(file.GetFileID(), c.bResult ? 7U : 0U);
        EXPECT_FALSE(file.IsServerLost());
        const std::vector<PeerMessage> requests = server.Requests();
        ASSERT_EQ(requests.size(), 1U);
        EXPECT_EQ(requests[0].strPayload, Command(1, Bytes64(c.strName.size()) + c.strName));
        EXPECT_EQ(requests[0].uDestinationSession, 0);
        EXPECT_EQ(requests[0].uDestinationObject, 101);
        file.ForgetServerFile();
    }
}

TEST_F(ServerFile, AnInvalidNameSendsNothing) {
    AnsweringServer server;
    CVexFile file;
    file.EnableServerSupport(TRUE);
    const wchar_t szName[] = {L'/', static_cast<wchar_t>(0xD800), 0};
    DWORD dwError = 0;
    EXPECT_FALSE(file.OpenFile(szName, dwError));
    EXPECT_EQ(dwError, ERROR_NO_UNICODE_TRANSLATION);
    EXPECT_FALSE(file.IsServerLost());
    EXPECT_TRUE(server.Requests().empty());
}

// ---- Operations whose answer is a number ----

struct NumberRow : Row {
    std::string strRequest;
    std::function<BOOL(CVexFile&)> fnOperation;
    std::function<DWORD(CVexFile&)> fnRaw;  // none: the operation has no raw form
};

class ServerFileNumber : public OpenServerFile, public testing::WithParamInterface<NumberRow> {};

TEST_P(ServerFileNumber, RequestAndAnswers) {
    const NumberRow& row = GetParam();
    const struct {
        std::optional<std::string> answer;
        BOOL bResult;
        DWORD dwRaw;
        BOOL bLost;
    } aCases[] = {
        {Bytes64(1), TRUE, 1, FALSE},          {Bytes64(0), FALSE, 0, FALSE}, {Bytes64(2), FALSE, 2, FALSE},
        {Bytes64(1) + "more", TRUE, 1, FALSE}, {"7 bytes", FALSE, 0, FALSE},  {std::nullopt, FALSE, kNotReceived, TRUE},
        {Bytes64(1), TRUE, 1, FALSE},
    };
    for (const auto& c : aCases) {
        m_server.Answer(c.answer);
        EXPECT_EQ(row.fnOperation(m_file), c.bResult);
        EXPECT_EQ(m_file.IsServerLost(), c.bLost);
        EXPECT_EQ(m_server.OnlyRequest(), row.strRequest);
        if (row.fnRaw) {
            EXPECT_EQ(row.fnRaw(m_file), c.dwRaw);
            EXPECT_EQ(m_server.OnlyRequest(), row.strRequest);
        }
        EXPECT_EQ(m_file.GetFileID(), kFileID);
    }
}

const NumberRow kNumberRows[] = {
    {{"SeekTo"},
     Command(4, Bytes64(kFileID) + Bytes64(0xFEDCBA9876543210)),
     [](CVexFile& f) { return f.SeekTo(0xFEDCBA9876543210); },
     [](CVexFile& f) { return f.ServerSeekTo(0xFEDCBA9876543210); }},
    {{"SeekToBegin"},
     Command(5, Bytes64(kFileID)),
     [](CVexFile& f) { return f.SeekToBegin(); },
     [](CVexFile& f) { return f.ServerSeekToBegin(); }},
    {{"SeekToEnd"},
     Command(6, Bytes64(kFileID)),
     [](CVexFile& f) { return f.SeekToEnd(); },
     [](CVexFile& f) { return f.ServerSeekToEnd(); }},
    {{"GetFileSize"},
     Command(7, Bytes64(kFileID)),
     [](CVexFile& f) {
         ULONGLONG ullSize = 0;
         return f.GetFileSize(ullSize);
     },
     nullptr},
    {{"Flush"},
     Command(11, Bytes64(kFileID)),
     [](CVexFile& f) { return f.Flush(); },
     [](CVexFile& f) { return f.ServerFlush(); }},
    {{"SetEndOfFile"},
     Command(12, Bytes64(kFileID)),
     [](CVexFile& f) { return f.SetEndOfFile(); },
     [](CVexFile& f) { return f.ServerEndOfFile(); }},
};

INSTANTIATE_TEST_SUITE_P(Table, ServerFileNumber, testing::ValuesIn(kNumberRows), RowName);

TEST_F(OpenServerFile, Size) {
    const struct {
        std::optional<std::string> answer;
        BOOL bResult;
        ULONGLONG ullSize;
    } aCases[] = {
        {Bytes64(1) + Bytes64(0x8000000000000001), TRUE, 0x8000000000000001},
        {Bytes64(1) + Bytes64(0), TRUE, 0},
        {Bytes64(1), TRUE, 0},
        {Bytes64(0) + Bytes64(5), FALSE, 0},
        {std::nullopt, FALSE, 0},
    };
    for (const auto& c : aCases) {
        m_server.Answer(c.answer);
        ULONGLONG ullSize = 4711;
        EXPECT_EQ(m_file.GetFileSize(ullSize), c.bResult);
        EXPECT_EQ(ullSize, c.ullSize);
    }
}

TEST_F(OpenServerFile, Write) {
    const struct {
        DWORD dwCount;
        std::optional<std::string> answer;
        BOOL bResult;
        DWORD dwWritten;
    } aCases[] = {
        {100, Bytes32(1) + Bytes64(100), 1, 100},
        {100, Bytes32(1) + Bytes64(60), 1, 60},
        {100, Bytes32(0) + Bytes64(0), 0, 0},
        {100, Bytes32(0xFFFFFFFF) + Bytes64(0), -1, 0},
        {100, Bytes32(1), 1, 100},
        {100, Bytes32(1) + "7 bytes", 1, 100},
        {100, "one", 0, 100},
        {100, std::nullopt, static_cast<BOOL>(kNotReceived), 100},
        {0, Bytes32(1) + Bytes64(0), 1, 0},
    };
    std::string strData(100, '\0');
    for (std::size_t i = 0; i < strData.size(); ++i) {
        strData[i] = static_cast<char>(i * 5);
    }
    for (const auto& c : aCases) {
        m_server.Answer(c.answer);
        DWORD dwCount = c.dwCount;
        EXPECT_EQ(m_file.Write(reinterpret_cast<const BYTE*>(strData.data()), dwCount), c.bResult);
        EXPECT_EQ(dwCount, c.dwWritten);
        EXPECT_EQ(m_file.IsServerLost(), !c.answer);
        const std::string strRequest = m_server.OnlyRequest();
        EXPECT_EQ(strRequest, Command(10, Bytes64(kFileID) + Bytes64(c.dwCount) + strData.substr(0, c.dwCount)));
        EXPECT_EQ(strRequest.size(), c.dwCount == 0 ? 40U : 140U);
        EXPECT_EQ(NumberAt(strRequest, 16, 8), c.dwCount == 0 ? 16U : 116U);
    }
    m_server.Answer(Bytes32(0) + Bytes64(0));
    DWORD dwCount = 5;
    EXPECT_FALSE(m_file.Write(nullptr, dwCount));
    EXPECT_EQ(m_server.OnlyRequest(), Command(10, Bytes64(kFileID) + Bytes64(5)));
}

TEST_F(OpenServerFile, Read) {
    const struct {
        std::optional<std::string> answer;
        BOOL bResult;
        DWORD dwRead;
    } aCases[] = {
        {Bytes32(1) + Bytes64(5) + "bytes", TRUE, 5},
        {Bytes32(1) + Bytes64(3) + "byt", TRUE, 3},
        {Bytes32(1) + Bytes64(3) + "bytes", TRUE, 3},
        {Bytes32(1) + Bytes64(0), TRUE, 0},
        {Bytes32(0) + Bytes64(0), FALSE, 0},
        {Bytes32(0) + Bytes64(2) + "by", FALSE, 2},
        {Bytes32(1) + Bytes64(5) + "byte", FALSE, 0},    // fewer bytes than it says
        {Bytes32(1) + Bytes64(6) + "bytes!", FALSE, 0},  // more bytes than requested
        {Bytes32(1) + Bytes64(~std::uint64_t{0}) + "b", FALSE, 0},
        {Bytes32(1), TRUE, 0},
        {"one", FALSE, 0},
        {std::nullopt, FALSE, 0},
    };
    for (const auto& c : aCases) {
        m_server.Answer(c.answer);
        char buffer[] = "......";
        DWORD dwCount = 5;
        EXPECT_EQ(m_file.Read(reinterpret_cast<BYTE*>(buffer), dwCount), c.bResult);
        EXPECT_EQ(dwCount, c.dwRead);
        EXPECT_EQ(m_file.IsServerLost(), !c.answer);
        const std::string strExpected = "bytes";
        EXPECT_EQ(std::string(buffer), strExpected.substr(0, c.dwRead) + std::string(6 - c.dwRead, '.'));
        EXPECT_EQ(m_server.OnlyRequest(), Command(9, Bytes64(kFileID) + Bytes64(5)));
    }
}

TEST_F(ServerFile, Close) {
    AnsweringServer server;
    const std::string strRequest = Command(8, Bytes64(kFileID));
    for (const std::string& strAnswer : {Bytes64(1), Bytes64(0), std::string("?")}) {
        CVexFile file;
        Open(server, file);
        server.Answer(strAnswer);
        file.CloseFile();
        EXPECT_EQ(file.GetFileID(), 0U);
        EXPECT_FALSE(file.IsOpen());
        EXPECT_EQ(server.OnlyRequest(), strRequest);
        file.CloseFile();
        EXPECT_TRUE(server.Requests().empty());
    }
    EXPECT_TRUE(server.Requests().empty());
}

TEST_F(ServerFile, ACloseWithoutAnAnswerKeepsTheID) {
    AnsweringServer server;
    {
        CVexFile file;
        Open(server, file);
        server.Answer(std::nullopt);
        file.CloseFile();
        EXPECT_EQ(file.GetFileID(), kFileID);
        EXPECT_TRUE(file.IsServerLost());
        EXPECT_EQ(server.Requests().size(), 1U);
    }
    EXPECT_EQ(server.OnlyRequest(), Command(8, Bytes64(kFileID)));
}

TEST_F(ServerFile, DestroyingSendsOneCloseRequest) {
    AnsweringServer server;
    for (const bool bAnswered : {true, false}) {
        auto pFile = std::make_unique<CVexFile>();
        Open(server, *pFile);
        server.Answer(bAnswered ? std::optional(Bytes64(1)) : std::nullopt);
        pFile.reset();
        EXPECT_EQ(server.OnlyRequest(), Command(8, Bytes64(kFileID)));
    }
}

TEST_F(ServerFile, OpeningAnotherFileClosesTheFirst) {
    AnsweringServer server;
    CVexFile file;
    Open(server, file);
    // dwError belongs to the second file, although closing the first failed, too.
    server.Answer(std::nullopt);
    DWORD dwError = 0;
    EXPECT_FALSE(file.OpenFile(L"/second", dwError));
    EXPECT_EQ(dwError, ERROR_GEN_FAILURE);
    EXPECT_TRUE(file.IsServerLost());
    EXPECT_EQ(file.GetFileID(), 0U);
    const std::vector<PeerMessage> requests = server.Requests();
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_EQ(requests[0].strPayload, Command(8, Bytes64(kFileID)));
    EXPECT_EQ(requests[1].strPayload, Command(1, Bytes64(7) + "/second"));
}

// The log does this after a restart of the server.
TEST_F(ServerFile, ForgettingTheFileSendsNothing) {
    AnsweringServer server;
    {
        CVexFile file;
        Open(server, file);
        server.Answer(Bytes64(0));
        EXPECT_FALSE(file.SeekToEnd());
        EXPECT_FALSE(file.IsServerLost());
        server.Requests();
        file.ForgetServerFile();
        EXPECT_FALSE(file.IsOpen());
        EXPECT_TRUE(server.Requests().empty());
        server.Answer(Bytes64(8) + Bytes64(0) + Bytes64(0));
        DWORD dwError = 0;
        EXPECT_TRUE(file.OpenFile(L"/log", dwError));
        EXPECT_EQ(dwError, ERROR_ALREADY_EXISTS);
        EXPECT_EQ(server.OnlyRequest(), Command(1, Bytes64(4) + "/log"));
        file.ForgetServerFile();
    }
    EXPECT_TRUE(server.Requests().empty());
}

TEST_F(ServerFile, NobodyListens) {
    const SilentPort port(SilentPort::Kind::kRefusing);
    const socket_calls::FileServerPort redirection(port.Port());
    CVexFile file;
    EXPECT_EQ(file.ServerSeekTo(0), kNotSent);
    EXPECT_TRUE(file.IsServerLost());
    EXPECT_EQ(file.ServerSeekToBegin(), kNotSent);
    EXPECT_EQ(file.ServerSeekToEnd(), kNotSent);
    EXPECT_EQ(file.ServerFlush(), kNotSent);
    EXPECT_EQ(file.ServerEndOfFile(), kNotSent);
    file.EnableServerSupport(TRUE);
    DWORD dwError = 0;
    EXPECT_FALSE(file.OpenFile(L"/log", dwError));
    EXPECT_EQ(dwError, ERROR_GEN_FAILURE);
    EXPECT_TRUE(file.IsServerLost());
    EXPECT_FALSE(file.IsOpen());
}

// An operation fails, whichever of its allocations fails.
TEST_F(ServerFile, MemoryRunsOut) {
    AnsweringServer server;
    const std::pair<std::string, std::function<bool(CVexFile&)>> aOperations[] = {
        {Bytes64(1),
         [](CVexFile& file) {
             file.ForgetServerFile();  // closing it would make the first allocations
             DWORD dwError = ERROR_SUCCESS;
             const bool bOpened = file.OpenFile(L"/tmp/PILog.txt", dwError);
             EXPECT_TRUE(bOpened || dwError == ERROR_NOT_ENOUGH_MEMORY || dwError == ERROR_GEN_FAILURE) << dwError;
             return bOpened;
         }},
        {Bytes64(1), [](CVexFile& file) -> bool { return file.SeekToEnd(); }},
        {Bytes64(1) + Bytes64(5),
         [](CVexFile& file) -> bool {
             ULONGLONG ullSize = 4711;
             const BOOL bResult = file.GetFileSize(ullSize);
             EXPECT_EQ(ullSize, bResult ? 5U : 0U);
             return bResult;
         }},
        {Bytes32(1) + Bytes64(2) + "by",
         [](CVexFile& file) -> bool {
             BYTE buffer[2] = {};
             DWORD dwCount = 2;
             const BOOL bResult = file.Read(buffer, dwCount);
             EXPECT_EQ(dwCount, bResult ? 2U : 0U);
             return bResult;
         }},
        {Bytes32(1) + Bytes64(2),
         [](CVexFile& file) -> bool {
             DWORD dwCount = 2;
             return file.Write(reinterpret_cast<const BYTE*>("by"), dwCount) == 1;
         }},
    };
    for (const auto& [strAnswer, fnOperation] : aOperations) {
        bool bHappened = true;
        for (int nCall = 1; bHappened; ++nCall) {
            CVexFile file;
            Open(server, file);
            server.Answer(strAnswer);
            const socket_calls::Failure failure("HeapAlloc", 0, nCall);
            const bool bDone = fnOperation(file);
            bHappened = socket_calls::Failure::Happened();
            EXPECT_EQ(bDone, !bHappened) << nCall;
            file.ForgetServerFile();
        }
    }
}

// A forked child does not close its parent's file.
TEST_F(ServerFile, AForkedChildSendsNothing) {
    AnsweringServer server;
    {
        alignas(CVexFile) static unsigned char s_storage[sizeof(CVexFile)];
        CVexFile* const pFile = new (s_storage) CVexFile;
        Open(server, *pFile);
        const pid_t nChild = fork();
        if (nChild == 0) {
            const HANDLE hFile = pFile->AbandonAfterFork();
            CVexFile* const pNew = new (s_storage) CVexFile;
            const bool bGood = hFile == nullptr && !pNew->IsOpen() && pNew->GetFileID() == 0;
            pNew->~CVexFile();
            _exit(bGood ? 0 : 1);
        }
        int nStatus = -1;
        EXPECT_EQ(waitpid(nChild, &nStatus, 0), nChild);
        EXPECT_EQ(nStatus, 0);
        EXPECT_TRUE(server.Requests().empty());
        server.Answer(Bytes64(1));
        pFile->~CVexFile();
    }
    EXPECT_EQ(server.Requests().size(), 1U);
}

TEST_F(ServerFile, LocalFilesSendNothing) {
    AnsweringServer server;
    const TempDirectory directory;
    const std::string strPath = directory.Path("file");
    {
        CVexFile file;
        DWORD dwError = 4711;
        EXPECT_TRUE(file.OpenFile(CString(strPath.c_str()), dwError));
        EXPECT_EQ(dwError, ERROR_SUCCESS);
        EXPECT_EQ(file.GetFileID(), 0U);
        file.EnableServerSupport(TRUE);  // takes effect with the next file
        DWORD dwCount = 3;
        EXPECT_TRUE(file.Write(reinterpret_cast<const BYTE*>("abc"), dwCount));
        EXPECT_EQ(dwCount, 3U);
        EXPECT_TRUE(file.SeekToBegin());
        BYTE buffer[4] = {};
        dwCount = 4;
        EXPECT_TRUE(file.Read(buffer, dwCount));
        EXPECT_EQ(dwCount, 3U);
        EXPECT_TRUE(file.SeekTo(1));
        EXPECT_TRUE(file.SetEndOfFile());
        EXPECT_TRUE(file.SeekToEnd());
        EXPECT_TRUE(file.Flush());
        ULONGLONG ullSize = 0;
        EXPECT_TRUE(file.GetFileSize(ullSize));
        EXPECT_EQ(ullSize, 1U);
        file.CloseFile();
        EXPECT_FALSE(file.IsOpen());
    }
    EXPECT_EQ(ReadWholeFile(strPath), "a");
    EXPECT_TRUE(server.Requests().empty());
}

// Any thread may switch server support while another thread works with files.
TEST_F(ServerFile, AnyThreadMaySwitchServerSupport) {
    AnsweringServer server;
    server.Answer(Bytes64(0) + Bytes64(0) + Bytes64(ERROR_ACCESS_DENIED));
    const TempDirectory directory;
    const CString strPath(directory.Path("file").c_str());
    CVexFile file;
    std::thread other([&] {
        for (int i = 0; i < 1000; ++i) {
            file.EnableServerSupport(i % 2);
        }
    });
    for (int i = 0; i < 20; ++i) {
        DWORD dwError = 0;
        const BOOL bOpened = file.OpenFile(strPath, dwError);
        EXPECT_EQ(bOpened, dwError != ERROR_ACCESS_DENIED) << dwError;
        file.CloseFile();
    }
    other.join();
}

}  // namespace
