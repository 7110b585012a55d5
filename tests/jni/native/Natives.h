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
#include "Row.h"

// Its name is that of the Java method.
struct Native : Row {
    // Calls it: handle and text as given where it takes them, else 1; the second of two integers is 0.
    // Returns what it returns, a Java string as its address.
    std::function<jlong(JNIEnv*, jlong handle, jstring text)> fnCall;

    // Its toolkit calls as RecordingToolkit.h writes them, %H for the handle and %T for the text: a call of its own,
    // and the start of both calls of a size query. Empty: it makes none.
    std::string strCall;
    std::string strQuery;

    jlong nRefused;  // what it returns when it does not ask the toolkit

    bool TakesHandle() const;  // and refuses 0
    bool TakesText() const;    // and refuses null and ""
    bool ReturnsStatus() const { return nRefused == 1; }

    // strCall with handle and text in their places.
    std::string Call(std::uint64_t nHandle, std::string_view text) const;
    // The two calls of the size query for a text that needs nSize bytes.
    std::string AskSize(std::uint64_t nHandle) const;
    std::string Fetch(std::uint64_t nHandle, int nSize) const;
};

// Those for which filter is true.
std::vector<Native> NativesThat(const std::function<bool(const Native&)>& filter);

using Calls = std::vector<std::string>;

// The recording toolkit obliging again, and texts encoded as UTF-8.
class NativesTest : public testing::Test {
protected:
    NativesTest();
    ~NativesTest() override;
};

class NativesTestP : public NativesTest, public testing::WithParamInterface<Native> {};
