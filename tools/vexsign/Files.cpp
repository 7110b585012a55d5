#include "Files.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "common/FileIdentity.h"
#include "common/OutputFile.h"
#include "posix/FileDescriptor.h"
#include "posix/FileIo.h"
#include "posix/OutputBuffer.h"

namespace vexsign {
namespace {

[[noreturn]] void FailToRead(const std::string& strName) {
    throw std::runtime_error(tools::ShownName(strName, "standard input") + ": " + std::strerror(errno));
}

}  // namespace

std::string ReadWhole(const std::string& strName) {
    const bool bStandardInput = strName == tools::kStandardStream;
    const vexposix::FileDescriptor file(bStandardInput ? -1 : open(strName.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!bStandardInput && !file.IsOpen()) {
        FailToRead(strName);
    }
    const int nDescriptor = bStandardInput ? STDIN_FILENO : file.Get();
    constexpr std::size_t kBlock = 65536;
    std::array<char, kBlock> block{};
    std::string bytes;
    ssize_t cb = 0;
    while ((cb = vexposix::ReadSome(nDescriptor, block.data(), block.size())) > 0) {
        bytes.append(block.data(), static_cast<std::size_t>(cb));
    }
    if (cb < 0) {
        FailToRead(strName);
    }
    return bytes;
}

void WriteOutputs(const std::vector<Output>& outputs) {
    std::vector<std::unique_ptr<tools::OutputFile>> files;
    files.reserve(outputs.size());
    for (const Output& output : outputs) {
        files.push_back(std::make_unique<tools::OutputFile>(output.strName));
    }
    for (std::size_t i = 0; i < outputs.size(); ++i) {
        const std::string& strName = outputs[i].strName;
        vexposix::OutputBuffer buffer(files[i]->Descriptor(), tools::ShownName(strName, "standard output"));
        buffer.Append(outputs[i].bytes);
        buffer.Flush();
    }
    for (const auto& file : files) {
        file->Commit();
    }
}

}  // namespace vexsign
