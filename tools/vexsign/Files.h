// Writes whole files; "-" is standard output.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/OutputFile.h"

namespace vexsign {

struct Output {
    std::string strName;
    std::vector<std::string_view> pieces;
    bool bAsBase64 = false;  // one line of Base64 instead of the bytes
};

// Writes one output that is still to be put into place: OutputFile::Commit or OutputGroup. Throws also
// vexposix::OutputClosed.
std::unique_ptr<tools::OutputFile> WriteOutput(const Output& output);

// DER as the text of a PEM file, with this label: "CMS".
std::string AsPem(const std::string& strLabel, const std::string& strDer);

// Bytes as one line of Base64.
std::string AsBase64Line(const std::string& strBytes);

// The certificate, in DER, as the text of a PEM file.
std::string CertificateAsPem(const std::string& strDer);

// Writes all outputs. On failure it writes none, except to devices and pipes (common/OutputFile.h). Throws
// std::system_error with the name and the reason, and vexposix::OutputClosed.
void WriteOutputs(const std::vector<Output>& outputs);

}  // namespace vexsign
