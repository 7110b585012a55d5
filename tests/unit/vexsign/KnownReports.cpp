#include "KnownReports.h"

#include <gtest/gtest.h>

#include <regex>

#include "KnownText.h"

namespace vexsign::verify {
namespace {

std::string LinesOf(const Findings& findings, bool bAll) {
    constexpr const char* kResults[] = {"passed", "FAILED", "not checked"};
    std::string strLines;
    for (const Check& found : findings.checks) {
        if (bAll || found.result == Result::kFailed) {
            strLines += std::string(found.pszName) + " " + kResults[static_cast<int>(found.result)] + ": " +
                        found.strText + "\n";
        }
    }
    return strLines;
}

}  // namespace

void ExpectKnownReport(const Report& report, const std::string& strFile) {
    // An ECDSA signature has 68 to 72 bytes.
    static const std::regex s_length("it has (6[89]|7[0-2]) bytes");
    static const std::regex s_moment("20[3-9][0-9]-[0-9-]{5}T[0-9:]{8}Z|202[5-9]-[0-9-]{5}T[0-9:]{8}Z");
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    const std::string strTitle = std::string(test.test_suite_name()) + "." + test.name();
    std::string strLines = LinesOf(report, report.IsGood());
    for (std::size_t i = 0; i < report.signers.size(); ++i) {
        const SignerReport& signer = report.signers[i];
        strLines += "signer: " + (signer.certificate ? signer.certificate->strSubject : "unknown") +
                    (signer.time ? ", at " + signer.time->strTime + ", claimed " + signer.time->strClaimed : "") +
                    (signer.strAlgorithm.empty() ? "" : ", with " + signer.strAlgorithm) + "\n";
        strLines += LinesOf(signer, report.IsGood());
    }
    strLines =
        std::regex_replace(std::regex_replace(strLines, s_moment, "<moment>"), s_length, "it has <about 70> bytes");

    ExpectKnownText(VEX_KNOWN_TEXTS "/" + strFile, strTitle, strLines);
}

}  // namespace vexsign::verify
