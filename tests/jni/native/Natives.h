// The fifteen natives as a table, for tests of what they have in common.
#pragma once

#include <gtest/gtest.h>
#include <jni.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "FakeJniEnv.h"
#include "RecordingToolkit.h"
#include "Row.h"

inline constexpr auto kHandle = static_cast<jlong>(recording_toolkit::kHandle);

// Named after the Java method.
struct Native : Row {
    // Calls the native with this handle and text if it takes them. Its other arguments are 1, a second integer is 0.
    // Returns its result; for a Java string the address.
    std::function<jlong(JNIEnv*, jlong handle, jstring text)> fnCall;

    // Its toolkit calls as RecordingToolkit.h writes them, with %H for the handle and %T for the text: its own call,
    // and the start of both calls of a size query. Empty: no such call.
    std::string strCall;
    std::string strQuery;

    jlong nRefused;  // its result when it does not call the toolkit

    bool TakesHandle() const;  // and refuses 0
    bool TakesText() const;    // and refuses null and ""
    bool ReturnsStatus() const { return nRefused == 1; }

    // strCall with handle and text in their places.
    std::string Call(std::uint64_t nHandle, std::string_view text) const;
    // The two calls of the size query for a text that needs nSize bytes.
    std::string AskSize(std::uint64_t nHandle) const;
    std::string Fetch(std::uint64_t nHandle, int nSize) const;
};

// The natives for which filter is true.
std::vector<Native> NativesThat(const std::function<bool(const Native&)>& filter);

using Calls = std::vector<std::string>;

// Resets the recording toolkit to success, and encodes texts as UTF-8.
class NativesTest : public testing::Test {
protected:
    NativesTest();
    ~NativesTest() override;
};

class NativesTestP : public NativesTest, public testing::WithParamInterface<Native> {};
