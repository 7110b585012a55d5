#include "signing/FileBytes.h"

#include <algorithm>
#include <system_error>

namespace vextk {
SecretText ReadFileBytes(const vexposix::OpenedFile& file, size_t cbLimit) {
    SecretText bytes(std::min(file.cbSize, cbLimit));
    const auto room = [&](size_t cb) {
        bytes.Resize(cb);
        return bytes.Data();
    };
    const vexposix::Transfer transfer = vexposix::ReadWhole(file, cbLimit, room);
    if (transfer.nErrno != 0) {
        throw std::system_error(transfer.nErrno, std::generic_category());
    }
    bytes.Truncate(transfer.cb);
    return bytes;
}

SecretText ReadFileBytes(const std::string& strPath, size_t cbLimit) {
    return ReadFileBytes(vexposix::OpenFile(AT_FDCWD, strPath.c_str(), vexposix::kInput), cbLimit);
}

}  // namespace vextk
