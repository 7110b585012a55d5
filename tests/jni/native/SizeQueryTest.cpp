// How the natives fetch a text from the toolkit: ask for its size, get it into a zeroed buffer of that size, read it up
// to the first NUL.
#include <climits>
#include <new>

#include "AllocationLimit.h"
#include "Natives.h"
#include "RecordingToolkit.h"

namespace {

class SizeQueryTest : public NativesTestP {
protected:
    jlong Run(const recording_toolkit::Text& text) {
        recording_toolkit::Reset();
        m_jniCalls.clear();
        const std::string& strQuery = GetParam().strQuery;
        recording_toolkit::SetText(strQuery.substr(0, strQuery.find('(')), text);
        return GetParam().fnCall(&m_env, kHandle, m_input);
    }

    // The native's own call, if it makes one, and then the calls of the size query.
    static Calls WithOwnCall(const Calls& query) {
        Calls calls;
        if (!GetParam().strCall.empty()) {
            calls.push_back(GetParam().Call(recording_toolkit::kHandle, "text"));
        }
        calls.insert(calls.end(), query.begin(), query.end());
        return calls;
    }

    // JNI calls that use a result.
    size_t CallsForResult() const { return m_jniCalls.size() - (GetParam().TakesText() ? 4 : 0); }

    std::vector<std::string> m_jniCalls;
    FakeJniEnv m_env{[this](std::string strCall) { m_jniCalls.push_back(std::move(strCall)); }};
    jstring m_input = m_env.MakeString("text");
};

TEST_P(SizeQueryTest, FetchesIntoAZeroedBufferOfTheReportedSize) {
    for (const int nSize : {1, 5, 6, 4096, 1 << 16}) {
        Run({.bytes = std::string(static_cast<size_t>(nSize) - 1, 'x')});
        EXPECT_EQ(recording_toolkit::Calls(), WithOwnCall({GetParam().AskSize(recording_toolkit::kHandle),
                                                           GetParam().Fetch(recording_toolkit::kHandle, nSize)}));
    }
}

TEST_P(SizeQueryTest, EndsWhenTheSizeQueryFails) {
    for (const int nResult : {1, -5, INT_MIN}) {
        EXPECT_EQ(Run({.nSizeResult = nResult}), 0);
        EXPECT_EQ(recording_toolkit::Calls(), WithOwnCall({GetParam().AskSize(recording_toolkit::kHandle)}));
        EXPECT_EQ(CallsForResult(), 0U);
    }
}

TEST_P(SizeQueryTest, EndsWhenThereIsNothingToFetch) {
    for (const int nSize : {0, -1, INT_MIN}) {
        EXPECT_EQ(Run({.nSize = nSize}), 0);
        EXPECT_EQ(recording_toolkit::Calls(), WithOwnCall({GetParam().AskSize(recording_toolkit::kHandle)}));
        EXPECT_EQ(CallsForResult(), 0U);
    }
}

TEST_P(SizeQueryTest, EndsWhenTheTextCannotBeFetched) {
    for (const int nResult : {1, -5, INT_MIN}) {
        EXPECT_EQ(Run({.nFetchResult = nResult}), 0);
        EXPECT_EQ(recording_toolkit::Calls(), WithOwnCall({GetParam().AskSize(recording_toolkit::kHandle),
                                                           GetParam().Fetch(recording_toolkit::kHandle, 5)}));
        EXPECT_EQ(CallsForResult(), 0U);
    }
}

// The natives' only exception. A JVM would not survive it.
TEST_P(SizeQueryTest, NoMemoryForTheBufferIsBadAlloc) {
    constexpr int kSize = 1 << 20;
    const AllocationLimit limit(kSize - 1);
    EXPECT_THROW(Run({.nSize = kSize}), std::bad_alloc);
    EXPECT_EQ(limit.Refused(), static_cast<size_t>(kSize));
    EXPECT_EQ(recording_toolkit::Calls(), WithOwnCall({GetParam().AskSize(recording_toolkit::kHandle)}));
}

const std::vector<Native> kFetching = NativesThat([](const Native& native) { return !native.strQuery.empty(); });

INSTANTIATE_TEST_SUITE_P(, SizeQueryTest, testing::ValuesIn(kFetching), RowName);

TEST(SizeQueryTable, LeavesNoNativeOut) {
    EXPECT_EQ(kFetching.size(), 7U);
}

// ---- What Java gets: the text, except from GetSignCert ----

class FetchedTextTest : public SizeQueryTest {
protected:
    // The bytes that Java decodes as UTF-8.
    std::string Fetched(const recording_toolkit::Text& text) {
        const auto result = reinterpret_cast<jstring>(Run(text));
        return result == nullptr ? "(null)" : m_env.Bytes(result);
    }
};

TEST_P(FetchedTextTest, IsReturnedWhole) {
    EXPECT_EQ(Fetched({.bytes = "signature"}), "signature");
    EXPECT_EQ(Fetched({.bytes = "a\r\nb c"}), "a\r\nb c");
    EXPECT_EQ(Fetched({.bytes = "\xC3\xA4"}), "\xC3\xA4");
    EXPECT_EQ(Fetched({.bytes = "\xFF\x80"}), "\xFF\x80");
}

TEST_P(FetchedTextTest, EndsAtItsFirstNul) {
    EXPECT_EQ(Fetched({.bytes = std::string("ab\0cd", 5)}), "ab");
    EXPECT_EQ(Fetched({.bytes = "ab", .nSize = 100}), "ab");
}

TEST_P(FetchedTextTest, IsEmptyAndNotNullWhenThereIsOnlyTheNul) {
    EXPECT_EQ(Fetched({.bytes = ""}), "");
    EXPECT_EQ(recording_toolkit::Calls().back(), GetParam().Fetch(recording_toolkit::kHandle, 1));
}

TEST_P(FetchedTextTest, DoesNotDependOnTheLengthAfterTheFetch) {
    for (const int nSize : {0, -1, 2, INT_MAX}) {
        EXPECT_EQ(Fetched({.bytes = "signature", .nSizeAfterFetch = nSize}), "signature");
    }
}

TEST_P(FetchedTextTest, IsNullWhenTheJvmCannotMakeAString) {
    m_env.Fail("NewObjectV");
    EXPECT_EQ(Fetched({.bytes = "signature"}), "(null)");
    EXPECT_EQ(CallsForResult(), 6U);
}

INSTANTIATE_TEST_SUITE_P(, FetchedTextTest, testing::ValuesIn(NativesThat([](const Native& native) {
                             return !native.strQuery.empty() && native.strName != "GetSignCert";
                         })),
                         RowName);

}  // namespace
