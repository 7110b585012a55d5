// How a Java string reaches the toolkit: as narrow text in the encoding of the process locale.
#include <clocale>

#include "Natives.h"
#include "RecordingToolkit.h"

namespace {

class InputTextTest : public NativesTestP {
protected:
    std::string FirstCall(jstring text) {
        GetParam().fnCall(&m_env, kHandle, text);
        const Calls calls = recording_toolkit::Calls();
        return calls.empty() ? "" : calls.front();
    }

    FakeJniEnv m_env;
};

TEST_P(InputTextTest, IsEncodedInTheLocale) {
    EXPECT_EQ(FirstCall(m_env.MakeString("a\xC3\xA4\xE7\xAD\xBE")),
              GetParam().Call(recording_toolkit::kHandle, "a\xC3\xA4\xE7\xAD\xBE"));
    EXPECT_EQ(m_env.UnreleasedChars(), 0);
}

// The native does not notice; its result is that of the toolkit.
TEST_P(InputTextTest, IsPassedAsEmptyWhenTheLocaleCannotEncodeIt) {
    ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr);
    EXPECT_EQ(FirstCall(m_env.MakeString("a\xC3\xA4")), GetParam().Call(recording_toolkit::kHandle, ""));
}

TEST_P(InputTextTest, IsPassedWholeWhenItIsLong) {
    const std::string strLong(100'000, 'x');
    EXPECT_EQ(FirstCall(m_env.MakeString(strLong)), GetParam().Call(recording_toolkit::kHandle, strLong));
}

TEST_P(InputTextTest, NullIsRefusedWithoutAToolkitCall) {
    EXPECT_EQ(GetParam().fnCall(&m_env, kHandle, nullptr), GetParam().nRefused);
    EXPECT_EQ(recording_toolkit::Calls(), Calls{});
}

TEST_P(InputTextTest, EmptyIsRefusedWithoutAToolkitCall) {
    EXPECT_EQ(GetParam().fnCall(&m_env, kHandle, m_env.MakeString("")), GetParam().nRefused);
    EXPECT_EQ(recording_toolkit::Calls(), Calls{});
}

TEST_P(InputTextTest, IsRefusedWithoutAToolkitCallWhenTheJvmCannotReturnIt) {
    m_env.Fail("GetStringUTFChars");
    EXPECT_EQ(GetParam().fnCall(&m_env, kHandle, m_env.MakeString("text")), GetParam().nRefused);
    EXPECT_EQ(recording_toolkit::Calls(), Calls{});
}

const std::vector<Native> kTakingText = NativesThat([](const Native& native) { return native.TakesText(); });

INSTANTIATE_TEST_SUITE_P(, InputTextTest, testing::ValuesIn(kTakingText), RowName);

TEST(InputTextTable, LeavesNoNativeOut) {
    EXPECT_EQ(kTakingText.size(), 7U);
}

}  // namespace
