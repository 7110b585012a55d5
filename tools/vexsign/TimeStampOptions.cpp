#include "TimeStampOptions.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "common/CommandLine.h"

namespace vexsign {
namespace {

// What is wrong with an authority's URL; empty: nothing. The scheme, in any case, becomes lower-case, as in a store
// URI.
std::string UrlFault(std::string& strUrl) {
    constexpr std::string_view kScheme = "http://";
    if (strUrl.size() <= kScheme.size() || OPENSSL_strncasecmp(strUrl.data(), kScheme.data(), kScheme.size()) != 0) {
        return "\"" + strUrl +
               "\" is no http:// URL. Tokens are signed, so authorities serve them without TLS; for https:// see "
               "SigningClient.Builder.timestamp in Java";
    }
    // The toolkit's text for them would be about a store URI, in which they are percent-encoded twice.
    if (!std::all_of(strUrl.begin(), strUrl.end(), [](char ch) { return ch > ' ' && ch <= '~' && ch != '#'; })) {
        return "\"" + strUrl +
               "\" has blanks or other characters that the URL of an authority cannot have; percent-encode them, a "
               "blank as %20";
    }
    strUrl.replace(0, kScheme.size(), kScheme);
    return {};
}

}  // namespace

void AddTimeStampOptions(CLI::App& app, TimeStamps& timeStamps, bool bRequired) {
    CLI::Option* const pAuthorities = tools::AddList(
        app, "--tsa", timeStamps.authorities, "URL",
        "Have this time-stamping authority (http://...) stamp the signature; may be repeated: the next one is\n"
        "asked when one fails" +
            std::string(bRequired ? "" : ". Only the substitute toolkit supports this"));
    pAuthorities->transform(CLI::Validator(UrlFault, ""))->required(bRequired);
    const auto add = [&](CLI::Option* const pOption) { pOption->needs(pAuthorities); };
    const CLI::Validator notEmpty = tools::NotEmpty("the value is empty; give one, or omit the option");
    add(app.add_option("--tsa-digest", timeStamps.strDigest,
                       "The digest of the signature that it stamps; by default SHA256")
            ->check(notEmpty)
            ->type_name("NAME"));
    add(app.add_option("--tsa-policy", timeStamps.strPolicy, "The policy that it must follow, as an object identifier")
            ->check(notEmpty)
            ->type_name("OID"));
    add(tools::AddNumber(app, "--tsa-timeout", timeStamps.nTimeout, CLI::Range(1, kMostStampTimeout).description(""),
                         "MS", "The milliseconds that all authorities have together, 1 to 600000; by default 10000"));
    add(tools::AddFile(app, "--tsa-ca", timeStamps.strTrusted,
                       "File with the root certificates that must vouch for the authority, PEM", "FILE"));
}

}  // namespace vexsign
