// Whole small files, read safely.
#pragma once

#include <string>

#include "signing/SecretText.h"

namespace vextk {

// The bytes of a regular file. Throws std::system_error; EFBIG when the file is larger than cbLimit, and for anything
// but a regular file EISDIR or EINVAL. Never waits on a pipe or device.
SecretText ReadFileBytes(const std::string& strPath, size_t cbLimit);

// The same of a file that is already open, from its beginning.
SecretText ReadFileBytes(int nDescriptor, size_t cbLimit);

}  // namespace vextk
