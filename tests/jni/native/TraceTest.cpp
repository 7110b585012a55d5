// The records that the natives write to the log: each native with each kind of end, read from the file.
#include <pthread.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <latch>
#include <stdexcept>
#include <thread>

#include "FileCalls.h"
#include "LogFile.h"
#include "NativeLines.h"
#include "Natives.h"
#include "RecordingToolkit.h"
#include "Scale.h"
#include "TempDirectory.h"
#include "vex_jni_TAVClientJNI.h"

namespace {

const Lines& LinesOf(const Native& native) {
    return *std::find_if(std::begin(kLines), std::end(kLines),
                         [&](const Lines& lines) { return native.strName == lines.pszNative; });
}

// The message of a record. Every four bytes of the name form one character, mostly beyond Unicode, which is written in
// a long form of UTF-8. The rest is plain text.
std::string Message(const std::string& strFunction, const char* pszEnd) {
    std::string bytes = strFunction;
    bytes.resize((bytes.size() + 3) / 4 * 4);
    std::string strMessage;
    for (size_t i = 0; i < bytes.size(); i += 4) {
        std::uint32_t ch = 0;
        std::memcpy(&ch, bytes.data() + i, sizeof ch);
        // Such large numbers take the longest form. The last one has fewer bytes and may take a shorter form.
        int nContinuations = ch < 0x80        ? 0
                             : ch < 0x800     ? 1
                             : ch < 0x10000   ? 2
                             : ch < 0x200000  ? 3
                             : ch < 0x4000000 ? 4
                                              : 5;
        constexpr unsigned char kFirst[] = {0x00, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
        strMessage += static_cast<char>(kFirst[nContinuations] | (ch >> (6 * nContinuations)));
        while (nContinuations-- > 0) {
            strMessage += static_cast<char>(0x80 | ((ch >> (6 * nContinuations)) & 0x3F));
        }
    }
    return strMessage + pszEnd;
}

// The parts of a record that the native decides.
std::string Described(const LogRecord& record) {
    return record.strType + record.strFile + "-" + record.strFunction.value_or("(none)") + "(" +
           std::to_string(record.nLine) + "): " + record.strMessage;
}

std::vector<std::string> Expected(const Native& native, bool bEnter, bool bLeave) {
    const Lines& lines = LinesOf(native);
    const std::string strFunction = "Java_vex_jni_TAVClientJNI_" + native.strName;
    const auto describe = [&](int nLine, const char* pszEnd) {
        return "[INFO] TAVClientJNI/vex_jni_TAVClientJNI.cpp-" + strFunction + "(" + std::to_string(nLine) +
               "): " + Message(strFunction, pszEnd);
    };
    std::vector<std::string> expected;
    if (bEnter && lines.nEnter != 0) {
        expected.push_back(describe(lines.nEnter, " Enter."));
    }
    if (bLeave) {
        expected.push_back(describe(lines.nLeave, " Leave."));
    }
    return expected;
}

class TraceTest : public NativesTest {
protected:
    // The records that fnBody's calls write. They are complete when later records of another thread are in the file.
    static std::vector<std::string> RecordsOf(const std::function<void()>& fnBody) {
        static size_t s_cbKnown = 0;  // bytes of the file, which is not cut in this test
        fnBody();
        std::thread([] {
            FakeJniEnv env;
            Java_vex_jni_TAVClientJNI_GetLastError(&env, nullptr, 0);
        }).join();

        const std::string strPath = std::string(getenv("VEX_TEST_LOG_DIR")) + "/PILog.txt";
        const auto nThisThread = static_cast<int>(static_cast<std::uint32_t>(pthread_self()));
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < deadline) {
            const std::string bytes = ReadWholeFile(strPath);
            std::vector<std::string> described;
            size_t nMarks = 0;
            if (bytes.size() > s_cbKnown && bytes.ends_with("\r\n\r\n")) {
                for (const std::string& strEntry : ParseLogFile(std::string_view(bytes).substr(s_cbKnown)).entries) {
                    const std::optional<LogRecord> record = ParseLogRecord(strEntry);
                    if (!record) {
                        throw std::runtime_error("no record: " + strEntry);
                    }
                    if (record->nThread == nThisThread) {
                        described.push_back(Described(*record));
                    } else {
                        ++nMarks;
                    }
                }
            }
            if (nMarks == 2) {
                s_cbKnown = bytes.size();
                return described;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        throw std::runtime_error("records are missing in " + strPath);
    }
};

// ---- Every kind of end ----

// The arguments of a call and the results of the calls that it makes.
struct WayOut {
    const char* pszName;
    bool bHandle;
    const char* pszText;  // null: no Java string
    int nResult;          // result of the native's own toolkit call
    recording_toolkit::Text text;
    const char* pszFailing;  // a JNI function, or null
};

const WayOut kWaysOut[] = {
    {"success", true, "text", 0, {}, nullptr},
    {"empty result", true, "text", 0, {.bytes = ""}, nullptr},
    {"handle 0", false, "text", 0, {}, nullptr},
    {"null text", true, nullptr, 0, {}, nullptr},
    {"empty text", true, "", 0, {}, nullptr},
    {"neither", false, nullptr, 0, {}, nullptr},
    {"text that is no text", true, "\xFF", 0, {}, nullptr},
    {"toolkit's failure", true, "text", -5, {}, nullptr},
    {"no size", true, "text", 0, {.nSizeResult = 1}, nullptr},
    {"size 0", true, "text", 0, {.nSize = 0}, nullptr},
    {"negative size", true, "text", 0, {.nSize = -1}, nullptr},
    {"no text", true, "text", 0, {.nFetchResult = 1}, nullptr},
    {"no characters from the JVM", true, "text", 0, {}, "GetStringUTFChars"},
    {"no string from the JVM", true, "text", 0, {}, "NewObjectV"},
    {"no units from the JVM", true, "text", 0, {}, "NewString"},
};

// The expected records. Initialize and SetDigestAlg refuse before they trace. After a failure of the toolkit, a native
// that returns a status writes its second record; a native that returns a text does not.
std::vector<std::string> ExpectedRecords(const Native& native, const WayOut& way) {
    const bool bText = way.pszText != nullptr && std::string_view("text") == way.pszText &&
                       std::string_view("GetStringUTFChars") != (way.pszFailing == nullptr ? "" : way.pszFailing);
    const bool bChecksHandle = native.TakesHandle() && native.strName != "GetLastError";
    const bool bRefused = (native.TakesText() && !bText) || (bChecksHandle && !way.bHandle);
    const bool bTracesLate = native.strName == "Initialize" || native.strName == "SetDigestAlg";
    const bool bToolkitFailed =
        !native.strQuery.empty() && ((!native.strCall.empty() && way.nResult != 0) || way.text.nSizeResult != 0 ||
                                     way.text.nSize.value_or(1) <= 0 || way.text.nFetchResult != 0);
    return Expected(native, !(bRefused && bTracesLate), !bRefused && !bToolkitFailed);
}

TEST_F(TraceTest, EveryNativeWithEveryKindOfEnd) {
    const std::vector<Native> natives = NativesThat([](const Native&) { return true; });
    ASSERT_EQ(natives.size(), std::size(kLines));
    RecordsOf([] {});
    for (const Native& native : natives) {
        for (const WayOut& way : kWaysOut) {
            const auto records = RecordsOf([&] {
                recording_toolkit::Reset();
                if (!native.strCall.empty() && native.strName != "Initialize") {
                    recording_toolkit::SetResult(native.strCall.substr(0, native.strCall.find('(')), way.nResult);
                } else if (way.nResult != 0) {
                    recording_toolkit::SetHandle(0);
                }
                if (!native.strQuery.empty()) {
                    recording_toolkit::SetText(native.strQuery.substr(0, native.strQuery.find('(')), way.text);
                }
                FakeJniEnv env;
                if (way.pszFailing != nullptr) {
                    env.Fail(way.pszFailing);
                }
                native.fnCall(&env, way.bHandle ? kHandle : 0,
                              way.pszText == nullptr ? nullptr : env.MakeString(way.pszText));
            });
            EXPECT_EQ(records, ExpectedRecords(native, way)) << native.strName << ": " << way.pszName;
        }
    }
}

// ---- A disk that stalls ----

TEST_F(TraceTest, NativesContinueWhileTheWriterIsBlockedInAWrite) {
    RecordsOf([] {});
    const int nCalls = Scaled(2'000);  // their records stay within the file's size limit
    std::latch inWrite(1);
    std::latch goOn(1);
    std::atomic<bool> bFirst = true;
    file_calls::Watch([&](const file_calls::Call& call) {
        if (call.function == "WriteFile" && bFirst.exchange(false)) {
            inWrite.count_down();
            goOn.wait();
        }
    });
    const auto records = RecordsOf([&] {
        FakeJniEnv env;
        Java_vex_jni_TAVClientJNI_GetLastError(&env, nullptr, kHandle);
        inWrite.wait();
        const int nWritten = file_calls::Count("WriteFile");
        for (int i = 1; i < nCalls; ++i) {
            Java_vex_jni_TAVClientJNI_GetLastError(&env, nullptr, kHandle);
        }
        EXPECT_EQ(file_calls::Count("WriteFile"), nWritten);
        goOn.count_down();
    });
    file_calls::Watch(nullptr);
    EXPECT_EQ(records.size(), 2U * static_cast<size_t>(nCalls));
}

}  // namespace
