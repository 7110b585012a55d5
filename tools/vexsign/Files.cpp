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

}  // namespace

void WriteOutputs(const std::vector<Output>& outputs) {
    std::vector<std::unique_ptr<tools::OutputFile>> files;
    files.reserve(outputs.size());
    for (const Output& output : outputs) {
        files.push_back(std::make_unique<tools::OutputFile>(output.strName));
    }
    for (std::size_t i = 0; i < outputs.size(); ++i) {
        vexposix::OutputBuffer buffer(files[i]->Descriptor(), tools::ShownName(outputs[i].strName, "standard output"));
        outputs[i].bAsBase64 ? WriteBase64(outputs[i], buffer) : WriteBytes(outputs[i], buffer);
        buffer.Flush();
    }
    for (const auto& file : files) {
        file->Commit();
    }
}

}  // namespace vexsign
