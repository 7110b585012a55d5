#include "Options.h"

#include <algorithm>

#include "BareSignature.h"
#include "Time.h"
#include "common/CommandLine.h"
#include "common/FileIdentity.h"

namespace vexsign::verify {

CLI::App* AddCommand(CLI::App& app, Options& options) {
    CLI::App* const pVerify =
        app.add_subcommand("verify", "Verify a P1 or P7 signature and print who made it. Uses no toolkit");
    tools::AddFile(*pVerify, "SIGNATURE", options.strSignature,
                   "The signature: Base64, DER, or PEM; \"-\" is standard input")
        ->required();
    tools::AddFile(*pVerify, "FILE", options.strContent,
                   "The file that was signed; \"-\" is standard input. Omit it if the content is in the signature");
    CLI::Option* const pNoChain =
        pVerify->add_flag("--no-chain", options.bNoChain,
                          "Do not check who issued the certificate. Anybody can then have signed under any name");
    const CLI::Validator notEmpty = tools::NotEmpty("the value is empty");
    tools::AddList(*pVerify, "--ca", options.authorities, "FILE",
                   "File with the root certificates that you trust, PEM or DER; may be repeated. Without it, those\n"
                   "that this system trusts (OpenSSL's default, SSL_CERT_FILE and SSL_CERT_DIR)")
        ->check(tools::NotEmptyName())
        ->excludes(pNoChain);
    tools::AddList(*pVerify, "--tsa-ca", options.stampAuthorities, "FILE",
                   "File with the root certificates that you trust for time stamps, PEM or DER; may be repeated.\n"
                   "Without it, those of --ca, or of this system")
        ->check(tools::NotEmptyName());
    tools::AddList(
        *pVerify, "--cert,--signer", options.signers, "FILE",
        "File with the signer's certificate, first, and perhaps its issuers', which are not trusted: for a\n"
        "P1, for a P7 without certificate, or to accept no other signer; may be repeated for several signers")
        ->check(tools::NotEmptyName());
    pVerify
        ->add_option("--digest", options.strDigest,
                     "The digest of a P1, such as SHA256 or SHA-256/PSS; by default all are tried")
        ->check(notEmpty)
        ->type_name("NAME");
    pVerify
        ->add_option(
            "--at", options.strAt,
            "The certificates must be valid at this moment, such as 2026-03-01T12:00:00Z, instead of now: when\n"
            "the signature already existed, as you know from elsewhere. The moment of a trusted time stamp comes "
            "before it")
        ->check(notEmpty)
        ->type_name("TIME");
    pVerify->add_flag("--any-purpose", options.bAnyPurpose,
                      "Accept certificates whose extended key usages or Netscape type do not include e-mail");
    pVerify->add_flag("--json", options.bJson, "Print one JSON object");
    return pVerify;
}

void CheckOptions(const Options& options) {
    std::vector<std::string> inputs = {options.strSignature, options.strContent};
    inputs.insert(inputs.end(), options.authorities.begin(), options.authorities.end());
    inputs.insert(inputs.end(), options.stampAuthorities.begin(), options.stampAuthorities.end());
    inputs.insert(inputs.end(), options.signers.begin(), options.signers.end());
    if (std::count_if(inputs.begin(), inputs.end(), tools::IsStandardInput) > 1) {
        throw CLI::ValidationError("-", "standard input can be read only once; give file names for the others");
    }
    if (!options.strDigest.empty() && !IsDigestName(options.strDigest)) {
        throw CLI::ValidationError(
            "--digest", "unknown digest \"" + options.strDigest + "\"; use a name such as SHA256 or SHA-256/PSS");
    }
    if (!options.strAt.empty() && !ParseMoment(options.strAt)) {
        throw CLI::ValidationError("--at",
                                   "\"" + options.strAt + "\" is no moment; write it like 2026-03-01T12:00:00Z");
    }
}

}  // namespace vexsign::verify
