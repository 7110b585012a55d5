#include "signing/TimeStamp.h"

#include <openssl/asn1.h>

#include <memory>
#include <optional>

#include "signing/Digest.h"
#include "signing/Failure.h"
#include "signing/OpenSsl.h"
#include "timestamp/Cms.h"
#include "timestamp/Der.h"
#include "timestamp/HttpMessage.h"
#include "timestamp/Reply.h"
#include "timestamp/Request.h"
#include "timestamp/Token.h"

namespace vextk {
namespace {

using TrustedPtr = std::shared_ptr<X509_STORE>;

constexpr int kLeastStampDigest = 32;  // bytes

// The name that OpenSSL has for it.
std::string StampDigest(const std::string& strName) {
    try {
        const SigningDigest digest = FindDigest(strName);
        if (digest.bPss || digest.bPrehashed) {
            throw Failure(VCTK_E_DIGEST_UNKNOWN, "use the name of a digest alone, such as SHA-256");
        }
        if (EVP_MD_get_size(digest.algorithm.get()) < kLeastStampDigest) {
            throw Failure(VCTK_E_DIGEST_UNKNOWN, "a time stamp takes a digest of 256 bits or more, such as SHA-256");
        }
        return EVP_MD_get0_name(digest.algorithm.get());
    } catch (const Failure& failure) {
        throw failure.About("tsa-digest");
    }
}

// An address that nobody can ask is refused when the store is opened.
void RequireUrl(const std::string& strUrl) {
    try {
        vextimestamp::ReadUrl(strUrl);
    } catch (const vextimestamp::Fault& fault) {
        RequireMemory();
        throw Failure(VCTK_E_URI_MALFORMED, fault.what());
    }
}

// At least one of the certificates can be read.
TrustedPtr MakeTrusted(const Identities& certificates) {
    TrustedPtr trusted(RequireOpenSsl(X509_STORE_new()), X509_STORE_free);
    for (const IdentityPtr& certificate : certificates) {
        if (certificate->Certificate() != nullptr) {
            RequireOpenSsl(X509_STORE_add_cert(trusted.get(), certificate->Certificate()) == 1);
        }
    }
    return trusted;
}

// Runs a function of the time stamps, whose faults become the toolkit's.
template <typename Function>
Bytes Stamped(Function function) {
    try {
        return function();
    } catch (const vextimestamp::Fault& fault) {
        RequireMemory();
        throw Failure(VCTK_E_TIMESTAMP, fault.what());
    }
}

// Takes the first DER element off the data.
std::span<const unsigned char> TakeElement(std::span<const unsigned char>& data) {
    const std::optional<vextimestamp::Element> element = vextimestamp::TakeElement(data, V_ASN1_SEQUENCE);
    if (!element) {
        throw Failure(VCTK_E_INVALID_ARGUMENT,
                      "the input must be a P7 signature in DER, or one with a request and the reply to it behind it");
    }
    return element->whole;
}

// The reply comes from outside, so nothing is known about it, not even that it is one element.
Bytes AddFetched(std::span<const unsigned char> cms, std::span<const unsigned char> request,
                 std::span<const unsigned char> reply, const vextimestamp::Settings& settings) {
    vextimestamp::Request asked = vextimestamp::ReadRequest(request);
    if (!settings.wanted.strPolicy.empty()) {
        asked.strPolicy = settings.wanted.strPolicy;
    }
    const Bytes token = vextimestamp::TokenOf(reply);
    vextimestamp::CheckToken(token, vextimestamp::SignatureValueOf(cms), settings.trusted.get(), &asked);
    return vextimestamp::WithToken(cms, token);
}

}  // namespace

vextimestamp::Settings MakeStampSettings(const StampUri& uri, const Identities& trusted) {
    vextimestamp::Settings settings;
    for (const std::string& strUrl : uri.authorities) {
        RequireUrl(strUrl);
    }
    settings.authorities = uri.authorities;
    if (!uri.strDigest.empty()) {
        settings.wanted.strDigest = StampDigest(uri.strDigest);
    }
    settings.wanted.strPolicy = uri.strPolicy;
    if (uri.uMilliseconds != 0) {
        settings.timeout = std::chrono::milliseconds(uri.uMilliseconds);
    }
    if (!trusted.empty()) {
        settings.trusted = MakeTrusted(trusted);
    }
    return settings;
}

Bytes AddStamp(std::span<const unsigned char> cms, const vextimestamp::Settings& settings) {
    return Stamped([&] { return vextimestamp::Stamp(cms, settings); });
}

Bytes StampOrRequest(std::span<const unsigned char> data, const vextimestamp::Settings& settings) {
    const std::span<const unsigned char> cms = TakeElement(data);
    if (!data.empty()) {
        const std::span<const unsigned char> request = TakeElement(data);
        return Stamped([&] { return AddFetched(cms, request, data, settings); });
    }
    if (!settings.authorities.empty()) {
        return AddStamp(cms, settings);
    }
    return Stamped([&] { return vextimestamp::MakeRequest(vextimestamp::SignatureValueOf(cms), settings.wanted).der; });
}

}  // namespace vextk
