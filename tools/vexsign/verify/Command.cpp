#include "Command.h"

#include <unistd.h>

#include <optional>

#include "Encoding.h"
#include "ReadFile.h"
#include "ReportText.h"
#include "Time.h"
#include "Verification.h"
#include "common/Exit.h"
#include "common/FileIdentity.h"
#include "common/Message.h"
#include "posix/OutputBuffer.h"
#include "vexsign/Input.h"

namespace vexsign::verify {
namespace {

Settings SettingsOf(const Options& options) {
    Settings settings;
    settings.trust = options.bNoChain ? Trust::kNone : !options.authorities.empty() ? Trust::kFiles : Trust::kSystem;
    if (settings.trust == Trust::kFiles) {
        settings.store = StoreOfFiles(options.authorities);
    } else if (settings.trust == Trust::kSystem) {
        settings.store = SystemStore();
    }
    if (!options.stampAuthorities.empty()) {
        settings.stampStore = StoreOfFiles(options.stampAuthorities);
    }
    for (const std::string& strSigner : options.signers) {
        AddSigner(ReadCertificates(ReadWhole(strSigner), strSigner), settings);
    }
    settings.nMoment = options.strAt.empty() ? std::time(nullptr) : ParseMoment(options.strAt).value();
    settings.bAnyPurpose = options.bAnyPurpose;
    settings.strDigest = options.strDigest;
    return settings;
}

}  // namespace

int Run(const Options& options) {
    const bool bWithContent = !options.strContent.empty();
    std::string file = ReadWhole(options.strSignature, bWithContent ? kMostSmallFile : kMostSignatureFile);
    const Settings settings = SettingsOf(options);
    std::optional<Input> input;
    Reader reader;
    if (bWithContent) {
        input.emplace(options.strContent);
        reader = [&](char* pchBuffer, std::size_t cbBuffer) { return input->Read(pchBuffer, cbBuffer); };
    }
    Report report = Verify(std::move(file), settings, bWithContent ? &reader : nullptr);
    report.strSignature = tools::ShownName(options.strSignature, "standard input");
    vexposix::OutputBuffer output(STDOUT_FILENO);
    if (options.bJson) {
        PrintJson(report, output);
    } else {
        // A program that reads the report gets UTF-8 in any locale.
        PrintText(report, isatty(STDOUT_FILENO) == 0 || tools::LocaleIsUtf8(), output);
    }
    output.Finish();
    return report.IsGood() ? tools::kExitOk : tools::kExitError;
}

}  // namespace vexsign::verify
