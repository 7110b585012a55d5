#include "Options.h"

#include "common/CommandLine.h"
#include "common/FileIdentity.h"
#include "vexsign/TimeStampOptions.h"

namespace vexsign::stamp {

CLI::App* AddCommand(CLI::App& app, Options& options) {
    CLI::App* const pStamp =
        app.add_subcommand("stamp", "Add a time stamp to a P7 signature that exists. Uses no toolkit");
    tools::AddFile(*pStamp, "SIGNATURE", options.strSignature,
                   "The P7 signature: Base64, DER, or PEM; \"-\" is standard input")
        ->required();
    tools::AddFile(
        *pStamp, "-o,--output", options.strOutput,
        "The file for the stamped signature, in the same form; \"-\" is standard output. It may be SIGNATURE", "FILE");
    AddTimeStampOptions(*pStamp, options.timeStamps, true);
    return pStamp;
}

void CheckOptions(const Options& options) {
    if (tools::IsStandardInput(options.strSignature) && tools::IsStandardInput(options.timeStamps.strTrusted)) {
        throw CLI::ValidationError("--tsa-ca", "standard input can be read only once; give a file name");
    }
}

}  // namespace vexsign::stamp
