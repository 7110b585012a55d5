// The properties of each single query native. SizeQueryTest.cpp tests how they fetch a text.
#include <climits>
#include <clocale>

#include "Natives.h"
#include "RecordingToolkit.h"
#include "vex_jni_TAVClientJNI.h"

namespace {

class QueryNativesTest : public NativesTest {
protected:
    FakeJniEnv m_env{recording_toolkit::Record};
};

TEST_F(QueryNativesTest, VersionIsSevenUnitsOfItsFirstHalfForEveryHandle) {
    for (const jlong handle : {jlong{0}, kHandle, jlong{-1}}) {
        recording_toolkit::Reset();
        const jstring version = Java_vex_jni_TAVClientJNI_GetSignVersion(&m_env, nullptr, handle);
        ASSERT_NE(version, nullptr);
        EXPECT_EQ(m_env.Units(version), (std::u16string{u'1', 0, u'.', 0, u'0', 0, u'.'}));
        EXPECT_EQ(recording_toolkit::Calls(), Calls{"NewString([0x31 0x0 0x2e 0x0 0x30 0x0 0x2e], 7) = text"});
    }
}

TEST_F(QueryNativesTest, VersionIsNullWhenTheJvmCannotMakeAString) {
    m_env.Fail("NewString");
    EXPECT_EQ(Java_vex_jni_TAVClientJNI_GetSignVersion(&m_env, nullptr, kHandle), nullptr);
}

struct Certificate : Row {
    const char* pszLocale;
    std::string bytes;
    std::string strNewString;  // the call that creates a Java string of it; empty: no call
};

class SignCertTest : public NativesTest, public testing::WithParamInterface<Certificate> {};

// The native fetches it, decodes it in the locale's encoding, creates a Java string and drops that.
TEST_P(SignCertTest, IsNullEvenOnSuccess) {
    ASSERT_NE(std::setlocale(LC_ALL, GetParam().pszLocale), nullptr);
    recording_toolkit::SetText("VCTK_GetSignCert", {.bytes = GetParam().bytes});
    FakeJniEnv env(recording_toolkit::Record);
    EXPECT_EQ(Java_vex_jni_TAVClientJNI_GetSignCert(&env, nullptr, kHandle), nullptr);

    const std::string strSize = std::to_string(GetParam().bytes.size() + 1);
    Calls expected = {"VCTK_GetSignCert(0x5158, null, &0)",
                      "VCTK_GetSignCert(0x5158, [" + strSize + " zero bytes], &" + strSize + ")"};
    if (!GetParam().strNewString.empty()) {
        expected.push_back(GetParam().strNewString);
    }
    EXPECT_EQ(recording_toolkit::Calls(), expected);
}

INSTANTIATE_TEST_SUITE_P(
    , SignCertTest,
    testing::Values(Certificate{"Ascii", "C.UTF-8", "MII", "NewString([0x4d 0x0 0x49], 3) = text"},
                    Certificate{"AsciiInTheCLocale", "C", "MII", "NewString([0x4d 0x0 0x49], 3) = text"},
                    Certificate{"Utf8", "C.UTF-8", "\xC3\xA4z", "NewString([0xe4 0x0], 2) = text"},
                    Certificate{"NotInTheLocale", "C", "\xC3\xA4z", ""}, Certificate{"Empty", "C.UTF-8", "", ""},
                    Certificate{"EndsAtItsFirstNul", "C.UTF-8", std::string("MI\0I", 4),
                                "NewString([0x4d 0x0], 2) = text"}),
    RowName);

TEST_F(QueryNativesTest, LastErrorKeepsItsSign) {
    for (const int nError : {0, 1, -1, 1001, INT_MIN, INT_MAX}) {
        recording_toolkit::Reset();
        recording_toolkit::SetResult("VCTK_GetLastError", nError);
        EXPECT_EQ(Java_vex_jni_TAVClientJNI_GetLastError(&m_env, nullptr, kHandle), jlong{nError});
        EXPECT_EQ(recording_toolkit::Calls(), Calls{"VCTK_GetLastError(0x5158)"});
    }
}

TEST_F(QueryNativesTest, LastErrorAcceptsHandleZero) {
    recording_toolkit::SetResult("VCTK_GetLastError", 1101);
    EXPECT_EQ(Java_vex_jni_TAVClientJNI_GetLastError(&m_env, nullptr, 0), 1101);
    EXPECT_EQ(recording_toolkit::Calls(), Calls{"VCTK_GetLastError(0x0)"});
}

}  // namespace
