#include "OutputGuard.h"

#include <cstddef>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "Hint.h"
#include "OutputNames.h"
#include "PinSource.h"
#include "StoreText.h"
#include "common/FileIdentity.h"

namespace vexsign {
namespace {

struct Named {
    std::string strName;
    std::string strRole;
    tools::FileIdentity identity;
};

std::vector<Named> Inputs(const Options& options) {
    std::vector<Named> inputs;
    for (const std::string& strInput : options.inputs) {
        inputs.push_back({strInput, "the input", tools::FileIdentity::OfInput(strInput)});
    }
    std::vector<std::string> files = FilesOf(StoreOf(options.strStore));
    if (!options.strPinSource.empty()) {
        files.push_back(options.strPinSource);
    }
    if (!options.strChainSource.empty()) {
        files.push_back(options.strChainSource);
    }
    for (const std::string& strFile : files) {
        inputs.push_back({strFile, "the store, its PIN, its chain or its module",
                          tools::FileIdentity::OfInput(StreamName(strFile))});
    }
    if (const std::string& strTrusted = options.timeStamps.strTrusted; !strTrusted.empty()) {
        inputs.push_back({strTrusted, "the one of --tsa-ca", tools::FileIdentity::OfInput(StreamName(strTrusted))});
    }
    return inputs;
}

std::vector<Named> Outputs(const Options& options) {
    constexpr const char* kSignature = "the signature's file";
    std::vector<Named> outputs;
    if (options.strOutputDirectory.empty()) {
        outputs.push_back({options.strOutput, kSignature, tools::FileIdentity::OfOutput(options.strOutput)});
    } else {
        for (const std::string& strInput : options.inputs) {
            const std::string strOutput = SignatureFile(options, strInput);
            outputs.push_back({strOutput, kSignature, tools::FileIdentity::OfOutput(strOutput)});
        }
    }
    if (!options.strCertificate.empty()) {
        outputs.push_back(
            {options.strCertificate, "the certificate's file", tools::FileIdentity::OfOutput(options.strCertificate)});
    }
    if (options.bVerifyHint) {
        for (const std::string& strFile : FilesOfHint(options)) {
            outputs.push_back({strFile, "a file of the printed command", tools::FileIdentity::OfOutput(strFile)});
        }
    }
    return outputs;
}

[[noreturn]] void Refuse(const Named& output, const std::string& strOther) {
    throw std::runtime_error(tools::ShownName(output.strName, "standard output") + ": " + output.strRole +
                             " would be " + strOther + "; choose another output");
}

// Thousands of files are compared in a moment.
using ByHash = std::unordered_multimap<std::size_t, const Named*>;

ByHash SortByHash(const std::vector<Named>& files) {
    ByHash sorted;
    for (const Named& file : files) {
        sorted.emplace(file.identity.Hash(), &file);
    }
    return sorted;
}

}  // namespace

void RefuseDangerousOutputs(const Options& options) {
    const std::vector<Named> inputs = Inputs(options);
    const std::vector<Named> outputs = Outputs(options);
    const ByHash knownInputs = SortByHash(inputs);
    ByHash knownOutputs;
    for (const Named& output : outputs) {
        const std::size_t nHash = output.identity.Hash();
        const auto [inputBegin, inputEnd] = knownInputs.equal_range(nHash);
        for (auto input = inputBegin; input != inputEnd; ++input) {
            if (output.identity.IsSameFile(input->second->identity)) {
                Refuse(output, input->second->strRole);
            }
        }
        const auto [outputBegin, outputEnd] = knownOutputs.equal_range(nHash);
        for (auto other = outputBegin; other != outputEnd; ++other) {
            if (output.identity.IsSameOutput(other->second->identity)) {
                Refuse(output, other->second->strRole);
            }
        }
        knownOutputs.emplace(nHash, &output);
    }
}

}  // namespace vexsign
