// Which files may be loaded as PKCS #11 modules. A store URI names the module, and the URI may be less trusted than the
// program that opens it.
#pragma once

#include <string>

namespace vextk {

// Returns the module's real path; load it by that path. Any thread may call this.
//
// It must be a regular file. The file and all directories above it must belong to root or the effective user, and
// nobody else may write to them. Except for the module's own directory, a sticky directory such as /tmp is accepted:
// there, nobody can replace the files of others. Throws VCTK_E_TOKEN_MODULE, which says what is wrong with which path.
std::string RequireTrustedModule(const std::string& strPath);

}  // namespace vextk
