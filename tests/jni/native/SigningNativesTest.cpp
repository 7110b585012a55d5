// The four natives that sign. SizeQueryTest.cpp tests how they fetch the signature.
#include <climits>
#include <limits>

#include "Natives.h"
#include "RecordingToolkit.h"
#include "vex_jni_TAVClientJNI.h"

namespace {

class SigningTest : public NativesTestP {};

TEST_P(SigningTest, FetchesNoResultWhenTheToolkitDoesNotSign) {
    const std::string strCall = GetParam().Call(recording_toolkit::kHandle, "text");
    for (const int nResult : {1, -5, INT_MIN, INT_MAX}) {
        recording_toolkit::Reset();
        recording_toolkit::SetResult(strCall.substr(0, strCall.find('(')), nResult);
        FakeJniEnv env;
        EXPECT_EQ(GetParam().fnCall(&env, kHandle, env.MakeString("text")), 0);
        EXPECT_EQ(recording_toolkit::Calls(), Calls{strCall});
    }
}

// Every call to the JVM and to the toolkit, in order, from the Java text to the Java signature.
TEST_P(SigningTest, MakesExactlyTheseCalls) {
    FakeJniEnv env(recording_toolkit::Record);
    EXPECT_NE(GetParam().fnCall(&env, kHandle, env.MakeString("data")), 0);
    EXPECT_EQ(
        recording_toolkit::Calls(),
        (Calls{"GetStringUTFLength(input) = 4", "GetStringLength(input) = 4",
               "GetStringUTFChars(input, &false) = chars", "ReleaseStringUTFChars(input, chars)",
               GetParam().Call(recording_toolkit::kHandle, "data"), GetParam().AskSize(recording_toolkit::kHandle),
               GetParam().Fetch(recording_toolkit::kHandle, 5), "FindClass(\"Ljava/lang/String;\") = class",
               "GetMethodID(class, \"<init>\", \"([BLjava/lang/String;)V\") = constructor", "NewByteArray(4) = array",
               "SetByteArrayRegion(array, 0, 4, \"text\")", "NewStringUTF(\"utf-8\") = encoding",
               "NewObjectV(class, constructor, array, encoding) = text"}));
}

const std::vector<Native> kSigning =
    NativesThat([](const Native& native) { return !native.strCall.empty() && !native.strQuery.empty(); });

INSTANTIATE_TEST_SUITE_P(, SigningTest, testing::ValuesIn(kSigning), RowName);

TEST(SigningTable, LeavesNoNativeOut) {
    EXPECT_EQ(kSigning.size(), 4U);
}

struct P7Flags : Row {
    jlong bDetach;
    jlong bIncludeCert;
    const char* pszFlags;
};

class P7FlagsTest : public NativesTest, public testing::WithParamInterface<P7Flags> {};

TEST_P(P7FlagsTest, ReachTheToolkitAsTheirLow32Bits) {
    const P7Flags& flags = GetParam();
    const std::string strFlags = flags.pszFlags;
    FakeJniEnv env;

    Java_vex_jni_TAVClientJNI_P7Sign(&env, nullptr, kHandle, env.MakeString("data"), flags.bDetach, flags.bIncludeCert);
    EXPECT_EQ(recording_toolkit::Calls().at(0), "VCTK_P7Sign(0x5158, \"data\", 1, " + strFlags + ")");

    recording_toolkit::Reset();
    Java_vex_jni_TAVClientJNI_P7SignString(&env, nullptr, kHandle, env.MakeString("data"), flags.bDetach,
                                           flags.bIncludeCert);
    EXPECT_EQ(recording_toolkit::Calls().at(0), "VCTK_P7Sign(0x5158, \"data\", 0, " + strFlags + ")");
}

INSTANTIATE_TEST_SUITE_P(
    , P7FlagsTest,
    testing::Values(P7Flags{"Neither", 0, 0, "0, 0"}, P7Flags{"IncludeCert", 0, 1, "0, 1"},
                    P7Flags{"Detach", 1, 0, "1, 0"}, P7Flags{"Both", 1, 1, "1, 1"},
                    P7Flags{"NotNormalised", 2, -1, "2, -1"}, P7Flags{"Bit32", 0x1'0000'0000, 0x1'0000'0001, "0, 1"},
                    P7Flags{"Bit31", 0x8000'0000, 0x7fff'ffff, "-2147483648, 2147483647"},
                    P7Flags{"Extremes", std::numeric_limits<jlong>::min(), std::numeric_limits<jlong>::max(), "0, -1"}),
    RowName);

}  // namespace
