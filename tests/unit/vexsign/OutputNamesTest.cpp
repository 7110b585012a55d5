#include "vexsign/OutputNames.h"

#include <gtest/gtest.h>

namespace vexsign {
namespace {

using Pair = std::optional<std::pair<std::string, std::string>>;

TEST(OutputNames, AreTheNamesOfTheInputsInTheDirectory) {
    const struct {
        Command command;
        const char* pszDirectory;
        const char* pszInput;
        const char* pszExpected;
    } rows[] = {
        {Command::kP7, "out", "letter.txt", "out/letter.txt.p7s"},
        {Command::kP1, "out", "letter.txt", "out/letter.txt.p1"},
        {Command::kP7, "out/", "/a/b/letter.txt", "out/letter.txt.p7s"},
        {Command::kP7, "/", "../x", "/x.p7s"},
        {Command::kP7, ".", "-x", "./-x.p7s"},
        {Command::kP7, "out", "letter.txt.p7s", "out/letter.txt.p7s.p7s"},
    };
    for (const auto& row : rows) {
        Options options;
        options.command = row.command;
        options.strOutputDirectory = row.pszDirectory;
        EXPECT_EQ(SignatureFile(options, row.pszInput), row.pszExpected);
    }
}

TEST(OutputNames, FindsTwoInputsWithOneName) {
    const struct {
        std::vector<std::string> inputs;
        Pair expected;
    } rows[] = {
        {{"a"}, std::nullopt},
        {{"a", "b", "x/c", "a.p7s", "A"}, std::nullopt},
        {{"x/a", "b", "y/a", "z/a"}, std::pair("x/a", "y/a")},
        {{"b", "a", "a"}, std::pair("a", "a")},
        {{"./a", "a"}, std::pair("./a", "a")},
    };
    for (const auto& row : rows) {
        Options options;
        options.inputs = row.inputs;
        EXPECT_EQ(SameSignatureFile(options), row.expected) << row.inputs.back();
    }
}

}  // namespace
}  // namespace vexsign
