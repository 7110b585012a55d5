// What the natives do with a handle: they pass it on unchanged and refuse only 0.
#include <limits>

#include "CallText.h"
#include "Natives.h"
#include "RecordingToolkit.h"

namespace {

constexpr jlong kHandles[] = {1,
                              static_cast<jlong>(recording_toolkit::kHandle),
                              0x0123456789abcdef,
                              std::numeric_limits<jlong>::max(),
                              std::numeric_limits<jlong>::min(),
                              -1};

class HandOverTest : public NativesTestP {};

TEST_P(HandOverTest, EveryToolkitCallGetsAll64Bits) {
    for (const jlong handle : kHandles) {
        recording_toolkit::Reset();
        FakeJniEnv env;
        GetParam().fnCall(&env, handle, env.MakeString("text"));
        const Calls calls = recording_toolkit::Calls();
        EXPECT_FALSE(calls.empty());
        for (const std::string& strCall : calls) {
            const std::string strArguments = strCall.substr(strCall.find('('));
            EXPECT_EQ(strArguments.substr(0, strArguments.find_first_of(",)")),
                      "(" + Hexadecimal(static_cast<std::uint64_t>(handle)));
        }
    }
}

// The bridge does not know which handles are open. The toolkit decides.
TEST_P(HandOverTest, AFinalizedHandleIsAlsoPassedOn) {
    const Native finalize = NativesThat([](const Native& native) { return native.strName == "Finalize"; }).at(0);
    FakeJniEnv env;
    const auto call = [&] {
        recording_toolkit::Reset();
        GetParam().fnCall(&env, static_cast<jlong>(recording_toolkit::kHandle), env.MakeString("text"));
        return recording_toolkit::Calls();
    };
    const Calls before = call();
    EXPECT_EQ(finalize.fnCall(&env, static_cast<jlong>(recording_toolkit::kHandle), nullptr), 0);
    EXPECT_EQ(call(), before);
}

INSTANTIATE_TEST_SUITE_P(, HandOverTest,
                         testing::ValuesIn(NativesThat([](const Native& native) { return native.TakesHandle(); })),
                         RowName);

class HandleZeroTest : public NativesTestP {};

TEST_P(HandleZeroTest, IsRefusedWithoutAToolkitCall) {
    FakeJniEnv env;
    EXPECT_EQ(GetParam().fnCall(&env, 0, env.MakeString("text")), GetParam().nRefused);
    EXPECT_EQ(recording_toolkit::Calls(), Calls{});
}

// The text comes first: the JVM calls are the same for every handle.
TEST_P(HandleZeroTest, IsCheckedAfterTheTextIsConverted) {
    FakeJniEnv env(recording_toolkit::Record);
    GetParam().fnCall(&env, 0, env.MakeString("text"));
    const Calls conversion = {"GetStringUTFLength(input) = 4", "GetStringLength(input) = 4",
                              "GetStringUTFChars(input, &false) = chars", "ReleaseStringUTFChars(input, chars)"};
    EXPECT_EQ(recording_toolkit::Calls(), GetParam().TakesText() ? conversion : Calls{});
}

// All natives that take a handle, except GetLastError.
const std::vector<Native> kRefusingZero =
    NativesThat([](const Native& native) { return native.TakesHandle() && native.strName != "GetLastError"; });

INSTANTIATE_TEST_SUITE_P(, HandleZeroTest, testing::ValuesIn(kRefusingZero), RowName);

TEST(HandleTables, LeaveNoNativeOut) {
    EXPECT_EQ(NativesThat([](const Native&) { return true; }).size(), 15U);
    EXPECT_EQ(kRefusingZero.size(), 12U);  // not Initialize, GetSignVersion, GetLastError
}

}  // namespace
