#include "Options.h"

#include <charconv>
#include <string_view>

#include "StoreText.h"
#include "common/CommandLine.h"

namespace vexsign {
namespace {

constexpr const char* kDescription =
    "Signs with the client toolkit, libVEXClientTKDll64.so.\n"
    "STORE is the toolkit's initialisation text (demo:, file:/path/keys.p12), or a path that begins with /, ./ or ../.";

constexpr const char* kExamples = R"(Examples:
  vexsign list demo:                                         who could sign
  vexsign list ./keys.p12 --ask-pin --all                    who could not, too, and why
  vexsign p7 ./keys.p12 --pin-source pin letter.txt -o letter.p7s
                                                             detached CMS, with the certificate, Base64
  vexsign p7 demo: letter.txt --attached --out der -o letter.p7m --verify-hint
                                                             DER, and how openssl verifies it
  vexsign p1 demo: --filter key-algorithm=EC --digest SHA384 letter.txt -o letter.sig --cert-out signer.pem
                                                             a bare ECDSA signature, and the certificate
  printf '%s' "I owe you 100 euros." | vexsign p7 ./keys.p12 --ask-pin

Exit status: 0 done, 1 the toolkit failed or a file could not be read or written, 2 the command line is wrong.)";

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

// "issuer, subject, ...", in lines of the help's width.
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
        throw CLI::ValidationError("--filter", "no filter is called \"" + strName +
                                                   "\"; there are a number of the toolkit's, and\n" + FilterNames());
    }
    return ulType;
}

FilterOption FilterOf(const std::string& strText) {
    const std::size_t nEquals = strText.find('=');
    if (nEquals == std::string::npos) {
        throw CLI::ValidationError("--filter", "NAME=VALUE is wanted: " + strText);
    }
    return {FilterTypeOf(strText.substr(0, nEquals)), strText.substr(nEquals + 1)};
}

// What the parser fills in before it is checked.
struct Texts {
    std::vector<std::string> filters;
    std::string strForm = "base64";
};

void AddStoreOptions(CLI::App& app, Options& options, Texts& texts) {
    app.add_option("STORE", options.strStore, "Where the certificates and keys are")->required()->type_name("");
    CLI::Option* const pSource = app.add_option("--pin-source", options.strPinSource, "File that holds the store's PIN")
                                     ->check(tools::NotEmpty())
                                     ->type_name("FILE");
    app.add_flag("--ask-pin", options.bAskPin, "Ask for the PIN on the terminal, without echo")->excludes(pSource);
    tools::AddList(
        app, "--filter", texts.filters, "NAME=VALUE",
        "Only certificates that pass; several times: all of them. A number of the toolkit's, or\n" + FilterNames());
}

void AddSignOptions(CLI::App& app, Options& options, Texts& texts) {
    app.add_option("FILE", options.strInput, "What to sign; \"-\" is standard input")
        ->capture_default_str()
        ->check(tools::NotEmpty())
        ->type_name("");
    app.add_flag("--single", options.bSingle, "Refuse to sign when more than one certificate passes the filters");
    app.add_flag("--text", options.bText, "Hand FILE to the toolkit as text; without it as Base64 of any bytes");
    app.add_option("--digest", options.strDigest, "SHA256, SHA-384, SHA3-256 ...; else the toolkit's own choice")
        ->type_name("NAME");
    app.add_option("-o,--output", options.strOutput, "Where the signature goes; \"-\" is standard output")
        ->capture_default_str()
        ->check(tools::NotEmpty())
        ->type_name("FILE");
    app.add_option("--out", texts.strForm, "The signature's form: base64 (one line) or der")
        ->check(CLI::IsMember({"base64", "der"}))
        ->capture_default_str()
        ->type_name("FORM");
    app.add_option("--cert-out", options.strCertificate, "Write the signer's certificate there, PEM")
        ->check(tools::NotEmpty())
        ->type_name("FILE");
    app.add_flag("--verify-hint", options.bVerifyHint, "Print the openssl command that verifies the signature");
}

void Check(const Texts& texts, Options& options) {
    for (const std::string& strFilter : texts.filters) {
        options.filters.push_back(FilterOf(strFilter));
    }
    options.bDer = texts.strForm == "der";
    if (options.bAskPin && HasPin(options.strStore)) {
        throw CLI::ValidationError("--ask-pin", "STORE holds a PIN already");
    }
    if (!options.bVerifyHint) {
        return;
    }
    if (options.strInput == "-" || options.strOutput == "-") {
        throw CLI::ValidationError("--verify-hint", "a command needs names: give FILE and --output");
    }
    for (const std::string& strName : {options.strInput, options.strOutput, options.strCertificate}) {
        if (strName.ends_with('\n')) {
            throw CLI::ValidationError("--verify-hint", "a command cannot name a file whose name ends in a line end");
        }
    }
    if ((options.command == Command::kP1 || !options.bCertificate) && options.strCertificate.empty()) {
        throw CLI::ValidationError("--verify-hint", "this signature has no certificate in it: give --cert-out");
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
                           "One line for each certificate that could sign, as the toolkit describes it, in fields\n"
                           "separated by tabulators");
    AddStoreOptions(*pList, options, texts);
    pList->add_flag("--all", options.bListAll,
                    "Every certificate of the store, with a last field that says \"signs\" or why it cannot sign;\n"
                    "the substitute toolkit does this");

    CLI::App* const pP1 = app.add_subcommand("p1", "The bare signature: RSASSA-PKCS1-v1_5 or ECDSA");
    AddStoreOptions(*pP1, options, texts);
    AddSignOptions(*pP1, options, texts);

    CLI::App* const pP7 = app.add_subcommand("p7", "CMS SignedData");
    AddStoreOptions(*pP7, options, texts);
    AddSignOptions(*pP7, options, texts);
    bool bAttached = false;
    bool bNoCertificate = false;
    pP7->add_flag("--attached", bAttached, "The content is in the signature; without it the signature is detached");
    pP7->add_flag("--no-cert", bNoCertificate, "The signer's certificate is not in the signature");
    for (CLI::App* const pCommand : {pList, pP1, pP7}) {
        pCommand->footer(kExamples);
    }

    const auto check = [&] {
        options.command = pP1->parsed() ? Command::kP1 : pP7->parsed() ? Command::kP7 : Command::kList;
        options.bDetached = !bAttached;
        options.bCertificate = !bNoCertificate;
        Check(texts, options);
    };
    if (!tools::Parse(app, argc, argv, check, nExit)) {
        return std::nullopt;
    }
    return options;
}

}  // namespace vexsign
