// Compressed logs. gzip, xz and others, as programs, write what is read here.
#include "Compression.h"

#include <gmock/gmock.h>

#include "Collected.h"
#include "Command.h"
#include "Input.h"
#include "OutputGuard.h"
#include "Row.h"
#include "TempDirectory.h"

namespace {

std::string Log(int nRecords) {
    std::string strLog(kHead);
    for (int i = 0; i < nRecords; ++i) {
        strLog += Entry(std::to_string(i), "Function", 7, "2024-03-05 09:07:02:" + std::to_string(100'000 + i));
        strLog += kEnd;
    }
    return strLog;
}

class CompressionTest : public testing::Test {
protected:
    // Returns the path of the output of a command that reads "log".
    std::string Made(const std::string& strName, const std::string& strCommand) const {
        m_directory.Write("log", m_strLog);
        const CommandResult result = RunCommand("cd " + m_directory.Path() + " && { " + strCommand + "; } >" + strName);
        EXPECT_EQ(result.nStatus, 0) << result.strOutput;
        return m_directory.Path(strName);
    }

    static std::vector<std::string> Read(const std::string& strPath) {
        struct Silent : vexlog::ReadObserver {
            void OnProgress(std::uint64_t, std::uint64_t, bool) override {}
        } silent;
        Collector collector;
        try {
            vexlog::ReadLogs({strPath}, collector, silent);
        } catch (const vexlog::ReadError& error) {
            collector.lines.emplace_back(error.what());
        }
        return collector.lines;
    }

    const TempDirectory m_directory;
    const std::string m_strLog = Log(5000);
    const std::vector<std::string> m_expected = Collected(m_strLog, 65536);
};

TEST_F(CompressionTest, GzipIsRead) {
    EXPECT_EQ(Read(Made("gz", "gzip -c log")), m_expected);
    EXPECT_EQ(Read(Made("stored", "gzip -c -1 log")), m_expected);
}

// "gzip -c a b" and "cat a.gz b.gz" make several members. Tapes fill up with zeros.
TEST_F(CompressionTest, SeveralMembersAreRead) {
    EXPECT_EQ(Read(Made("gz", "head -c 100000 log | gzip; tail -c +100001 log | gzip; printf '' | gzip")), m_expected);
    EXPECT_EQ(Read(Made("padded", "gzip -c log; head -c 100000 /dev/zero")), m_expected);
    EXPECT_EQ(Read(Made("between", "head -c 100000 log | gzip; head -c 700 /dev/zero; tail -c +100001 log | gzip")),
              m_expected);
}

TEST_F(CompressionTest, AnEmptyGzipHasNoRecords) {
    EXPECT_THAT(Read(Made("gz", "printf '' | gzip")), testing::IsEmpty());
}

TEST_F(CompressionTest, WhatCanBeReadOfAShortFileIsHandedOver) {
    const std::string strPath = Made("gz", "gzip -c log | head -c 8000");
    std::vector<std::string> lines = Read(strPath);
    ASSERT_GT(lines.size(), 10U);
    EXPECT_EQ(lines.back(), strPath + ": the compressed data ends too early; a part is missing");
    // The last record may be torn.
    lines.resize(lines.size() - 2);
    EXPECT_THAT(lines, testing::ElementsAreArray(m_expected.begin(),
                                                 m_expected.begin() + static_cast<std::ptrdiff_t>(lines.size())));
}

TEST_F(CompressionTest, ADamagedFileIsRefused) {
    for (const char* const pszCommand : {"gzip -c log; printf 'no gzip'", "gzip -c log | head -c -6; printf 'abcdef'",
                                         "printf '\\037\\213 no gzip'"}) {
        const std::string strPath = Made("gz", pszCommand);
        EXPECT_EQ(Read(strPath).back(), strPath + ": the compressed data is damaged") << pszCommand;
    }
}

TEST_F(CompressionTest, BytesBeforeTheDamageAreHandedOver) {
    const std::vector<std::string> lines = Read(Made("gz", "gzip -c log; printf 'no gzip'"));
    ASSERT_EQ(lines.size(), m_expected.size() + 1);
    EXPECT_TRUE(std::equal(m_expected.begin(), m_expected.end(), lines.begin()));
}

TEST_F(CompressionTest, OtherFormatsAreRefusedByName) {
    for (const auto& [pszCommand, pszText] :
         {std::pair("xz -c log", "compressed with xz; use \"xzcat FILE | vexlog -\""),
          std::pair("bzip2 -c log", "compressed with bzip2; use \"bzcat FILE | vexlog -\""),
          std::pair("printf '\\050\\265\\057\\375 zstd'", "compressed with zstd; use \"zstdcat FILE | vexlog -\"")}) {
        const std::string strPath = Made("other", pszCommand);
        EXPECT_THAT(Read(strPath), testing::ElementsAre(strPath + ": " + pszText));
    }
}

TEST_F(CompressionTest, ACompressedLogIsNoOutput) {
    EXPECT_THROW(vexlog::RefuseLogAsOutput(Made("gz", "gzip -c log")), vexlog::OutputRefused);
    EXPECT_THROW(vexlog::RefuseLogAsOutput(Made("other", "xz -c log")), vexlog::OutputRefused);
    EXPECT_NO_THROW(vexlog::RefuseLogAsOutput(Made("text", "printf 'text' | gzip")));
}

// All sizes of pieces of input and output.
TEST_F(CompressionTest, PiecesOfAnySizeGiveTheSameBytes) {
    const std::string strText = "one two three, one two three, one two three";
    m_directory.Write("text", strText);
    const std::string strGzip = ReadWholeFile(Made("gz", "gzip -c text; gzip -c text"));
    for (std::size_t cbIn = 1; cbIn <= strGzip.size(); ++cbIn) {
        for (const std::size_t cbOut : {std::size_t{1}, std::size_t{7}, std::size_t{1000}}) {
            vexlog::Inflater inflater;
            std::string strRead;
            for (std::string_view rest = strGzip; !rest.empty(); rest.remove_prefix(std::min(cbIn, rest.size()))) {
                inflater.SetInput(rest.substr(0, cbIn));
                std::string strPiece(cbOut, '\0');
                while (!inflater.NeedsInput()) {
                    const std::optional<std::size_t> cb = inflater.Read(strPiece.data(), strPiece.size());
                    ASSERT_TRUE(cb);
                    strRead += strPiece.substr(0, *cb);
                }
            }
            ASSERT_EQ(strRead, strText + strText) << cbIn << " " << cbOut;
            ASSERT_TRUE(inflater.MayEnd());
        }
    }
}

}  // namespace
