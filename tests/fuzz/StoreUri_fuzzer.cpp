// The store URI parser. An accepted file store has an absolute path without zero bytes. A token's attributes have
// names, and only the id may contain zero bytes. A handle has a number and nothing else. The URLs of authorities for
// time stamps are http: and fit into an HTTP request. A refusal has a reason.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "signing/Failure.h"
#include "signing/StoreUri.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pbData, std::size_t cbData) {
    try {
        const vextk::StoreUri uri =
            vextk::ParseStoreUri(std::string_view(reinterpret_cast<const char*>(pbData), cbData));
        const auto bUsable = [](const std::string& strPath) {
            return strPath.size() > 1 && strPath.front() == '/' && strPath.find('\0') == std::string::npos;
        };
        const bool fFile = uri.kind == vextk::StoreUri::Kind::kFile;
        if (fFile != bUsable(uri.strPath) || (uri.pin && uri.strPinSource) ||
            (uri.strPinSource && !bUsable(*uri.strPinSource))) {
            std::abort();
        }
        const bool bHandle = uri.kind == vextk::StoreUri::Kind::kHandle;
        if ((uri.nHandle != 0 && !bHandle) ||
            (bHandle && (uri.pin || uri.strPinSource || uri.bListAll || uri.bListCertificates || uri.bErrorsInHandle ||
                         uri.chain != vextk::ChainPart::kNone))) {
            std::abort();
        }
        const bool bToken = uri.kind == vextk::StoreUri::Kind::kToken;
        if (!bToken && !(uri.token.attributes.empty() && uri.token.strModulePath.empty())) {
            std::abort();
        }
        const vextk::StampUri& stamp = uri.stamp;
        const bool bStamps = uri.kind == vextk::StoreUri::Kind::kStamp;
        const bool bStampSettings = !stamp.strDigest.empty() || !stamp.strPolicy.empty() || !stamp.strTrusted.empty();
        if (stamp.uMilliseconds > 600'000 || (!stamp.strTrusted.empty() && !bUsable(stamp.strTrusted)) ||
            (bHandle && (!stamp.authorities.empty() || bStampSettings)) ||
            (stamp.authorities.empty() && (stamp.uMilliseconds != 0 || (bStampSettings && !bStamps))) ||
            (bStamps && (uri.pin || uri.strPinSource || uri.bListAll || uri.bListCertificates ||
                         uri.chain != vextk::ChainPart::kNone))) {
            std::abort();
        }
        for (const std::string& strUrl : stamp.authorities) {
            if (strUrl.size() <= 7 || strUrl.substr(4, 3) != "://" ||
                !std::all_of(strUrl.begin(), strUrl.end(), [](char ch) { return ch > ' ' && ch <= '~'; })) {
                std::abort();
            }
        }
        if (!uri.token.strModulePath.empty() && uri.token.strModulePath.front() != '/') {
            std::abort();
        }
        for (const auto& [strName, strValue] : uri.token.attributes) {
            if (strName.empty() || (strName != "id" && strValue.find('\0') != std::string::npos)) {
                std::abort();
            }
        }
    } catch (const vextk::Failure& failure) {
        if (failure.Detail().empty()) {
            std::abort();
        }
    }
    return 0;
}
