// Initialize creates an object from the second text only, and enables its call queue at once.
#include "Natives.h"
#include "RecordingToolkit.h"
#include "vex_jni_TAVClientJNI.h"

namespace {

class InitializeTest : public NativesTest {
protected:
    jlong Initialize(jstring bstrAlgType, jstring bstrAuxParam) {
        return Java_vex_jni_TAVClientJNI_Initialize(&m_env, nullptr, bstrAlgType, bstrAuxParam);
    }

    std::vector<std::string> m_jniCalls;
    FakeJniEnv m_env{[this](std::string strCall) { m_jniCalls.push_back(std::move(strCall)); }};
};

TEST_F(InitializeTest, ReturnsTheHandleAndEnablesItsCallQueue) {
    for (const std::uint64_t nHandle : {std::uint64_t{1}, recording_toolkit::kHandle, 0x8123'4567'89ab'cdefU}) {
        recording_toolkit::Reset();
        recording_toolkit::SetHandle(nHandle);
        EXPECT_EQ(Initialize(nullptr, m_env.MakeString("store")), static_cast<jlong>(nHandle));
        const Calls calls = recording_toolkit::Calls();
        ASSERT_EQ(calls.size(), 2U);
        EXPECT_EQ(calls[0], "VCTK_Initialize(\"store\")");
    }
    EXPECT_EQ(recording_toolkit::Calls()[1], "VCTK_CallQueueEnable(0x8123456789abcdef, 0, 1)");
}

TEST_F(InitializeTest, EnablesNoQueueWithoutAnObject) {
    recording_toolkit::SetHandle(0);
    EXPECT_EQ(Initialize(nullptr, m_env.MakeString("store")), 0);
    EXPECT_EQ(recording_toolkit::Calls(), Calls{"VCTK_Initialize(\"store\")"});
}

TEST_F(InitializeTest, IgnoresAFailureToEnableTheQueue) {
    recording_toolkit::SetResult("VCTK_CallQueueEnable", -5);
    EXPECT_EQ(Initialize(nullptr, m_env.MakeString("store")), static_cast<jlong>(recording_toolkit::kHandle));
}

TEST_F(InitializeTest, IgnoresTheAlgorithm) {
    const jstring store = m_env.MakeString("store", "store");
    EXPECT_NE(Initialize(m_env.MakeString("SHA256", "algorithm"), store), 0);
    for (const std::string& strCall : m_jniCalls) {
        EXPECT_EQ(strCall.find("algorithm"), std::string::npos) << strCall;
    }
    EXPECT_EQ(m_jniCalls.size(), 4U);
}

TEST_F(InitializeTest, AnAlgorithmDoesNotReplaceAStore) {
    EXPECT_EQ(Initialize(m_env.MakeString("SHA256"), nullptr), 0);
    EXPECT_EQ(Initialize(m_env.MakeString("SHA256"), m_env.MakeString("")), 0);
    EXPECT_EQ(recording_toolkit::Calls(), Calls{});
}

}  // namespace
