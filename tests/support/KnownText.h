// Compares what users read with files that hold it.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "TempDirectory.h"

// The file has a line "== key" and below it the text, for each key. strText: without an end of line, or of several
// whole lines.
inline void ExpectKnownText(const std::string& strFile, const std::string& strKey, std::string strText) {
    if (!strText.ends_with('\n')) {
        strText += '\n';
    }
    const std::string strTitle = "== " + strKey + "\n";
    const std::string strKnown = "\n" + ReadWholeFile(strFile) + "== ";
    const std::size_t nTitle = strKnown.find("\n" + strTitle);
    ASSERT_NE(nTitle, std::string::npos) << strFile << " lacks:\n" << strTitle << strText;
    const std::size_t nBegin = nTitle + 1 + strTitle.size();
    EXPECT_EQ(strText, strKnown.substr(nBegin, strKnown.find("\n== ", nBegin - 1) + 1 - nBegin)) << strTitle;
}

// The file has one text a line.
inline void ExpectKnownLine(const std::string& strFile, const std::string& strText) {
    EXPECT_NE(("\n" + ReadWholeFile(strFile)).find("\n" + strText + "\n"), std::string::npos)
        << strFile << " lacks: " << strText;
}
