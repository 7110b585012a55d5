// The command line.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "TimeStamps.h"
#include "VCTKFilter.h"
#include "stamp/Options.h"
#include "verify/Options.h"

namespace vexsign {

enum class Command { kList, kP1, kP7, kStamp, kVerify };

struct FilterOption {
    ULONG ulType;
    std::string strValue;
};

struct Options {
    Command command = Command::kList;
    std::string strStore;
    std::string strPinSource;  // empty: none
    bool bAskPin = false;
    std::vector<FilterOption> filters;
    bool bSingle = false;

    bool bListAll = false;  // of kList

    // Of kP1 and kP7.
    std::vector<std::string> inputs = {"-"};  // "-": standard input; several only with strOutputDirectory
    std::string strOutput = "-";              // "-": standard output
    std::string strOutputDirectory;           // of the signatures of all inputs, in place of strOutput; empty: none
    bool bText = false;
    bool bDer = false;
    std::string strDigest;       // empty: the toolkit chooses
    std::string strCertificate;  // file for the signer's certificate; empty: none
    bool bVerifyHint = false;

    // Of kP7.
    bool bDetached = true;
    bool bCertificate = true;
    bool bChain = false;
    std::string strChainSource;  // empty: none
    TimeStamps timeStamps;

    stamp::Options stamping;       // of kStamp
    verify::Options verification;  // of kVerify

    // The one input without strOutputDirectory.
    const std::string& Input() const { return inputs.front(); }
};

// Nothing: the program has to exit with nExit; the help, the version or an error message has been printed.
std::optional<Options> ParseOptions(int argc, char** argv, int& nExit);

}  // namespace vexsign
