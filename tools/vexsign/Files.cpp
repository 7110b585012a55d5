#include "Files.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace vexsign {
namespace {

struct Close {
    void operator()(std::FILE* pFile) const { static_cast<void>(std::fclose(pFile)); }
};
using FilePtr = std::unique_ptr<std::FILE, Close>;

[[noreturn]] void Fail(const std::string& strName) {
    throw std::runtime_error((strName == "-" ? "standard stream" : strName) + ": " + std::strerror(errno));
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

void WriteWhole(const std::string& strName, std::string_view bytes) {
    FilePtr owner(strName == "-" ? nullptr : std::fopen(strName.c_str(), "wbe"));
    std::FILE* const pFile = strName == "-" ? stdout : owner.get();
    if (pFile == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), pFile) != bytes.size() ||
        std::fflush(pFile) != 0) {
        Fail(strName);
    }
    // A file system may find out about its quota as late as this.
    if (std::FILE* const pClosed = owner.release(); pClosed != nullptr && std::fclose(pClosed) != 0) {
        Fail(strName);
    }
}

}  // namespace vexsign
