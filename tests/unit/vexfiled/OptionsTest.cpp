// The command line.
#include "Options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Row.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using vexfiled::Options;

// What the program does with a command line.
struct Parsed {
    std::optional<Options> options;
    int nExit;
    std::string strOutput;
    std::string strError;
};

Parsed Parse(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "vexfiled");
    std::vector<char*> argv;
    for (std::string& strArgument : arguments) {
        argv.push_back(strArgument.data());
    }
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int nExit = 0;
    std::optional<Options> options = vexfiled::ParseOptions(static_cast<int>(argv.size()), argv.data(), nExit);
    return {std::move(options), nExit, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

TEST(CommandLine, Defaults) {
    const Options options = Parse({"--root", "/srv"}).options.value();
    EXPECT_EQ(options.strRoot, "/srv");
    EXPECT_EQ(options.uPort, 8766);
    EXPECT_EQ(options.cbMaxMessage, 16777216U);
    EXPECT_EQ(options.cMaxConnections, 64U);
    EXPECT_EQ(options.files.cMaxFiles, 256U);
    EXPECT_EQ(options.files.maxIdle, std::chrono::seconds(60));
    EXPECT_EQ(options.clientTimeout, std::chrono::seconds(30));
    EXPECT_EQ(options.totalsPeriod, std::chrono::hours(1));
    EXPECT_THAT(options.allowedUsers, IsEmpty());
    EXPECT_FALSE(options.bAllowAny);
    EXPECT_FALSE(options.bPortGiven);
    EXPECT_FALSE(options.bVerbose);
}

TEST(CommandLine, EverythingGiven) {
    const Options options = Parse({"--root=/srv", "--port=0", "--max-message=64", "--max-connections=1",
                                   "--max-files=2", "--idle-seconds=3", "--client-timeout-seconds=010",
                                   "--totals-seconds=5", "--allow-user=root", "--allow-user", "4711", "--verbose"})
                                .options.value();
    EXPECT_EQ(options.uPort, 0);
    EXPECT_EQ(options.cbMaxMessage, 64U);
    EXPECT_EQ(options.cMaxConnections, 1U);
    EXPECT_EQ(options.files.cMaxFiles, 2U);
    EXPECT_EQ(options.files.maxIdle, std::chrono::seconds(3));
    EXPECT_EQ(options.clientTimeout, std::chrono::seconds(10));
    EXPECT_EQ(options.totalsPeriod, std::chrono::seconds(5));
    EXPECT_THAT(options.allowedUsers, testing::ElementsAre("root", "4711"));
    EXPECT_TRUE(options.bPortGiven);
    EXPECT_TRUE(options.bVerbose);
    EXPECT_TRUE(Parse({"--root=/srv", "--allow-any"}).options.value().bAllowAny);
}

TEST(CommandLine, HelpAndVersion) {
    const Parsed help = Parse({"--help"});
    EXPECT_FALSE(help.options.has_value());
    EXPECT_EQ(help.nExit, 0);
    EXPECT_THAT(help.strError, IsEmpty());
    for (const char* pszText :
         {"--root", "--port", "--max-message", "--max-files", "--max-connections", "--idle-seconds",
          "--client-timeout-seconds", "--verbose", "--allow-user", "--allow-any", "--totals-seconds", "SIGHUP",
          "LISTEN_FDS", "Exit status", "Examples:"}) {
        EXPECT_THAT(help.strOutput, HasSubstr(pszText));
    }
    const Parsed version = Parse({"--version"});
    EXPECT_FALSE(version.options.has_value());
    EXPECT_EQ(version.nExit, 0);
    EXPECT_THAT(version.strOutput, testing::MatchesRegex("vexfiled [0-9.]+\n"));
}

struct WrongLine : Row {
    std::vector<std::string> arguments;
    std::string strError = "";
};

class WrongCommandLine : public testing::TestWithParam<WrongLine> {};

TEST_P(WrongCommandLine, EndsWith2AndSaysWhy) {
    const Parsed parsed = Parse(GetParam().arguments);
    EXPECT_FALSE(parsed.options.has_value());
    EXPECT_EQ(parsed.nExit, 2);
    EXPECT_THAT(parsed.strError, AllOf(StartsWith("vexfiled: "), HasSubstr(GetParam().strError)));
    EXPECT_THAT(parsed.strOutput, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    All, WrongCommandLine,
    testing::Values(
        WrongLine{{"NoRoot"}, {}}, WrongLine{{"RootWithoutValue"}, {"--root"}},
        WrongLine{{"EmptyRoot"}, {"--root=", "/srv"}, "the name is empty"},

        WrongLine{{"PortTooHigh"}, {"--root=/srv", "--port=65536"}},
        WrongLine{{"PortNegative"}, {"--root=/srv", "--port=-1"}},
        WrongLine{{"PortNoNumber"}, {"--root=/srv", "--port=http"}, "--port: \"http\" is no whole number"},
        WrongLine{{"PortHexadecimal"}, {"--root=/srv", "--port=0x10"}, "--port: \"0x10\" is no whole number"},
        WrongLine{{"PortWithAFraction"}, {"--root=/srv", "--port=1.5"}, "--port: \"1.5\" is no whole number"},
        WrongLine{{"PortWithAPlus"}, {"--root=/srv", "--port=+5"}, "--port: \"+5\" is no whole number"},
        WrongLine{{"PortEmpty"}, {"--root=/srv", "--port="}, "--port: \"\" is no whole number"},
        WrongLine{{"PortMinus"}, {"--root=/srv", "--port=-"}, "--port: \"-\" is no whole number"},
        WrongLine{{"MessageTooSmall"}, {"--root=/srv", "--max-message=63"}},
        WrongLine{{"MessageTooLarge"}, {"--root=/srv", "--max-message=1073741825"}},
        WrongLine{{"NoFiles"}, {"--root=/srv", "--max-files=0"}},
        WrongLine{{"FilesTooMany"}, {"--root=/srv", "--max-files=100001"}},
        WrongLine{{"NoConnections"}, {"--root=/srv", "--max-connections=0"}},
        WrongLine{{"NoIdleTime"}, {"--root=/srv", "--idle-seconds=0"}},
        WrongLine{{"NoTimeout"}, {"--root=/srv", "--client-timeout-seconds=0"}},
        WrongLine{{"NoTotals"}, {"--root=/srv", "--totals-seconds=0"}},
        WrongLine{{"UnknownUser"}, {"--root=/srv", "--allow-user=no\x1B[2J"}, "no\\x1b[2J"},
        WrongLine{{"EmptyUser"}, {"--root=/srv", "--allow-user="}},
        WrongLine{{"AnyAndUser"}, {"--root=/srv", "--allow-any", "--allow-user=0"}},
        WrongLine{{"Unknown"}, {"--root=/srv", "--daemon"}}, WrongLine{{"Surplus"}, {"--root=/srv", "more"}}),
    RowName);

}  // namespace
