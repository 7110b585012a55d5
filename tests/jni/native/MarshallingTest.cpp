// The three functions that convert between Java and native values, call by call. MultiByteToWideChar and new are this
// program's own (RecordedConversion.h, AllocationLimit.h).
#include "Marshalling.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>

#include "AllocationLimit.h"
#include "FakeJniEnv.h"
#include "RecordedConversion.h"
#include "RecordingToolkit.h"
#include "Row.h"
#include "VectorRegisters.h"

namespace {

using Calls = std::vector<std::string>;

class Marshalling : public testing::Test {
protected:
    Marshalling() { recording_toolkit::Reset(); }

    FakeJniEnv m_env{recording_toolkit::Record};
};

// ---- JstringToWindows ----

using JstringToWindowsTest = Marshalling;

// The first calls for every text that is not null.
Calls AfterTheChars(int nBytes, int nUnits, const Calls& rest) {
    Calls calls = {"GetStringUTFLength(input) = " + std::to_string(nBytes),
                   "GetStringLength(input) = " + std::to_string(nUnits), "GetStringUTFChars(input, &false) = chars"};
    calls.insert(calls.end(), rest.begin(), rest.end());
    return calls;
}

TEST_F(JstringToWindowsTest, ConvertsTextAndReleasesItsCharacters) {
    EXPECT_EQ(JstringToWindows(&m_env, m_env.MakeString("abc")), L"abc");
    EXPECT_EQ(recording_toolkit::Calls(), AfterTheChars(3, 3,
                                                        {"MultiByteToWideChar(65001, 0, \"abc\", 3, null, 0) = 3",
                                                         "MultiByteToWideChar(65001, 0, \"abc\", 3, [4 zeros], 16) = 3",
                                                         "ReleaseStringUTFChars(input, chars)"}));
    EXPECT_EQ(m_env.UnreleasedChars(), 0);
}

TEST_F(JstringToWindowsTest, DecodesUtf8) {
    EXPECT_EQ(JstringToWindows(&m_env, m_env.MakeString("\xC3\xA4\xE7\xAD\xBE")), L"\u00E4\u7B7E");
    EXPECT_EQ(recording_toolkit::Calls(),
              AfterTheChars(5, 2,
                            {"MultiByteToWideChar(65001, 0, \"\\xC3\\xA4\\xE7\\xAD\\xBE\", 5, null, 0) = 2",
                             "MultiByteToWideChar(65001, 0, \"\\xC3\\xA4\\xE7\\xAD\\xBE\", 5, [3 zeros], 12) = 2",
                             "ReleaseStringUTFChars(input, chars)"}));
}

TEST_F(JstringToWindowsTest, NullIsEmptyWithoutAnyCall) {
    EXPECT_EQ(JstringToWindows(&m_env, nullptr), L"");
    EXPECT_EQ(recording_toolkit::Calls(), Calls{});
}

TEST_F(JstringToWindowsTest, EmptyTextIsEmptyAndItsCharactersStayUnreleased) {
    EXPECT_EQ(JstringToWindows(&m_env, m_env.MakeString("")), L"");
    EXPECT_EQ(recording_toolkit::Calls(), AfterTheChars(0, 0, {"MultiByteToWideChar(65001, 0, \"\", 0, null, 0) = 0"}));
    EXPECT_EQ(m_env.UnreleasedChars(), 1);
}

TEST_F(JstringToWindowsTest, AFailureOfTheJvmIsAnEmptyText) {
    m_env.Fail("GetStringUTFChars");
    EXPECT_EQ(JstringToWindows(&m_env, m_env.MakeString("abc")), L"");
    EXPECT_EQ(recording_toolkit::Calls(), (Calls{"GetStringUTFLength(input) = 3", "GetStringLength(input) = 3",
                                                 "GetStringUTFChars(input, &false) = null",
                                                 "MultiByteToWideChar(65001, 0, null, 3, null, 0) = 0"}));
}

TEST_F(JstringToWindowsTest, LeavesNoTextInTheRegisters) {
    constexpr wchar_t kPiece[] = L"ssss";
    const jstring text = m_env.MakeString(std::string(200, 's'));
    std::wstring converted;
    const VectorRegisters registers = RegistersAfter([&] { converted = JstringToWindows(&m_env, text); });
    EXPECT_EQ(converted, std::wstring(200, L's'));
    EXPECT_FALSE(registers.Contain({reinterpret_cast<const char*>(kPiece), 4 * sizeof(wchar_t)}));
}

TEST_F(JstringToWindowsTest, ReadsTheConvertedTextUpToItsFirstZero) {
    // A decoder may produce a zero character. The text ends there.
    const recorded_conversion::Script script({.nConverted = 3});
    EXPECT_EQ(JstringToWindows(&m_env, m_env.MakeString("abc")), L"");
    EXPECT_EQ(m_env.UnreleasedChars(), 0);
}

// A character outside the basic plane arrives as two surrogates of three bytes each, U+0000 as two bytes. The decoder
// gets these bytes.
TEST_F(JstringToWindowsTest, PassesModifiedUtf8ToTheDecoderUnchanged) {
    JstringToWindows(&m_env, m_env.MakeString("\xED\xA0\xBD\xED\xB8\x80\xC0\x80"));
    const Calls calls = recording_toolkit::Calls();
    ASSERT_GE(calls.size(), 4U);
    EXPECT_EQ(calls[3].find("MultiByteToWideChar(65001, 0, \"\\xED\\xA0\\xBD\\xED\\xB8\\x80\\xC0\\x80\", 8, null, 0)"),
              0U)
        << calls[3];
}

struct NothingMeasured : Row {
    int nMeasured;
};

class JstringToWindowsMeasuring : public Marshalling, public testing::WithParamInterface<NothingMeasured> {};

// The decoder finds nothing, or the room for the text does not fit an int.
TEST_P(JstringToWindowsMeasuring, ConvertsNothing) {
    const recorded_conversion::Script script({.nMeasured = GetParam().nMeasured});
    const AllocationLimit limit(4);  // enough for the fake's characters
    EXPECT_EQ(JstringToWindows(&m_env, m_env.MakeString("abc")), L"");
    EXPECT_EQ(recording_toolkit::Calls(), AfterTheChars(3, 3,
                                                        {"MultiByteToWideChar(65001, 0, \"abc\", 3, null, 0) = " +
                                                         std::to_string(GetParam().nMeasured)}));
    EXPECT_EQ(limit.Refused(), 0U) << "it allocated memory";
    EXPECT_EQ(m_env.UnreleasedChars(), 1);
}

INSTANTIATE_TEST_SUITE_P(, JstringToWindowsMeasuring,
                         testing::Values(NothingMeasured{"Nothing", 0}, NothingMeasured{"Negative", -1},
                                         NothingMeasured{"OneTooMany", (INT_MAX - 4) / 4 + 1},
                                         NothingMeasured{"FarTooMany", INT_MAX}),
                         RowName);

struct NothingConverted : Row {
    int nConverted;
};

class JstringToWindowsConverting : public Marshalling, public testing::WithParamInterface<NothingConverted> {};

TEST_P(JstringToWindowsConverting, LeavesTheCharactersUnreleased) {
    const recorded_conversion::Script script({.nConverted = GetParam().nConverted});
    EXPECT_EQ(JstringToWindows(&m_env, m_env.MakeString("abc")), L"");
    EXPECT_EQ(recording_toolkit::Calls(), AfterTheChars(3, 3,
                                                        {"MultiByteToWideChar(65001, 0, \"abc\", 3, null, 0) = 3",
                                                         "MultiByteToWideChar(65001, 0, \"abc\", 3, [4 zeros], 16) = " +
                                                             std::to_string(GetParam().nConverted)}));
    EXPECT_EQ(m_env.UnreleasedChars(), 1);
}

INSTANTIATE_TEST_SUITE_P(, JstringToWindowsConverting,
                         testing::Values(NothingConverted{"Nothing", 0}, NothingConverted{"Negative", -1}), RowName);

struct NoMemory : Row {
    int nMeasured;
    size_t cbAsked;  // 4-byte characters, four times as many as measured and four more
};

class JstringToWindowsAllocating : public Marshalling, public testing::WithParamInterface<NoMemory> {};

TEST_P(JstringToWindowsAllocating, FailureIsAnEmptyTextAndLeavesTheCharactersUnreleased) {
    const recorded_conversion::Script script({.nMeasured = GetParam().nMeasured});
    const AllocationLimit limit(GetParam().cbAsked - 1);
    EXPECT_EQ(JstringToWindows(&m_env, m_env.MakeString("abc")), L"");
    EXPECT_EQ(limit.Refused(), GetParam().cbAsked);
    EXPECT_EQ(recording_toolkit::Calls(), AfterTheChars(3, 3,
                                                        {"MultiByteToWideChar(65001, 0, \"abc\", 3, null, 0) = " +
                                                         std::to_string(GetParam().nMeasured)}));
    EXPECT_EQ(m_env.UnreleasedChars(), 1);
}

INSTANTIATE_TEST_SUITE_P(, JstringToWindowsAllocating,
                         testing::Values(NoMemory{"Least", 1, 32}, NoMemory{"Usual", 3, 64},
                                         NoMemory{"Most", (INT_MAX - 4) / 4, 8589934576}),
                         RowName);

TEST_F(JstringToWindowsTest, AllocatesOnlyTheRoomThatItPassesToTheConverter) {
    const AllocationLimit limit(64);
    EXPECT_EQ(JstringToWindows(&m_env, m_env.MakeString("abc")), L"abc");
    EXPECT_EQ(limit.Refused(), 0U);
}

// There is memory for the converted text but not for its copy. The characters are already released.
TEST_F(JstringToWindowsTest, NoMemoryForTheResultIsAnEmptyText) {
    const jstring text = m_env.MakeString(std::string(100'000, 'x'));
    const AllocationLimit limit(AllocationLimit::kNone, 400'000);
    EXPECT_EQ(JstringToWindows(&m_env, text), L"");
    EXPECT_EQ(limit.Refused(), 400'004U);
    EXPECT_EQ(m_env.UnreleasedChars(), 0);
}

// ---- WindowsToJstring ----

using WindowsToJstringTest = Marshalling;

TEST_F(WindowsToJstringTest, EmptyTextIsNullAndNoEmptyString) {
    EXPECT_EQ(WindowsToJstring(&m_env, L""), nullptr);
    EXPECT_EQ(recording_toolkit::Calls(), Calls{});
}

struct Halves : Row {
    std::wstring text;
    std::u16string units;
};

class WindowsToJstringHalves : public Marshalling, public testing::WithParamInterface<Halves> {};

TEST_P(WindowsToJstringHalves, AsManyUnitsAsCharactersFromTheirFirstBytes) {
    const jstring text = WindowsToJstring(&m_env, GetParam().text);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(m_env.Units(text), GetParam().units);
    EXPECT_EQ(recording_toolkit::Calls().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(, WindowsToJstringHalves,
                         testing::Values(Halves{"One", L"a", u"a"}, Halves{"Two", L"ab", {u'a', 0}},
                                         Halves{"Three", L"abc", {u'a', 0, u'b'}},
                                         Halves{"Version", L"1.0.0.1", {u'1', 0, u'.', 0, u'0', 0, u'.'}},
                                         Halves{"BasicPlane", L"\u7B7E\u540D", {0x7B7E, 0}},
                                         Halves{"BeyondBasicPlane", L"\U0001F600b", {0xF600, 0x0001}},
                                         Halves{"ZeroCharacter", std::wstring(2, L'\0'), {0, 0}}),
                         RowName);

TEST_F(WindowsToJstringTest, CallsNewStringWithTheCharacterCount) {
    EXPECT_NE(WindowsToJstring(&m_env, L"ab"), nullptr);
    EXPECT_EQ(recording_toolkit::Calls(), Calls{"NewString([0x61 0x0], 2) = text"});
}

TEST_F(WindowsToJstringTest, PassesTheWholeWideStorageToNewString) {
    for (const std::size_t cCharacters : {1U, 2U, 7U, 1000U}) {
        std::wstring text;
        for (std::size_t i = 0; i < cCharacters; ++i) {
            text += static_cast<wchar_t>(0x10000 + i);
        }
        std::wstring storage;
        m_env.OnNewString([&](const void* pUnits, jsize nLength) {
            storage.resize(static_cast<std::size_t>(nLength));
            std::memcpy(storage.data(), pUnits, storage.size() * sizeof(wchar_t));
        });
        EXPECT_NE(WindowsToJstring(&m_env, text), nullptr);
        EXPECT_EQ(storage, text);
    }
}

TEST_F(WindowsToJstringTest, FailureOfNewStringIsReturned) {
    m_env.Fail("NewString");
    EXPECT_EQ(WindowsToJstring(&m_env, L"ab"), nullptr);
    EXPECT_EQ(recording_toolkit::Calls(), Calls{"NewString([0x61 0x0], 2) = null"});
}

// ---- stoJstring ----

struct Construction : Row {
    std::string text;
    std::string quoted;
};

class StoJstringBytes : public Marshalling, public testing::WithParamInterface<Construction> {};

TEST_P(StoJstringBytes, GivesTheBytesToTheConstructor) {
    const jstring text = stoJstring(&m_env, GetParam().text.c_str());
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(m_env.Bytes(text), GetParam().text);
    const std::string strLength = std::to_string(GetParam().text.size());
    EXPECT_EQ(recording_toolkit::Calls(),
              (Calls{"FindClass(\"Ljava/lang/String;\") = class",
                     "GetMethodID(class, \"<init>\", \"([BLjava/lang/String;)V\") = constructor",
                     "NewByteArray(" + strLength + ") = array",
                     "SetByteArrayRegion(array, 0, " + strLength + ", " + GetParam().quoted + ")",
                     "NewStringUTF(\"utf-8\") = encoding", "NewObjectV(class, constructor, array, encoding) = text"}));
}

INSTANTIATE_TEST_SUITE_P(, StoJstringBytes,
                         testing::Values(Construction{"Ascii", "abc", "\"abc\""}, Construction{"Empty", "", "\"\""},
                                         Construction{"Utf8", "\xC3\xA4", "\"\\xC3\\xA4\""},
                                         Construction{"NotUtf8", "\xFF\x80", "\"\\xFF\\x80\""},
                                         Construction{"LineEnds", "a\r\nb", "\"a\\r\\nb\""}),
                         RowName);

struct FailingStep : Row {
    Calls calls;
};

class StoJstringFailing : public Marshalling, public testing::WithParamInterface<FailingStep> {};

// No step checks the step before, so all six run, whichever of them fails.
TEST_P(StoJstringFailing, TheLaterStepsStillRun) {
    m_env.Fail(GetParam().strName);
    EXPECT_EQ(stoJstring(&m_env, "abc"), nullptr);
    EXPECT_EQ(recording_toolkit::Calls(), GetParam().calls);
}

INSTANTIATE_TEST_SUITE_P(
    , StoJstringFailing,
    testing::Values(
        FailingStep{"FindClass",
                    {"FindClass(\"Ljava/lang/String;\") = null",
                     "GetMethodID(null, \"<init>\", \"([BLjava/lang/String;)V\") = null", "NewByteArray(3) = array",
                     "SetByteArrayRegion(array, 0, 3, \"abc\")", "NewStringUTF(\"utf-8\") = encoding",
                     "NewObjectV(null, null, array, encoding) = null"}},
        FailingStep{"GetMethodID",
                    {"FindClass(\"Ljava/lang/String;\") = class",
                     "GetMethodID(class, \"<init>\", \"([BLjava/lang/String;)V\") = null", "NewByteArray(3) = array",
                     "SetByteArrayRegion(array, 0, 3, \"abc\")", "NewStringUTF(\"utf-8\") = encoding",
                     "NewObjectV(class, null, array, encoding) = null"}},
        FailingStep{"NewByteArray",
                    {"FindClass(\"Ljava/lang/String;\") = class",
                     "GetMethodID(class, \"<init>\", \"([BLjava/lang/String;)V\") = constructor",
                     "NewByteArray(3) = null", "SetByteArrayRegion(null, 0, 3, \"abc\")",
                     "NewStringUTF(\"utf-8\") = encoding", "NewObjectV(class, constructor, null, encoding) = null"}},
        FailingStep{"NewStringUTF",
                    {"FindClass(\"Ljava/lang/String;\") = class",
                     "GetMethodID(class, \"<init>\", \"([BLjava/lang/String;)V\") = constructor",
                     "NewByteArray(3) = array", "SetByteArrayRegion(array, 0, 3, \"abc\")",
                     "NewStringUTF(\"utf-8\") = null", "NewObjectV(class, constructor, array, null) = null"}},
        FailingStep{"NewObjectV",
                    {"FindClass(\"Ljava/lang/String;\") = class",
                     "GetMethodID(class, \"<init>\", \"([BLjava/lang/String;)V\") = constructor",
                     "NewByteArray(3) = array", "SetByteArrayRegion(array, 0, 3, \"abc\")",
                     "NewStringUTF(\"utf-8\") = encoding", "NewObjectV(class, constructor, array, encoding) = null"}}),
    RowName);

using StoJstringTest = Marshalling;

// The JVM throws the exception of a failed SetByteArrayRegion. The bridge continues.
TEST_F(StoJstringTest, ContinuesAfterAFailedSetByteArrayRegion) {
    m_env.Fail("SetByteArrayRegion");
    const jstring text = stoJstring(&m_env, "abc");
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(m_env.Bytes(text), std::string(3, '\0'));
    EXPECT_EQ(recording_toolkit::Calls().back(), "NewObjectV(class, constructor, array, encoding) = text");
}

// ---- The fake itself ----

using FakeJniEnvDeathTest = Marshalling;

TEST_F(FakeJniEnvDeathTest, EndsTheProgramOnAnyOtherFunction) {
    EXPECT_DEATH(m_env.ExceptionCheck(), "the bridge called ExceptionCheck");
    EXPECT_DEATH(m_env.DeleteLocalRef(nullptr), "the bridge called DeleteLocalRef");
    EXPECT_DEATH(m_env.CallVoidMethod(nullptr, nullptr), "the bridge called CallVoidMethodV");
}

}  // namespace
