#include "Files.h"

#include <algorithm>
#include <cstddef>
#include <memory>

#include "Base64.h"
#include "common/FileIdentity.h"
#include "common/OutputFile.h"
#include "posix/OutputBuffer.h"

namespace vexsign {
namespace {

void WriteBytes(const Output& output, vexposix::OutputBuffer& buffer) {
    // Not more than the buffer holds without growing.
    constexpr std::size_t kStep = std::size_t{64} * 1024;
    for (std::string_view piece : output.pieces) {
        for (; !piece.empty(); piece.remove_prefix(std::min(kStep, piece.size()))) {
            buffer.Append(piece.substr(0, kStep));
            buffer.WriteWhenFull();
        }
    }
}

void WriteBase64(const Output& output, vexposix::OutputBuffer& buffer) {
    constexpr std::size_t kStep = std::size_t{48} * 1024;
    Base64Encoder encoder;
    std::string text;
    const auto move = [&] {
        buffer.Append(text);
        buffer.WriteWhenFull();
        text.clear();
    };
    for (std::string_view piece : output.pieces) {
        for (; !piece.empty(); piece.remove_prefix(std::min(kStep, piece.size()))) {
            encoder.Append(piece.substr(0, kStep), text);
            move();
        }
    }
    encoder.Finish(text);
    text += '\n';
    move();
}

void Write(const Output& output, const tools::OutputFile& file) {
    vexposix::OutputBuffer buffer(file.Descriptor(), tools::ShownName(output.strName, "standard output"));
    output.bAsBase64 ? WriteBase64(output, buffer) : WriteBytes(output, buffer);
    buffer.Flush();
}

}  // namespace

std::unique_ptr<tools::OutputFile> WriteOutput(const Output& output) {
    auto file = std::make_unique<tools::OutputFile>(output.strName);
    Write(output, *file);
    return file;
}

std::string AsPem(const std::string& strLabel, const std::string& strDer) {
    constexpr std::size_t kLine = 64;
    const std::string strBase64 = EncodeBase64(strDer);
    std::string strPem = "-----BEGIN " + strLabel + "-----\n";
    for (std::size_t i = 0; i < strBase64.size(); i += kLine) {
        strPem.append(strBase64, i, kLine).append("\n");
    }
    return strPem + "-----END " + strLabel + "-----\n";
}

std::string AsBase64Line(const std::string& strBytes) {
    return EncodeBase64(strBytes) + "\n";
}

std::string CertificateAsPem(const std::string& strDer) {
    return AsPem("CERTIFICATE", strDer);
}

void WriteOutputs(const std::vector<Output>& outputs) {
    std::vector<std::unique_ptr<tools::OutputFile>> files;
    files.reserve(outputs.size());
    for (const Output& output : outputs) {
        files.push_back(std::make_unique<tools::OutputFile>(output.strName));
    }
    for (std::size_t i = 0; i < outputs.size(); ++i) {
        Write(outputs[i], *files[i]);
    }
    for (const auto& file : files) {
        file->Commit();
    }
}

}  // namespace vexsign
