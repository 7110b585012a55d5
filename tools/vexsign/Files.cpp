#include "Files.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "common/OutputBuffer.h"
#include "common/OutputFile.h"

namespace vexsign {
namespace {

struct Close {
    void operator()(std::FILE* pFile) const { static_cast<void>(std::fclose(pFile)); }
};
using FilePtr = std::unique_ptr<std::FILE, Close>;

[[noreturn]] void Fail(const std::string& strName) {
    throw std::runtime_error((strName == "-" ? "standard input" : strName) + ": " + std::strerror(errno));
}

}  // namespace

std::string ReadWhole(const std::string& strName) {
    const FilePtr owner(strName == "-" ? nullptr : std::fopen(strName.c_str(), "rbe"));
    std::FILE* const pFile = strName == "-" ? stdin : owner.get();
    if (pFile == nullptr) {
        Fail(strName);
    }
    constexpr std::size_t kBlock = 65536;
    std::array<char, kBlock> block{};
    std::string bytes;
    while (const std::size_t cb = std::fread(block.data(), 1, block.size(), pFile)) {
        bytes.append(block.data(), cb);
    }
    if (std::ferror(pFile) != 0) {
        Fail(strName);
    }
    return bytes;
}

void WriteOutputs(const std::vector<Output>& outputs) {
    std::vector<std::unique_ptr<tools::OutputFile>> files;
    for (const Output& output : outputs) {
        files.push_back(std::make_unique<tools::OutputFile>(output.strName));
    }
    for (std::size_t i = 0; i < outputs.size(); ++i) {
        const std::string& strName = outputs[i].strName;
        tools::OutputBuffer buffer(files[i]->Descriptor(), strName == "-" ? "standard output" : strName);
        buffer.Append(outputs[i].bytes);
        buffer.Flush();
    }
    for (const auto& file : files) {
        file->Commit();
    }
}

}  // namespace vexsign
