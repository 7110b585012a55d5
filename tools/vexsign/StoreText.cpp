#include "StoreText.h"

#include <filesystem>
#include <string_view>

namespace vexsign {
namespace {

constexpr std::string_view kUnreserved = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";

// What the percent sign does not stand for. The room is the caller's.
void AppendEncoded(std::string& strText, std::string_view bytes, std::string_view alsoKept) {
    constexpr std::string_view kHex = "0123456789ABCDEF";
    for (const char ch : bytes) {
        if (kUnreserved.find(ch) != std::string_view::npos || alsoKept.find(ch) != std::string_view::npos) {
            strText += ch;
            continue;
        }
        const auto uByte = static_cast<unsigned char>(ch);
        strText += '%';
        strText += kHex[uByte / kHex.size()];
        strText += kHex[uByte % kHex.size()];
    }
}

std::string FileUri(const std::string& strPath) {
    std::string strUri = "file:";
    AppendEncoded(strUri, std::filesystem::absolute(strPath).lexically_normal().string(), "/");
    return strUri;
}

const char* AttributeSeparator(const std::string& strStore) {
    return strStore.find('?') == std::string::npos ? "?" : "&";
}

}  // namespace

bool HasPin(const std::string& strStore) {
    return strStore.find("pin-value=") != std::string::npos;
}

std::string StoreOf(const std::string& strArgument) {
    const std::string_view argument = strArgument;
    const bool bPath = argument.starts_with("/") || argument.starts_with("./") || argument.starts_with("../");
    return bPath ? FileUri(strArgument) : strArgument;
}

std::string WithPinSource(const std::string& strStore, const std::string& strPath) {
    return strStore + AttributeSeparator(strStore) + "pin-source=" + FileUri(strPath);
}

void AppendPin(const std::string& strStore, const Secret& pin, Secret& store) {
    constexpr std::string_view kAttribute = "pin-value=";
    constexpr std::size_t kCharsPerByte = 3;
    std::string& strText = store.Text();
    strText.reserve(strStore.size() + 1 + kAttribute.size() + kCharsPerByte * pin.Text().size());
    strText.append(strStore).append(AttributeSeparator(strStore)).append(kAttribute);
    AppendEncoded(strText, pin.Text(), "");
}

}  // namespace vexsign
