// Loads the PKCS #11 module whose functions are those of the program. VEX_TEST_MODULE is its path in the build tree.
#pragma once

#include <dlfcn.h>
#include <p11-kit/pkcs11.h>

#include <stdexcept>
#include <string>

#include "Command.h"
#include "TempDirectory.h"

// Returns the module's path: a copy, because the toolkit may refuse to load modules from the build tree. With null it
// says that it has succeeded, and gives no functions.
inline std::string InstallModule(const TempDirectory& directory, CK_FUNCTION_LIST* pFunctions) {
    const std::string strModule = directory.Path("module.so");
    void* const pLibrary = RunCommand("install -m 0755 " VEX_TEST_MODULE " " + strModule).nStatus == 0
                               ? dlopen(strModule.c_str(), RTLD_NOW | RTLD_LOCAL)
                               : nullptr;
    void* const pFunction = pLibrary != nullptr ? dlsym(pLibrary, "VexTestSetFunctions") : nullptr;
    if (pFunction == nullptr) {
        throw std::runtime_error("no module for tests");
    }
    reinterpret_cast<void (*)(CK_FUNCTION_LIST*)>(pFunction)(pFunctions);
    return strModule;
}
