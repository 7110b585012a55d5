#include "PinSource.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <system_error>

#include "common/FileIdentity.h"
#include "posix/FileDescriptor.h"
#include "posix/FileIo.h"

namespace vexsign {
namespace {

constexpr std::size_t kLongestPin = 4096;  // as in the toolkit's PIN files

// Reads until the end, or until one byte more than a PIN may have.
void ReadPin(int nDescriptor, const std::string& strPath, std::string& strPin) {
    strPin.resize(kLongestPin + 1);
    std::size_t cbRead = 0;
    while (cbRead < strPin.size()) {
        const ssize_t cb = vexposix::ReadSome(nDescriptor, strPin.data() + cbRead, strPin.size() - cbRead);
        if (cb < 0) {
            throw std::runtime_error(strPath + ": " + std::strerror(errno));
        }
        if (cb == 0) {
            break;
        }
        cbRead += static_cast<std::size_t>(cb);
    }
    strPin.resize(cbRead);
}

}  // namespace

std::string StreamName(const std::string& strPath) {
    return strPath.starts_with('/') ? strPath : "./" + strPath;
}

bool ReadPinFromPipe(const std::string& strPath, Secret& pin) {
    // A descriptor of this process cannot always be opened again: not if it is a socket, as sshd gives it, nor if it is
    // another user's pipe or file, as behind sudo.
    const std::optional<int> own = tools::ResolveOutput(StreamName(strPath)).descriptor;
    struct stat status = {};
    if (!own && (stat(strPath.c_str(), &status) != 0 || S_ISREG(status.st_mode) || S_ISDIR(status.st_mode))) {
        return false;
    }
    const vexposix::FileDescriptor source(own ? fcntl(*own, F_DUPFD_CLOEXEC, 0)
                                              : open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!source.IsOpen()) {
        throw std::runtime_error(strPath + ": " + std::strerror(errno));
    }
    if (isatty(source.Get()) != 0) {
        throw std::runtime_error(strPath + ": a terminal would show the PIN; use --ask-pin");
    }
    std::string& strPin = pin.Text();
    ReadPin(source.Get(), strPath, strPin);
    if (strPin.size() > kLongestPin) {
        throw std::runtime_error(strPath + ": a PIN has at most " + std::to_string(kLongestPin) +
                                 " bytes; give a file that holds the PIN alone");
    }
    for (const char chEnd : {'\n', '\r'}) {
        if (strPin.ends_with(chEnd)) {
            strPin.pop_back();
        }
    }
    if (strPin.empty()) {
        throw std::runtime_error(strPath + ": it holds no PIN");
    }
    return true;
}

bool EverybodyMayRead(const std::string& strPath) {
    using std::filesystem::perms;
    std::error_code error;
    std::filesystem::path path = std::filesystem::canonical(strPath, error);
    if (error) {
        return false;
    }
    const std::filesystem::file_status file = std::filesystem::status(path, error);
    if (!std::filesystem::is_regular_file(file) || (file.permissions() & perms::others_read) == perms::none) {
        return false;
    }
    while (path.has_relative_path()) {
        path = path.parent_path();
        const perms rights = std::filesystem::status(path, error).permissions();
        if (error || (rights & perms::others_exec) == perms::none) {
            return false;
        }
    }
    return true;
}

}  // namespace vexsign
