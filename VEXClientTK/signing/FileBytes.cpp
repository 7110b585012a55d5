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
    size_t cbRead = 0;
    if (const int nErrno = vexposix::ReadWhole(file, cbLimit, room, cbRead); nErrno != 0) {
        throw std::system_error(nErrno, std::generic_category());
    }
    bytes.Truncate(cbRead);
    return bytes;
}

SecretText ReadFileBytes(const std::string& strPath, size_t cbLimit) {
    return ReadFileBytes(vexposix::OpenFile(AT_FDCWD, strPath.c_str(), vexposix::kInput), cbLimit);
}

}  // namespace vextk
