// The table of docs/filters.md, the C header and the Java class have the same filters, and the table's examples work.
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <string>

#include "TestStore.h"
#include "ToolkitClient.h"

namespace {

using Numbers = std::map<std::string, std::string>;

std::string Source(const char* pszFile) {
    return ReadWholeFile(std::string(VEX_TEST_SOURCE_DIR "/") + pszFile);
}

// Maps one group of the pattern to the other.
Numbers Find(const std::string& strText, const char* pszPattern, size_t nName, size_t nNumber) {
    const std::regex pattern(pszPattern);
    Numbers numbers;
    for (std::sregex_iterator i(strText.begin(), strText.end(), pattern), end; i != end; ++i) {
        EXPECT_TRUE(numbers.emplace((*i)[nName], (*i)[nNumber]).second) << (*i)[nName];
    }
    return numbers;
}

TEST(FilterTable, HeaderAndJavaHaveTheSameNumbers) {
    const Numbers table = Find(Source("docs/filters.md"), "\\| (\\d+) \\| `VCTK_FILTER_(\\w+)` \\|", 2, 1);
    EXPECT_EQ(table.size(), 13U);
    EXPECT_EQ(Find(Source("BaseInclude/VCTKFilter.h"), "VCTK_FILTER_(\\w+) = (\\d+);", 1, 2), table);
    EXPECT_EQ(Find(Source("java/src/vex/jni/TAVClientJNI.java"), "FILTER_(\\w+) = (\\d+);", 1, 2), table);
}

TEST(FilterTable, ExamplesAreAccepted) {
    const TempDirectory directory;
    MakeIdentity(directory, {"a"});
    const ToolkitClient client("file:" + MakePemStore(directory, "s.pem", {"a"}));
    const Numbers examples = Find(Source("docs/filters.md"), "\\| (\\d+) \\| `VCTK_FILTER_.*\\| `([^`]+)` \\|", 1, 2);
    EXPECT_EQ(examples.size(), 13U);
    for (const auto& [strNumber, strExample] : examples) {
        EXPECT_EQ(VCTK_AddFilter(client.Handle(), std::stoul(strNumber), strExample.c_str()), 0)
            << strNumber << " " << strExample << ": " << client.Message();
    }
}

}  // namespace
