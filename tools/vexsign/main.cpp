// vexsign: signs from the command line with the client toolkit that is installed.
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "Base64.h"
#include "Files.h"
#include "Hint.h"
#include "Options.h"
#include "OutputGuard.h"
#include "Prompt.h"
#include "Secret.h"
#include "Signing.h"
#include "StoreText.h"
#include "Toolkit.h"
#include "common/Exit.h"
#include "common/Message.h"
#include "posix/OutputBuffer.h"
#include "posix/VisibleText.h"
#include "verify/Command.h"

namespace vexsign {
namespace {

void Say(const char* pszText) {
    tools::Complain("vexsign", pszText);
}

void SetStore(const Options& options, Secret& store) {
    std::string strStore = StoreOf(options.strStore);
    if (options.bListAll) {
        strStore = WithListAll(strStore);
    }
    if (options.bChain) {
        strStore = WithChain(strStore, options.strChainSource);
    }
    if (options.bAskPin) {
        Secret pin;
        AskPin("PIN: ", pin);
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

void List(SigningObject& object, bool bAll) {
    const std::string strList = object.CertificateList();
    if (strList.empty()) {
        Say(bAll ? "the store has no certificate that passes the filters" : "no certificate of the store can sign");
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

std::string Pem(const std::string& strDer) {
    constexpr std::size_t kLine = 64;
    const std::string strBase64 = EncodeBase64(strDer);
    std::string strPem = "-----BEGIN CERTIFICATE-----\n";
    for (std::size_t i = 0; i < strBase64.size(); i += kLine) {
        strPem.append(strBase64, i, kLine).append("\n");
    }
    return strPem + "-----END CERTIFICATE-----\n";
}

void Sign(SigningObject& object, const Options& options) {
    if (options.bSingle) {
        object.SetChooseSingle();
    }
    const Signature signature = SignInput(object, options);
    std::vector<Output> outputs;
    std::string strCertificate;
    std::string strPem;
    if (!options.strCertificate.empty()) {
        strCertificate = DecodeAnswer(object.Certificate(), "certificate");
        strPem = Pem(strCertificate);
        outputs.push_back({options.strCertificate, {strPem}});
    }
    outputs.push_back({options.strOutput, {signature.pieces.begin(), signature.pieces.end()}, signature.bAsBase64});
    WriteOutputs(outputs);
    if (options.bVerifyHint) {
        static_cast<void>(std::fprintf(stderr, "To verify: %s\n", VerifyHint(options, strCertificate).c_str()));
    }
}

void Execute(const Options& options) {
    if (HasPin(options.strStore)) {
        Say("other users of this machine can see a PIN on the command line; use --pin-source or --ask-pin");
    }
    if (options.command != Command::kList) {
        RefuseDangerousOutputs(options);
    }
    Secret store;
    SetStore(options, store);
    SigningObject object(store.Text());
    for (const FilterOption& filter : options.filters) {
        object.AddFilter(filter.ulType, filter.strValue);
    }
    if (options.command == Command::kList) {
        List(object, options.bListAll);
    } else {
        Sign(object, options);
    }
}

int Run(int argc, char** argv) {
    int nExit = tools::kExitOk;
    const std::optional<Options> options = ParseOptions(argc, argv, nExit);
    if (!options) {
        return nExit;
    }
    static_cast<void>(std::setlocale(LC_CTYPE, ""));
    // Failed writes then return errors.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
    try {
        if (options->command == Command::kVerify) {
            return verify::Run(options->verification);
        }
        Execute(*options);
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
    return tools::kExitOk;
}

}  // namespace
}  // namespace vexsign

int main(int argc, char** argv) {
    return vexsign::Run(argc, argv);
}
