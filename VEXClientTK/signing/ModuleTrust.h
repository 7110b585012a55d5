// Which files may be loaded as PKCS #11 modules: a store URI names one, and may come from less trusted hands than the
// program that opens it.
#pragma once

#include <string>

namespace vextk {

// The real path of the module, to be loaded by that name. Any thread may call it.
//
// The file and all its directories have to belong to root or the effective user, and nobody else may write to them.
// Above the module's own directory one may be sticky, as /tmp is: there, nobody can replace what is another's. Throws
// VCTK_E_TOKEN_MODULE, which says what is wrong with which path.
std::string RequireTrustedModule(const std::string& strPath);

}  // namespace vextk
