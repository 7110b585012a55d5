#include "Options.h"

#include <algorithm>
#include <charconv>
#include <string_view>

#include "DigestName.h"
#include "OutputNames.h"
#include "PinSource.h"
#include "StoreText.h"
#include "TimeStampOptions.h"
#include "common/CommandLine.h"
#include "common/FileIdentity.h"

namespace vexsign {
namespace {

constexpr const char* kDescription =
    "Signs with the client toolkit, libVEXClientTKDll64.so.\n"
    "STORE is the toolkit's initialisation text (demo:, file:/path/keys.p12), or a path that begins with /, ./ or ../.";

constexpr const char* kExamples = R"(Examples:
  vexsign list demo:                                         which certificates can sign
  vexsign list ./keys.p12 --ask-pin --all                    also those that cannot, and why
  vexsign p7 ./keys.p12 --pin-source pin letter.txt -o letter.p7s
                                                             detached CMS, with the certificate, Base64
  vexsign p7 demo: letter.txt --attached --out der -o letter.p7m --verify-hint
                                                             DER, and the openssl command that verifies it
  vexsign p1 demo: --filter key-algorithm=EC --digest SHA384 letter.txt -o letter.sig --cert-out signer.pem
                                                             a bare ECDSA signature, and the certificate
  vexsign p7 ./keys.p12 --ask-pin --chain letter.txt        with the certificates that lead to the root
  vexsign p7 ./keys.p12 --pin-source pin *.pdf --output-dir signatures
                                                             one signature for each file, with one login
  printf '%s' "I owe you 100 euros." | vexsign p7 ./keys.p12 --ask-pin
  vexsign p7 ./keys.p12 --ask-pin --tsa http://tsa.example/ --tsa-ca tsa.pem letter.txt -o letter.p7s
                                                             with a proof of the time
  vexsign stamp letter.p7s --tsa http://tsa.example/ -o letter.p7s
                                                             the same, for a signature that exists
  vexsign verify letter.p7s letter.txt --ca root.pem         who signed, and whether the root's owner vouches for it
  vexsign verify letter.sig letter.txt --cert signer.pem --no-chain --json
                                                             whether this key signed, for a program

Exit status: 0 done, or the signature is good; 1 the signature is not good, the toolkit failed, no authority stamped, a file
could not be read or written, or an output was refused; 2 the command line is wrong.)";

struct FilterName {
    const char* pszName;
    ULONG ulType;
};
constexpr FilterName kFilterNames[] = {
    {"issuer", VCTK_FILTER_ISSUER},
    {"subject", VCTK_FILTER_SUBJECT},
    {"serial", VCTK_FILTER_SERIAL},
    {"fingerprint", VCTK_FILTER_FINGERPRINT},
    {"key-usage", VCTK_FILTER_KEY_USAGE},
    {"key-algorithm", VCTK_FILTER_KEY_ALGORITHM},
    {"key-usage-all", VCTK_FILTER_KEY_USAGE_ALL},
    {"extended-key-usage", VCTK_FILTER_EXTENDED_KEY_USAGE},
    {"valid-at", VCTK_FILTER_VALID_AT},
    {"policy", VCTK_FILTER_POLICY},
    {"key-size", VCTK_FILTER_KEY_SIZE},
    {"subject-name", VCTK_FILTER_SUBJECT_NAME},
    {"issuer-name", VCTK_FILTER_ISSUER_NAME},
};

// "issuer, subject, ...", in lines that fit the help.
std::string FilterNames() {
    constexpr std::size_t kLine = 72;
    std::string strNames;
    std::size_t nLine = 0;
    for (const FilterName& filter : kFilterNames) {
        const std::string_view name = filter.pszName;
        const bool bBreak = strNames.size() - nLine + name.size() > kLine;
        strNames.append(strNames.empty() ? "" : bBreak ? ",\n" : ", ").append(name);
        nLine = bBreak ? strNames.size() - name.size() : nLine;
    }
    return strNames;
}

ULONG FilterTypeOf(const std::string& strName) {
    for (const FilterName& filter : kFilterNames) {
        if (strName == filter.pszName) {
            return filter.ulType;
        }
    }
    ULONG ulType = 0;
    const auto [pchEnd, error] = std::from_chars(strName.data(), strName.data() + strName.size(), ulType);
    if (error != std::errc() || pchEnd != strName.data() + strName.size()) {
        std::string strNames = FilterNames();
        std::replace(strNames.begin(), strNames.end(), '\n', ' ');
        throw CLI::ValidationError("--filter",
                                   "unknown filter \"" + strName + "\"; use a number or one of: " + strNames);
    }
    return ulType;
}

FilterOption FilterOf(const std::string& strText) {
    const std::size_t nEquals = strText.find('=');
    if (nEquals == std::string::npos) {
        throw CLI::ValidationError("--filter",
                                   "\"" + strText + "\" has no \"=\"; use NAME=VALUE, such as key-algorithm=EC");
    }
    return {FilterTypeOf(strText.substr(0, nEquals)), strText.substr(nEquals + 1)};
}

// Arguments that are not checked yet.
struct Texts {
    std::vector<std::string> filters;
    std::string strForm = "base64";
};

void AddStoreOptions(CLI::App& app, Options& options, Texts& texts) {
    app.add_option("STORE", options.strStore, "The store of the certificates and keys")
        ->required()
        ->check(tools::NotEmpty("the text is empty; give a store, such as demo: or ./keys.p12"))
        ->type_name("");
    CLI::Option* const pSource =
        tools::AddFile(app, "--pin-source", options.strPinSource, "File or pipe that holds the store's PIN", "FILE");
    app.add_flag("--ask-pin", options.bAskPin, "Ask for the PIN on the terminal, without echo")->excludes(pSource);
    tools::AddList(app, "--filter", texts.filters, "NAME=VALUE",
                   "Only certificates that pass this filter; may be repeated, then a certificate must pass all.\n"
                   "NAME is a filter's number or one of:\n" +
                       FilterNames());
}

void AddSignOptions(CLI::App& app, Command command, Options& options, Texts& texts) {
    tools::AddFiles(app, "FILE", options.inputs,
                    "The file to sign; \"-\", the default, is standard input. Several files with --output-dir");
    app.add_flag("--single", options.bSingle, "Refuse to sign when more than one certificate passes the filters");
    app.add_flag("--text", options.bText, "Pass FILE to the toolkit as text; by default as Base64, for any bytes");
    app.add_option(
           "--digest", options.strDigest,
           "SHA256, SHA-384, SHA3-256 ...; by default the toolkit chooses. \"/PSS\" behind the name: RSASSA-PSS.\n"
           "\"prehashed:\" before it: FILE is not the data but its digest, as bytes")
        ->check(tools::NotEmpty("the name is empty; give one, such as SHA384, or omit the option"))
        ->type_name("NAME");
    CLI::Option* const pOutput = tools::AddFile(app, "-o,--output", options.strOutput,
                                                "The file for the signature; \"-\" is standard output", "FILE");
    CLI::Option* const pDirectory = tools::AddFile(
        app, "--output-dir", options.strOutputDirectory,
        "Sign each FILE into this directory: NAME" + std::string(SignatureSuffix(command)) + " for the file NAME",
        "DIR");
    pDirectory->excludes(pOutput);
    app.add_option("--out", texts.strForm, "The signature's form: base64 (one line) or der")
        ->check(CLI::IsMember({"base64", "der"}))
        ->capture_default_str()
        ->type_name("FORM");
    tools::AddFile(app, "--cert-out", options.strCertificate, "Write the signer's certificate to this file, as PEM",
                   "FILE");
    app.add_flag("--verify-hint", options.bVerifyHint, "Print the openssl command that verifies the signature")
        ->excludes(pDirectory);
}

void CheckInputs(const Options& options) {
    const bool bStandardInput = std::any_of(options.inputs.begin(), options.inputs.end(), tools::IsStandardInput);
    if (bStandardInput && !options.strPinSource.empty() && tools::IsStandardInput(StreamName(options.strPinSource))) {
        throw CLI::ValidationError("--pin-source", "standard input cannot hold both the PIN and the data; give FILE");
    }
    if (options.strOutputDirectory.empty()) {
        if (options.inputs.size() > 1) {
            throw CLI::ValidationError(
                "FILE", "\"" + options.inputs[1] +
                            "\" is one file too many; give --output-dir to sign several files, or quote a name with "
                            "blanks");
        }
        return;
    }
    if (bStandardInput) {
        throw CLI::ValidationError("--output-dir",
                                   "a signature needs the name of a file, and standard input has none; use --output");
    }
    if (const auto same = SameSignatureFile(options)) {
        throw CLI::ValidationError("--output-dir", "the signatures of \"" + same->first + "\" and \"" + same->second +
                                                       "\" would both be " + SignatureFile(options, same->first) +
                                                       "; sign them into different directories");
    }
}

void Check(const Texts& texts, Options& options) {
    for (const std::string& strFilter : texts.filters) {
        options.filters.push_back(FilterOf(strFilter));
    }
    options.bDer = texts.strForm == "der";
    if (options.bAskPin && HasPin(options.strStore)) {
        throw CLI::ValidationError("--ask-pin", "STORE already holds a PIN; remove its pin-value or this option");
    }
    if (options.command != Command::kList) {
        CheckInputs(options);
    }
    if (!options.bVerifyHint) {
        return;
    }
    // The command runs later, with other standard streams.
    if (tools::IsStandardStream(options.Input()) || tools::IsStandardStream(options.strOutput)) {
        throw CLI::ValidationError("--verify-hint", "the command needs file names; give FILE and --output");
    }
    if (tools::IsStandardStream(options.strCertificate)) {
        throw CLI::ValidationError("--verify-hint",
                                   "the command needs the certificate in a file; name one in --cert-out");
    }
    if (DigestName(options.strDigest).IsPrehashed()) {
        throw CLI::ValidationError("--verify-hint",
                                   "the command needs the data, not its digest; omit \"prehashed:\" and sign the data");
    }
    for (const std::string& strName : {options.Input(), options.strOutput, options.strCertificate}) {
        if (strName.ends_with('\n')) {
            throw CLI::ValidationError("--verify-hint",
                                       "the name of FILE, --output or --cert-out ends in a line end; use another name");
        }
    }
    if ((options.command == Command::kP1 || !options.bCertificate) && options.strCertificate.empty()) {
        throw CLI::ValidationError("--verify-hint", "this signature does not contain the certificate; give --cert-out");
    }
}

}  // namespace

std::optional<Options> ParseOptions(int argc, char** argv, int& nExit) {
    Options options;
    Texts texts;
    CLI::App app(kDescription, "vexsign");
    tools::AddCommonOptions(app, VEX_VERSION, kExamples);
    app.require_subcommand(1);

    CLI::App* const pList =
        app.add_subcommand("list",
                           "Print the toolkit's description of each certificate that can sign, one a line, in fields\n"
                           "separated by tabulators");
    AddStoreOptions(*pList, options, texts);
    pList->add_flag("--all", options.bListAll,
                    "List every certificate of the store; a last field says \"signs\" or why it cannot sign.\n"
                    "Only the substitute toolkit supports this");

    CLI::App* const pP1 =
        app.add_subcommand("p1", "Make a bare signature: RSASSA-PKCS1-v1_5, RSASSA-PSS, ECDSA or EdDSA");
    AddStoreOptions(*pP1, options, texts);
    AddSignOptions(*pP1, Command::kP1, options, texts);

    CLI::App* const pP7 = app.add_subcommand("p7", "Make a CMS SignedData");
    AddStoreOptions(*pP7, options, texts);
    AddSignOptions(*pP7, Command::kP7, options, texts);
    bool bAttached = false;
    bool bNoCertificate = false;
    pP7->add_flag("--attached", bAttached, "Put the content into the signature; by default the signature is detached");
    pP7->add_flag("--no-cert", bNoCertificate, "Leave the signer's certificate out of the signature");
    pP7->add_flag("--chain", options.bChain,
                  "Also put the certificates of the signer's issuers into the signature, except the root.\n"
                  "Only the substitute toolkit supports this")
        ->excludes("--no-cert");
    tools::AddFile(*pP7, "--chain-source", options.strChainSource,
                   "With --chain: a PEM file with certificates of issuers that the store does not have", "FILE")
        ->needs("--chain");
    AddTimeStampOptions(*pP7, options.timeStamps, false);
    CLI::App* const pStamp = stamp::AddCommand(app, options.stamping);
    CLI::App* const pVerify = verify::AddCommand(app, options.verification);
    for (CLI::App* const pCommand : {pList, pP1, pP7, pStamp, pVerify}) {
        pCommand->footer(kExamples);
    }

    const auto check = [&] {
        if (pVerify->parsed()) {
            options.command = Command::kVerify;
            verify::CheckOptions(options.verification);
            return;
        }
        if (pStamp->parsed()) {
            options.command = Command::kStamp;
            stamp::CheckOptions(options.stamping);
            return;
        }
        options.command = pP1->parsed() ? Command::kP1 : pP7->parsed() ? Command::kP7 : Command::kList;
        options.bDetached = !bAttached;
        options.bCertificate = !bNoCertificate;
        Check(texts, options);
    };
    if (!tools::Parse(app, tools::Arguments(argc, argv), check, nExit)) {
        return std::nullopt;
    }
    return options;
}

}  // namespace vexsign
