#include "Input.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>
#include <vector>

#include "RecordParser.h"
#include "common/FileIdentity.h"
#include "posix/FileIo.h"

namespace vexlog {

void ThrowReadError(const std::string& strPath, int nError) {
    throw ReadError(strPath + ": " + std::generic_category().message(nError));
}

vexposix::FileDescriptor OpenLog(const std::string& strPath) {
    vexposix::FileDescriptor file(open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    struct stat status = {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        ThrowReadError(strPath, errno);
    }
    if (S_ISDIR(status.st_mode)) {
        ThrowReadError(strPath, EISDIR);
    }
    return file;
}

void ReadLog(const std::string& strPath, RecordSink& sink, ReadObserver& observer) {
    constexpr std::size_t kPiece = std::size_t{256} * 1024;
    const bool bStandardInput = strPath == kStandardInput;
    const vexposix::FileDescriptor file = bStandardInput ? vexposix::FileDescriptor() : OpenLog(strPath);
    const int nDescriptor = bStandardInput ? STDIN_FILENO : file.Get();
    struct stat status = {};
    const bool bFile = fstat(nDescriptor, &status) == 0 && S_ISREG(status.st_mode);
    const auto cbTotal = bFile ? static_cast<std::uint64_t>(status.st_size) : 0;

    RecordParser parser(sink);
    std::vector<char> piece(kPiece);
    std::uint64_t cbRead = 0;
    for (;;) {
        const ssize_t cb = vexposix::ReadSome(nDescriptor, piece.data(), piece.size());
        if (cb < 0) {
            const int nError = errno;
            parser.Finish();
            ThrowReadError(tools::ShownName(strPath, "standard input"), nError);
        }
        if (cb == 0) {
            break;
        }
        const auto cbPiece = static_cast<std::size_t>(cb);
        parser.Feed({piece.data(), cbPiece});
        cbRead += cbPiece;
        observer.OnProgress(cbRead, cbTotal, !bFile && cbPiece < piece.size());
    }
    parser.Finish();
}

}  // namespace vexlog
