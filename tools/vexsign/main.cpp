// vexsign: signs from the command line with the client toolkit that is installed.
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Batch.h"
#include "Files.h"
#include "Hint.h"
#include "Options.h"
#include "OutputGuard.h"
#include "PinSource.h"
#include "Prompt.h"
#include "Secret.h"
#include "Signing.h"
#include "StoreText.h"
#include "Toolkit.h"
#include "common/Exit.h"
#include "common/FileIdentity.h"
#include "common/Message.h"
#include "common/Process.h"
#include "posix/OutputBuffer.h"
#include "posix/VisibleText.h"
#include "stamp/Command.h"
#include "verify/Command.h"

namespace vexsign {
namespace {

void Say(std::string_view text) {
    tools::Complain("vexsign", text);
}

void WarnOfOpenPins(const Options& options) {
    if (HasPin(options.strStore)) {
        Say("other users of this machine can see a PIN on the command line; use --pin-source or --ask-pin");
    }
    std::vector<std::string> files = PinFilesOf(StoreOf(options.strStore));
    if (!options.strPinSource.empty()) {
        files.push_back(options.strPinSource);
    }
    for (const std::string& strFile : files) {
        if (EverybodyMayRead(strFile)) {
            Say(strFile + ": every user of this machine can read this PIN; remove the right with chmod 600");
        }
    }
}

void SetStore(const Options& options, Secret& store) {
    std::string strStore = StoreOf(options.strStore);
    if (options.bListAll) {
        strStore = WithListAll(strStore);
    }
    if (options.bChain) {
        strStore = WithChain(strStore, options.strChainSource);
    }
    strStore = WithTimeStamps(strStore, options.timeStamps);
    Secret pin;
    if (options.bAskPin) {
        AskPin("PIN: ", pin);
        AppendPin(strStore, pin, store);
    } else if (!options.strPinSource.empty() && ReadPinFromPipe(options.strPinSource, pin)) {
        AppendPin(strStore, pin, store);
    } else {
        store.Text() =
            options.strPinSource.empty() ? std::move(strStore) : WithPinSource(strStore, options.strPinSource);
    }
}

// Escapes the fields, not their separators.
std::string VisibleList(std::string_view list, bool bUtf8) {
    std::string strShown;
    while (!list.empty()) {
        const std::size_t nSeparator = std::min(list.find_first_of("\t\n"), list.size());
        strShown += vexposix::Visible(list.substr(0, nSeparator), bUtf8);
        strShown += list.substr(nSeparator, 1);
        list.remove_prefix(std::min(nSeparator + 1, list.size()));
    }
    return strShown;
}

// ": " and the toolkit's reason, if it has one.
std::string WhyNoneSigns(SigningObject& object) {
    try {
        static_cast<void>(object.Certificate());
    } catch (const ToolkitError& error) {
        return std::string(": ") + error.what();
    }
    return {};
}

void List(SigningObject& object, bool bAll) {
    const std::string strList = object.CertificateList();
    if (strList.empty() && bAll) {
        Say("the store has no certificate that passes the filters");
        return;
    }
    if (strList.empty()) {
        Say("no certificate of the store can sign" + WhyNoneSigns(object) + "; --all names them");
        return;
    }
    // A program that reads the list gets UTF-8 in any locale.
    const std::string strShown = VisibleList(strList, isatty(STDOUT_FILENO) == 0 || tools::LocaleIsUtf8()) + "\n";
    try {
        WriteOutputs({{"-", {strShown}}});
    } catch (const vexposix::OutputClosed&) {
        // No error: the reader has seen enough.
    }
}

void Sign(SigningObject& object, const Options& options) {
    const Signature signature = FileSigner(object, options).Sign(options.Input());
    std::vector<Output> outputs;
    std::string strCertificate;
    std::string strPem;
    if (!options.strCertificate.empty()) {
        strCertificate = DecodeAnswer(object.Certificate(), "certificate");
        strPem = CertificateAsPem(strCertificate);
        outputs.push_back({options.strCertificate, {strPem}});
    }
    outputs.push_back({options.strOutput, {signature.pieces.begin(), signature.pieces.end()}, signature.bAsBase64});
    WriteOutputs(outputs);
    if (options.bVerifyHint) {
        static_cast<void>(std::fprintf(stderr, "To verify: %s\n", VerifyHint(options, strCertificate).c_str()));
    }
}

void RequireDirectory(const std::string& strPath) {
    struct stat status = {};
    const int nErrno = stat(strPath.c_str(), &status) != 0 ? errno : S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
    if (nErrno != 0) {
        throw std::runtime_error(strPath + ": " + std::strerror(nErrno) + "; --output-dir needs an existing directory");
    }
}

// What the user may have meant by a store that the toolkit refuses.
std::string StoreHint(const Options& options) {
    if (!LacksScheme(options.strStore)) {
        return {};
    }
    const std::string strHint = "; STORE is \"" + options.strStore + "\": if it is the store's file, write \"./" +
                                options.strStore + "\" or \"file:\" and its absolute path";
    const bool bFileGiven = options.Input() != tools::kStandardStream;
    return options.command == Command::kList || bFileGiven
               ? strHint
               : strHint + "; if it is the file to sign, write the store before it";
}

std::unique_ptr<SigningObject> OpenStore(const Options& options) {
    Secret store;
    SetStore(options, store);
    try {
        return std::make_unique<SigningObject>(store.Text());
    } catch (const ToolkitError& error) {
        throw std::runtime_error(error.what() + StoreHint(options));
    }
}

// False: a file of several was not signed; the reason has been printed.
bool Execute(const Options& options) {
    WarnOfOpenPins(options);
    if (!options.strOutputDirectory.empty()) {
        RequireDirectory(options.strOutputDirectory);
    }
    if (options.command != Command::kList) {
        RefuseDangerousOutputs(options);
    }
    const std::unique_ptr<SigningObject> pObject = OpenStore(options);
    SigningObject& object = *pObject;
    for (const FilterOption& filter : options.filters) {
        object.AddFilter(filter.ulType, filter.strValue);
    }
    if (options.command == Command::kList) {
        List(object, options.bListAll);
        return true;
    }
    if (options.bSingle) {
        object.SetChooseSingle();
    }
    if (!options.strOutputDirectory.empty()) {
        return SignFiles(object, options);
    }
    Sign(object, options);
    return true;
}

int Run(int argc, char** argv) {
    // A core file, or a debugger of the same user, would show keys and PINs. It cannot fail with these arguments.
    static_cast<void>(prctl(PR_SET_DUMPABLE, 0));
    tools::SetUpProcess();
    int nExit = tools::kExitOk;
    const std::optional<Options> options = ParseOptions(argc, argv, nExit);
    if (!options) {
        return nExit;
    }
    try {
        if (options->command == Command::kVerify) {
            return verify::Run(options->verification);
        }
        if (options->command == Command::kStamp) {
            stamp::Run(options->stamping);
            return tools::kExitOk;
        }
        return Execute(*options) ? tools::kExitOk : tools::kExitError;
    } catch (const vexposix::OutputClosed&) {
        Say("the reader of the output ended before all was written");
        return tools::kExitError;
    } catch (const std::bad_alloc&) {
        Say("out of memory");
        return tools::kExitError;
    } catch (const std::exception& error) {
        Say(error.what());
        return tools::kExitError;
    }
}

}  // namespace
}  // namespace vexsign

int main(int argc, char** argv) {
    return vexsign::Run(argc, argv);
}
