#include "signing/FileBytes.h"

#include <cerrno>
#include <system_error>

#include "posix/FileIo.h"

namespace vextk {
namespace {

void RequireSuccess(int nErrno) {
    if (nErrno != 0) {
        throw std::system_error(nErrno, std::generic_category());
    }
}

}  // namespace

SecretText ReadFileBytes(const vexposix::OpenedFile& file, size_t cbLimit) {
    RequireSuccess(file.nErrno);
    if (file.cbSize > cbLimit) {
        throw std::system_error(EFBIG, std::generic_category());
    }
    SecretText bytes(file.cbSize);
    bytes.Resize(file.cbSize);
    const vexposix::Transfer transfer = vexposix::ReadAt(file.descriptor.Get(), bytes.Data(), file.cbSize, 0);
    RequireSuccess(transfer.nErrno);
    bytes.Truncate(transfer.cb);
    return bytes;
}

SecretText ReadFileBytes(const std::string& strPath, size_t cbLimit) {
    return ReadFileBytes(vexposix::OpenFile(AT_FDCWD, strPath.c_str(), vexposix::kInput), cbLimit);
}

}  // namespace vextk
