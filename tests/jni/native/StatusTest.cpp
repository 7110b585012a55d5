// The natives that return a status: the status for each result of the toolkit, and the integers that the toolkit gets.
#include <climits>
#include <limits>

#include "CallText.h"
#include "Natives.h"
#include "RecordingToolkit.h"
#include "vex_jni_TAVClientJNI.h"

namespace {

class StatusTest : public NativesTestP {};

TEST_P(StatusTest, IsZeroForZeroAndOneForAnythingElse) {
    const std::string strCall = GetParam().Call(recording_toolkit::kHandle, "text");
    for (const int nResult : {0, 1, 2, -1, -5, 1001, INT_MIN, INT_MAX}) {
        SCOPED_TRACE(nResult);
        recording_toolkit::Reset();
        recording_toolkit::SetResult(strCall.substr(0, strCall.find('(')), nResult);
        FakeJniEnv env;
        EXPECT_EQ(GetParam().fnCall(&env, kHandle, env.MakeString("text")), nResult == 0 ? 0 : 1);
        EXPECT_EQ(recording_toolkit::Calls(), Calls{strCall});
    }
}

const std::vector<Native> kReturningStatus = NativesThat([](const Native& native) { return native.ReturnsStatus(); });

INSTANTIATE_TEST_SUITE_P(, StatusTest, testing::ValuesIn(kReturningStatus), RowName);

TEST(StatusTable, LeavesNoNativeOut) {
    EXPECT_EQ(kReturningStatus.size(), 5U);
}

class IntegerArgumentTest : public NativesTest {};

TEST_F(IntegerArgumentTest, ChooseFlagIsNotNormalised) {
    for (const jint nChoose : {0, 1, 2, -1, INT_MIN, INT_MAX}) {
        recording_toolkit::Reset();
        FakeJniEnv env;
        EXPECT_EQ(Java_vex_jni_TAVClientJNI_SetChooseSingleCert(&env, nullptr, kHandle, nChoose), 0);
        EXPECT_EQ(recording_toolkit::Calls(),
                  Calls{"VCTK_SetChooseSingleCert(0x5158, " + std::to_string(nChoose) + ")"});
    }
}

TEST_F(IntegerArgumentTest, FilterTypeKeepsAll64Bits) {
    for (const jlong nType : {jlong{0}, jlong{1}, jlong{-1}, jlong{0x1'0000'0000}, jlong{0x0123456789abcdef},
                              std::numeric_limits<jlong>::min(), std::numeric_limits<jlong>::max()}) {
        recording_toolkit::Reset();
        FakeJniEnv env;
        EXPECT_EQ(Java_vex_jni_TAVClientJNI_AddFilter(&env, nullptr, kHandle, nType, env.MakeString("value")), 0);
        EXPECT_EQ(recording_toolkit::Calls(),
                  Calls{"VCTK_AddFilter(0x5158, " + Hexadecimal(static_cast<std::uint64_t>(nType)) + ", \"value\")"});
    }
}

}  // namespace
