#include "signing/FileBytes.h"

#include <system_error>

#include "posix/FileIo.h"
#include "posix/OpenFile.h"

namespace vextk {
namespace {

void RequireSuccess(int nErrno) {
    if (nErrno != 0) {
        throw std::system_error(nErrno, std::generic_category());
    }
}

}  // namespace

SecretText ReadFileBytes(int nDescriptor, size_t cbLimit) {
    size_t cbFile = 0;
    RequireSuccess(vexposix::GetSizeToRead(nDescriptor, cbLimit, cbFile));
    SecretText bytes(cbFile);
    bytes.Resize(cbFile);
    const vexposix::Transfer transfer = vexposix::ReadAt(nDescriptor, bytes.Data(), cbFile, 0);
    RequireSuccess(transfer.nErrno);
    bytes.Truncate(transfer.cb);
    return bytes;
}

SecretText ReadFileBytes(const std::string& strPath, size_t cbLimit) {
    const vexposix::OpenedFile file = vexposix::OpenFile(AT_FDCWD, strPath.c_str(), vexposix::kInput);
    RequireSuccess(file.nErrno);
    return ReadFileBytes(file.descriptor.Get(), cbLimit);
}

}  // namespace vextk
