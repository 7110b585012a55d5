// Reads small files as a whole.
#pragma once

#include <string>

#include "posix/OpenFile.h"
#include "signing/SecretText.h"

namespace vextk {

// The bytes of a regular file. Throws std::system_error; EFBIG: larger than cbLimit; EISDIR or EINVAL: not a regular
// file. Never waits for a pipe or device.
SecretText ReadFileBytes(const std::string& strPath, size_t cbLimit);

// The same for a file that is already open.
SecretText ReadFileBytes(const vexposix::OpenedFile& file, size_t cbLimit);

}  // namespace vextk
