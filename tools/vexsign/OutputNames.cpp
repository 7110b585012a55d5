#include "OutputNames.h"

#include <unordered_map>

namespace vexsign {
namespace {

std::string NameOf(const std::string& strPath) {
    return strPath.substr(strPath.rfind('/') + 1);
}

}  // namespace

const char* SignatureSuffix(Command command) {
    return command == Command::kP1 ? ".p1" : ".p7s";
}

std::string SignatureFile(const Options& options, const std::string& strInput) {
    const char* const pszSlash = options.strOutputDirectory.ends_with('/') ? "" : "/";
    return options.strOutputDirectory + pszSlash + NameOf(strInput) + SignatureSuffix(options.command);
}

std::optional<std::pair<std::string, std::string>> SameSignatureFile(const Options& options) {
    std::unordered_map<std::string, const std::string*> names;
    for (const std::string& strInput : options.inputs) {
        const auto [place, bNew] = names.try_emplace(NameOf(strInput), &strInput);
        if (!bNew) {
            return std::pair(*place->second, strInput);
        }
    }
    return std::nullopt;
}

}  // namespace vexsign
