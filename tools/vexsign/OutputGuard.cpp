#include "OutputGuard.h"

#include <stdexcept>
#include <string>
#include <vector>

#include "Hint.h"
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
    std::vector<Named> inputs = {{options.strInput, "the input", tools::FileIdentity::OfInput(options.strInput)}};
    std::vector<std::string> files = FilesOf(StoreOf(options.strStore));
    if (!options.strPinSource.empty()) {
        files.push_back(options.strPinSource);
    }
    if (!options.strChainSource.empty()) {
        files.push_back(options.strChainSource);
    }
    for (const std::string& strFile : files) {
        // Here "-" is the name of a file.
        const std::string strPath = strFile.starts_with('/') ? strFile : "./" + strFile;
        inputs.push_back(
            {strFile, "the store, its PIN, its chain or its module", tools::FileIdentity::OfInput(strPath)});
    }
    return inputs;
}

std::vector<Named> Outputs(const Options& options) {
    std::vector<Named> outputs = {
        {options.strOutput, "the signature's file", tools::FileIdentity::OfOutput(options.strOutput)}};
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

}  // namespace

void RefuseDangerousOutputs(const Options& options) {
    const std::vector<Named> inputs = Inputs(options);
    const std::vector<Named> outputs = Outputs(options);
    for (std::size_t i = 0; i < outputs.size(); ++i) {
        for (const Named& input : inputs) {
            if (outputs[i].identity.IsSameFile(input.identity)) {
                Refuse(outputs[i], input.strRole);
            }
        }
        for (std::size_t j = 0; j < i; ++j) {
            if (outputs[i].identity.IsSameOutput(outputs[j].identity)) {
                Refuse(outputs[i], outputs[j].strRole);
            }
        }
    }
}

}  // namespace vexsign
