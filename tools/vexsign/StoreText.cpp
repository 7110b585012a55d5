#include "StoreText.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <string_view>

#include "posix/Hexadecimal.h"

namespace vexsign {
namespace {

constexpr std::string_view kUnreserved = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";

// Appends the bytes percent-encoded, except unreserved characters and those of alsoKept. The caller reserves the room.
void AppendEncoded(std::string& strText, std::string_view bytes, std::string_view alsoKept) {
    for (const char ch : bytes) {
        if (kUnreserved.find(ch) != std::string_view::npos || alsoKept.find(ch) != std::string_view::npos) {
            strText += ch;
            continue;
        }
        strText += '%';
        vexposix::AppendHexByte(strText, static_cast<unsigned char>(ch));
    }
}

std::string FileUri(const std::string& strPath) {
    // ".." stays: behind a symbolic link it means another directory than the one before it in the text.
    std::filesystem::path path;
    for (const std::filesystem::path& part : std::filesystem::absolute(strPath)) {
        path /= part == "." ? "" : part;
    }
    std::string strUri = "file:";
    AppendEncoded(strUri, path.string(), "/");
    return strUri;
}

std::string Decoded(std::string_view text) {
    std::string strText;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const int nByte = text[i] == '%' ? vexposix::HexByteAt(text, i + 1) : -1;
        strText += nByte >= 0 ? static_cast<char>(nByte) : text[i];
        i += nByte >= 0 ? 2 : 0;
    }
    return strText;
}

// Removes the scheme, in upper or lower case, from the front of the text. False: the text has another one.
bool TakeScheme(std::string_view& text, std::string_view scheme) {
    const bool bTaken =
        text.size() >= scheme.size() &&
        std::equal(scheme.begin(), scheme.end(), text.begin(), [](char ch, char chText) {
            return ch == (chText >= 'A' && chText <= 'Z' ? static_cast<char>(chText - 'A' + 'a') : chText);
        });
    text.remove_prefix(bTaken ? scheme.size() : 0);
    return bTaken;
}

// "/path", "///path" and "//localhost/path" are the same.
std::string PathOf(std::string_view uri) {
    if (uri.starts_with("//")) {
        uri.remove_prefix(std::min(uri.find('/', 2), uri.size()));
    }
    return Decoded(uri);
}

// Empty if neither the environment nor the user's account names a directory.
std::string DemoStore() {
    const char* const pszData = std::getenv("XDG_DATA_HOME");
    std::string strData = pszData != nullptr && *pszData == '/' ? pszData : "";
    if (strData.empty()) {
        const char* pszHome = std::getenv("HOME");
        if (pszHome == nullptr || *pszHome != '/') {
            const passwd* const pEntry = getpwuid(geteuid());
            pszHome = pEntry != nullptr ? pEntry->pw_dir : nullptr;
        }
        strData = pszHome != nullptr ? std::string(pszHome) + "/.local/share" : "";
    }
    return strData.empty() ? "" : strData + "/vex-client-toolkit/demo.pem";
}

// The attributes after the "?", as they are written.
std::vector<std::string_view> AttributesOf(std::string_view store) {
    std::vector<std::string_view> attributes;
    for (store.remove_prefix(std::min(store.find('?'), store.size())); !store.empty();) {
        store.remove_prefix(1);
        const std::size_t nEnd = std::min(store.find('&'), store.size());
        attributes.push_back(store.substr(0, nEnd));
        store.remove_prefix(nEnd);
    }
    return attributes;
}

// Appends the files that these attributes name, in the order of the text.
void AppendFilesOf(std::string_view store, std::initializer_list<std::string_view> names,
                   std::vector<std::string>& files) {
    for (std::string_view attribute : AttributesOf(store)) {
        if (std::any_of(names.begin(), names.end(),
                        [&](std::string_view name) { return TakeScheme(attribute, name); })) {
            TakeScheme(attribute, "file:");
            files.push_back(PathOf(attribute));
        }
    }
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

std::vector<std::string> FilesOf(const std::string& strStore) {
    std::vector<std::string> files;
    std::string_view path = strStore;
    path = path.substr(0, path.find('?'));
    if (TakeScheme(path, "demo:")) {
        files.push_back(DemoStore());
    } else if (TakeScheme(path, "file:")) {
        files.push_back(PathOf(path));
    }
    AppendFilesOf(strStore, {"pin-source=", "chain-source=", "tsa-ca=", "module-path="}, files);
    return files;
}

std::vector<std::string> PinFilesOf(const std::string& strStore) {
    std::vector<std::string> files;
    AppendFilesOf(strStore, {"pin-source="}, files);
    return files;
}

bool LacksScheme(const std::string& strArgument) {
    return StoreOf(strArgument) == strArgument && strArgument.find(':') == std::string::npos;
}

std::string WithPinSource(const std::string& strStore, const std::string& strPath) {
    return strStore + AttributeSeparator(strStore) + "pin-source=" + FileUri(strPath);
}

std::string WithListAll(const std::string& strStore) {
    return strStore + AttributeSeparator(strStore) + "list=all";
}

std::string WithChain(const std::string& strStore, const std::string& strSource) {
    const std::vector<std::string_view> attributes = AttributesOf(strStore);
    const bool bThere = std::any_of(attributes.begin(), attributes.end(),
                                    [](std::string_view attribute) { return attribute.starts_with("chain="); });
    const std::string strChain = bThere ? strStore : strStore + AttributeSeparator(strStore) + "chain=store";
    return strSource.empty() ? strChain : strChain + "&chain-source=" + FileUri(strSource);
}

std::string WithTimeStamps(const std::string& strStore, const TimeStamps& timeStamps) {
    std::string strText = strStore;
    if (timeStamps.authorities.empty()) {
        return strText;
    }
    const auto append = [&](std::string_view name, std::string_view value) {
        strText.append(AttributeSeparator(strText)).append(name);
        AppendEncoded(strText, value, "/");
    };
    for (const std::string& strAuthority : timeStamps.authorities) {
        append("tsa=", strAuthority);
    }
    append("tsa-timeout=", std::to_string(timeStamps.nTimeout));
    if (!timeStamps.strDigest.empty()) {
        append("tsa-digest=", timeStamps.strDigest);
    }
    if (!timeStamps.strPolicy.empty()) {
        append("tsa-policy=", timeStamps.strPolicy);
    }
    return timeStamps.strTrusted.empty() ? strText : strText + "&tsa-ca=" + FileUri(timeStamps.strTrusted);
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
