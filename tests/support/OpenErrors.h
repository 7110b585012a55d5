// Expectations on the error of a store that cannot be opened.
#pragma once

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "Row.h"
#include "ToolkitClient.h"

// The PIN of the rows below, and how a URI may write it.
inline constexpr const char* kUnusedPin = "sEc-ReT";
inline constexpr const char* kUnusedPinInUri = "sEc%2DReT";

struct OpenError : Row {
    VCTKError nError;
    std::string strUri;   // errors=handle is appended to its attributes
    std::string strText;  // the detail of the message, or its end after "..."
};

// Opens the store with errors=handle. The message must be one line that ends as the row says, without a PIN.
inline void ExpectOpenError(const OpenError& row, const std::string& strUri, const std::string& strText) {
    const ToolkitClient client(strUri + (strUri.find('?') == std::string::npos ? "?" : "&") + "errors=handle");
    ASSERT_TRUE(client.IsOpen()) << strUri << ErrorMessage(nullptr);
    const std::string strMessage = client.Message();
    EXPECT_EQ(client.LastError(), row.nError) << strMessage;
    const std::string strBegin = VCTKErrorMessage(row.nError) + std::string(": ");
    if (strText.starts_with("...")) {
        EXPECT_TRUE(strMessage.starts_with(strBegin) && strMessage.ends_with(strText.substr(3))) << strMessage;
    } else {
        EXPECT_EQ(strMessage, strBegin + strText);
    }
    for (const char* pszForm : {kUnusedPin, kUnusedPinInUri, "c2VjLVJlV", "c0VjLVJlV", "734563", "ReT", "4711"}) {
        EXPECT_EQ(strMessage.find(pszForm), std::string::npos) << strMessage;
    }
    for (const char ch : strMessage) {
        EXPECT_TRUE(static_cast<unsigned char>(ch) >= ' ' && ch != '\x7F') << strMessage;
    }
}
