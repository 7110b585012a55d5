// The options of "vexsign verify".
#pragma once

#include <string>
#include <vector>

#include "common/CliApp.h"

namespace vexsign::verify {

struct Options {
    std::string strSignature;                   // "-": standard input
    std::string strContent;                     // the same; empty: the content is in the signature
    std::vector<std::string> authorities;       // files with the certificates that are trusted; empty: the system's
    bool bNoChain = false;                      // nobody is trusted
    std::vector<std::string> stampAuthorities;  // the same for time stamps; empty: those above
    std::vector<std::string> signers;           // files with signers' certificates; empty: whoever the signature names
    std::string strDigest;                      // of a P1; empty: all are tried
    std::string strAt;                          // the moment for which certificates must be valid; empty: now
    bool bAnyPurpose = false;
    bool bJson = false;
};

CLI::App* AddCommand(CLI::App& app, Options& options);

// Throws CLI::ValidationError.
void CheckOptions(const Options& options);

}  // namespace vexsign::verify
