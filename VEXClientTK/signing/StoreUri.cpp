#include "signing/StoreUri.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <utility>

#include "posix/Hexadecimal.h"
#include "signing/AsciiCase.h"
#include "signing/Failure.h"
#include "signing/OpenSsl.h"
#include "timestamp/Stamp.h"

namespace vextk {
namespace {

constexpr const char* kAfterDemo =
    "only \"?\" and the attributes list, chain, chain-source, errors and those of a time stamp may follow \"demo:\"";
constexpr const char* kAfterStamp =
    "only \"?\" and the attributes tsa, tsa-digest, tsa-timeout, tsa-ca, tsa-policy and errors may follow \"stamp:\"";

[[noreturn]] void Malformed(const char* pszDetail) {
    throw Failure(VCTK_E_URI_MALFORMED, pszDetail);
}

SecretText PercentDecode(std::string_view text, bool bBinary = false) {
    SecretText decoded(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        char ch = text[i];
        if (ch == '%') {
            const int nByte = vexposix::HexByteAt(text, i + 1);
            if (nByte < 0) {
                Malformed("\"%\" is not followed by two hexadecimal digits");
            }
            ch = static_cast<char>(nByte);
            i += 2;
        }
        if (ch == '\0' && !bBinary) {
            Malformed("it contains a zero byte");
        }
        decoded.Append(ch);
    }
    return decoded;
}

std::string DecodePath(std::string_view text) {
    const SecretText decoded = PercentDecode(text);
    return std::string(decoded.View());
}

// The path of "file:/path", "file:///path" or "file://localhost/path". text begins after the scheme.
std::string FilePath(std::string_view text) {
    if (text.starts_with("//")) {
        text.remove_prefix(2);
        const std::string_view host = text.substr(0, text.find('/'));
        if (!host.empty() && !EqualIgnoringCase(host, "localhost")) {
            Malformed("a store file must be on this host: file:/path");
        }
        text.remove_prefix(host.size());
    }
    if (!text.starts_with('/') || text.size() < 2) {
        Malformed("the path must be absolute: file:/path");
    }
    return DecodePath(text);
}

// "file:/path" or "/path".
std::string SourcePath(std::string_view value) {
    constexpr std::string_view kScheme = "file:";
    if (value.size() >= kScheme.size() && EqualIgnoringCase(value.substr(0, kScheme.size()), kScheme)) {
        return FilePath(value.substr(kScheme.size()));
    }
    return FilePath(value);
}

void ParseModule(bool bPath, std::string_view value, TokenUri& token) {
    std::string& strPart = bPath ? token.strModulePath : token.strModuleName;
    if (!strPart.empty()) {
        Malformed("the module is given twice");
    }
    strPart = DecodePath(value);
    if (strPart.empty() || (bPath && strPart.front() != '/')) {
        Malformed("module-path must be absolute, and module-name must not be empty");
    }
}

// RFC 7512 section 2.3. A URI with any other attribute, even a vendor's, matches nothing (section 2.4): without that
// attribute it could mean another token or key.
constexpr std::string_view kTokenAttributes[] = {"token",
                                                 "manufacturer",
                                                 "serial",
                                                 "model",
                                                 "library-manufacturer",
                                                 "library-description",
                                                 "library-version",
                                                 "slot-manufacturer",
                                                 "slot-description",
                                                 "slot-id",
                                                 "object",
                                                 "type",
                                                 "id"};

bool IsTokenAttribute(std::string_view name) {
    return std::find(std::begin(kTokenAttributes), std::end(kTokenAttributes), name) != std::end(kTokenAttributes);
}

void ParseTokenAttribute(std::string_view attribute, TokenUri& token) {
    const size_t nEquals = attribute.find('=');
    const std::string_view name = attribute.substr(0, nEquals);
    if (nEquals == std::string_view::npos) {
        Malformed("an attribute has no \"=\"");
    }
    if (!IsTokenAttribute(name)) {
        Malformed("an attribute of the token or object is unknown");
    }
    const SecretText decoded = PercentDecode(attribute.substr(nEquals + 1), name == "id");
    std::string strValue(decoded.View());
    if (name == "library-version" && strValue.find('.') == std::string::npos) {
        strValue += ".0";  // RFC 7512 section 2.5
    }
    if (name == "type" && strValue != "cert" && strValue != "private") {
        Malformed("type must be cert or private");
    }
    if (name == "slot-id" && (strValue.empty() || (strValue.size() > 1 && strValue.front() == '0') ||
                              strValue.find_first_not_of("0123456789") != std::string::npos)) {
        Malformed("slot-id must be a decimal number without leading zeros");
    }
    if (!token.attributes.emplace(name, strValue).second) {
        Malformed("an attribute is given twice");
    }
}

// "token=Card;id=%01", or an empty path if there is only one token.
void ParseTokenPath(std::string_view path, TokenUri& token) {
    while (!path.empty()) {
        const size_t nEnd = path.find(';');
        ParseTokenAttribute(path.substr(0, nEnd), token);
        if (nEnd == std::string_view::npos) {
            return;
        }
        path.remove_prefix(nEnd + 1);
        if (path.empty()) {
            Malformed("an attribute is missing after the last \";\"");
        }
    }
}

// A well-formed vendor attribute after the "?" is ignored, even if it is repeated (RFC 7512 section 2.4).
void CheckVendorAttribute(std::string_view name, std::string_view value) {
    if (IsTokenAttribute(name)) {
        Malformed("an attribute of the token or object must stand before the \"?\"");
    }
    if (name.empty() || !std::all_of(name.begin(), name.end(),
                                     [](char ch) { return IsAsciiLetterOrDigit(ch) || ch == '-' || ch == '_'; })) {
        Malformed("an attribute's name must consist of letters, digits, \"-\" and \"_\"");
    }
    PercentDecode(value, true);
}

void ParseList(std::string_view value, StoreUri& uri) {
    if ((value != "all" && value != "certificates") || uri.bListAll || uri.bListCertificates) {
        Malformed("list must be all or certificates, and may be given only once");
    }
    (value == "all" ? uri.bListAll : uri.bListCertificates) = true;
}

void ParseChain(std::string_view value, StoreUri& uri) {
    if ((value != "store" && value != "root") || uri.chain != ChainPart::kNone) {
        Malformed("chain must be store or root, and may be given only once");
    }
    uri.chain = value == "store" ? ChainPart::kWithoutRoot : ChainPart::kWithRoot;
}

void ParseChainSource(std::string_view value, StoreUri& uri) {
    if (!uri.strChainSource.empty()) {
        Malformed("chain-source may be given only once");
    }
    uri.strChainSource = SourcePath(value);
}

void ParseErrors(std::string_view value, StoreUri& uri) {
    if (value != "handle" || uri.bErrorsInHandle) {
        Malformed("errors must be handle, and may be given only once");
    }
    uri.bErrorsInHandle = true;
}

// The URL goes into an HTTP request and into error texts. So it has neither blanks nor line breaks, and no password.
void ParseAuthority(std::string_view value, StoreUri& uri) {
    constexpr std::string_view kScheme = "http://";
    std::string strUrl = DecodePath(value);
    if (!EqualIgnoringCase(std::string_view(strUrl).substr(0, kScheme.size()), kScheme)) {
        Malformed("tsa must be a URL that begins with \"http://\"");
    }
    const std::string_view rest = std::string_view(strUrl).substr(kScheme.size());
    const std::string_view host = rest.substr(0, rest.find_first_of("/?"));
    if (host.empty() || host.find('@') != std::string_view::npos) {
        Malformed("the URL of tsa must have a host, and no user name or password before it");
    }
    if (!std::all_of(strUrl.begin(), strUrl.end(), [](char ch) { return ch > ' ' && ch <= '~' && ch != '#'; })) {
        Malformed("the URL of tsa has a character that must be percent-encoded twice: in the URL, and in this text");
    }
    strUrl.replace(0, kScheme.size(), kScheme);
    uri.stamp.authorities.push_back(std::move(strUrl));
}

void ParseStampDigest(std::string_view value, StoreUri& uri) {
    if (!uri.stamp.strDigest.empty() || value.empty()) {
        Malformed("tsa-digest must be the name of a digest, and may be given only once");
    }
    uri.stamp.strDigest = DecodePath(value);
}

void ParseStampTimeout(std::string_view value, StoreUri& uri) {
    std::uint32_t uMilliseconds = 0;
    const auto [pchEnd, error] = std::from_chars(value.data(), value.data() + value.size(), uMilliseconds);
    if (uri.stamp.uMilliseconds != 0 || error != std::errc() || pchEnd != value.data() + value.size() ||
        uMilliseconds == 0 || uMilliseconds > vextimestamp::kMostTimeout.count()) {
        Malformed("tsa-timeout must be from 1 to 600000 milliseconds, and may be given only once");
    }
    uri.stamp.uMilliseconds = uMilliseconds;
}

void ParseStampTrust(std::string_view value, StoreUri& uri) {
    if (!uri.stamp.strTrusted.empty()) {
        Malformed("tsa-ca may be given only once");
    }
    uri.stamp.strTrusted = SourcePath(value);
}

void ParseStampPolicy(std::string_view value, StoreUri& uri) {
    std::string strPolicy = DecodePath(value);
    if (!uri.stamp.strPolicy.empty() || FindDottedOid(strPolicy) == nullptr) {
        Malformed("tsa-policy must be an object identifier, such as 1.2.3.4, and may be given only once");
    }
    uri.stamp.strPolicy = std::move(strPolicy);
}

// The attributes that every kind of store has. The stamp: alone has no list and no chain.
constexpr struct {
    std::string_view name;
    void (*pfnParse)(std::string_view value, StoreUri& uri);
    bool bForStamp;
} kCommonAttributes[] = {{"list", ParseList, false},
                         {"chain", ParseChain, false},
                         {"chain-source", ParseChainSource, false},
                         {"errors", ParseErrors, true},
                         {"tsa", ParseAuthority, true},
                         {"tsa-digest", ParseStampDigest, true},
                         {"tsa-timeout", ParseStampTimeout, true},
                         {"tsa-ca", ParseStampTrust, true},
                         {"tsa-policy", ParseStampPolicy, true}};

// Attributes that say how to stamp, where nothing is stamped: a "tsa" has been forgotten.
void CheckStamp(const StoreUri& uri) {
    const StampUri& stamp = uri.stamp;
    if (!stamp.authorities.empty()) {
        return;
    }
    if (stamp.uMilliseconds != 0) {
        Malformed("tsa-timeout needs tsa");
    }
    if (uri.kind != StoreUri::Kind::kStamp &&
        !(stamp.strDigest.empty() && stamp.strPolicy.empty() && stamp.strTrusted.empty())) {
        Malformed("tsa-digest, tsa-ca and tsa-policy need tsa");
    }
}

void ParseAttribute(std::string_view attribute, StoreUri& uri) {
    const size_t nEquals = attribute.find('=');
    if (nEquals == std::string_view::npos) {
        Malformed("an attribute has no \"=\"");
    }
    const std::string_view name = attribute.substr(0, nEquals);
    const std::string_view value = attribute.substr(nEquals + 1);
    const bool bToken = uri.kind == StoreUri::Kind::kToken;
    if (bToken && (name == "module-path" || name == "module-name")) {
        ParseModule(name == "module-path", value, uri.token);
        return;
    }
    for (const auto& common : kCommonAttributes) {
        if (name == common.name && (common.bForStamp || uri.kind != StoreUri::Kind::kStamp)) {
            common.pfnParse(value, uri);
            return;
        }
    }
    if (uri.kind == StoreUri::Kind::kDemo || uri.kind == StoreUri::Kind::kStamp) {
        Malformed(uri.kind == StoreUri::Kind::kDemo ? kAfterDemo : kAfterStamp);
    }
    if (name != "pin-value" && name != "pin-source") {
        if (!bToken) {
            Malformed(
                "unknown attribute; use pin-value, pin-source, list, chain, chain-source, errors, tsa, tsa-digest, "
                "tsa-timeout, tsa-ca or tsa-policy");
        }
        CheckVendorAttribute(name, value);
        return;
    }
    if (uri.pin || uri.strPinSource) {
        Malformed("the PIN is given twice");
    }
    if (name == "pin-value") {
        uri.pin = PercentDecode(value);
    } else {
        uri.strPinSource = SourcePath(value);
    }
}

void ParseAttributes(std::string_view query, StoreUri& uri) {
    if (query.empty() && uri.kind == StoreUri::Kind::kToken) {
        return;
    }
    for (;;) {
        const size_t nEnd = query.find('&');
        ParseAttribute(query.substr(0, nEnd), uri);
        if (nEnd == std::string_view::npos) {
            return;
        }
        query.remove_prefix(nEnd + 1);
    }
}

// Another object's store. Nothing can be said about it that is not settled already.
StoreUri ParseHandle(std::string_view text) {
    if (text.find('?') != std::string_view::npos) {
        Malformed("no attribute may follow \"handle:\" and its number");
    }
    StoreUri uri;
    uri.kind = StoreUri::Kind::kHandle;
    std::uintptr_t nHandle = 0;
    const auto [pchEnd, error] = std::from_chars(text.data(), text.data() + text.size(), nHandle);
    if (error == std::errc() && pchEnd == text.data() + text.size()) {
        uri.nHandle = nHandle;
    }
    return uri;
}

}  // namespace

StoreUri ParseStoreUri(std::string_view text) {
    const size_t nColon = text.find(':');
    const std::string_view scheme = text.substr(0, nColon);
    if (nColon == std::string_view::npos || scheme.empty() || !IsAsciiLetter(scheme.front()) ||
        !std::all_of(scheme.begin(), scheme.end(),
                     [](char ch) { return IsAsciiLetterOrDigit(ch) || ch == '+' || ch == '-' || ch == '.'; })) {
        Malformed("it must begin with \"demo:\", \"file:\", \"pkcs11:\" or \"stamp:\"");
    }
    std::string_view rest = text.substr(nColon + 1);
    if (EqualIgnoringCase(scheme, "handle")) {
        return ParseHandle(rest);
    }

    StoreUri uri;
    if (EqualIgnoringCase(scheme, "file")) {
        uri.kind = StoreUri::Kind::kFile;
    } else if (EqualIgnoringCase(scheme, "pkcs11")) {
        uri.kind = StoreUri::Kind::kToken;
    } else if (EqualIgnoringCase(scheme, "stamp")) {
        uri.kind = StoreUri::Kind::kStamp;
    } else if (!EqualIgnoringCase(scheme, "demo")) {
        throw Failure(VCTK_E_URI_SCHEME, "unknown scheme \"" + std::string(scheme) +
                                             ":\"; use \"demo:\", \"file:\", \"pkcs11:\" or \"stamp:\"");
    }
    if (rest.find('#') != std::string_view::npos) {
        Malformed("write \"#\" as %23");
    }
    const size_t nQuery = rest.find('?');
    if (uri.kind == StoreUri::Kind::kFile) {
        uri.strPath = FilePath(rest.substr(0, nQuery));
    } else if (uri.kind == StoreUri::Kind::kToken) {
        ParseTokenPath(rest.substr(0, nQuery), uri.token);
    } else if (!rest.substr(0, nQuery).empty()) {
        Malformed(uri.kind == StoreUri::Kind::kDemo ? kAfterDemo : kAfterStamp);
    }
    if (nQuery != std::string_view::npos) {
        ParseAttributes(rest.substr(nQuery + 1), uri);
    }
    if (!uri.strChainSource.empty() && uri.chain == ChainPart::kNone) {
        Malformed("chain-source needs chain=store or chain=root");
    }
    CheckStamp(uri);
    return uri;
}

}  // namespace vextk
