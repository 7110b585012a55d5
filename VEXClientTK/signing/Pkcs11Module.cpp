#include "signing/Pkcs11Module.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

#include "posix/ForkPhases.h"
#include "posix/Hexadecimal.h"
#include "posix/LockFile.h"
#include "signing/ModuleTrust.h"
#include "signing/Token.h"

namespace vextk {
namespace {

constexpr auto kLongestWaitAtExit = std::chrono::seconds(5);

// Where distributions put p11-kit's modules and other libraries. The dynamic linker's search path is not used, because
// a file that the linker finds cannot be checked before it is loaded.
constexpr const char* kModuleDirectories[] = {"/usr/lib/x86_64-linux-gnu/pkcs11/",
                                              "/usr/lib64/pkcs11/",
                                              "/usr/lib/pkcs11/",
                                              "/usr/lib/x86_64-linux-gnu/",
                                              "/usr/lib64/",
                                              "/usr/lib/",
                                              "/usr/local/lib/"};
// The proxy is p11-kit's library itself. Not every package has it under the first name.
constexpr const char* kProxies[] = {"p11-kit-proxy.so", "libp11-kit.so.0"};

struct ResultName {
    CK_RV rv;
    const char* pszName;
};
constexpr ResultName kResultNames[] = {
    {CKR_HOST_MEMORY, "CKR_HOST_MEMORY"},
    {CKR_SLOT_ID_INVALID, "CKR_SLOT_ID_INVALID"},
    {CKR_GENERAL_ERROR, "CKR_GENERAL_ERROR"},
    {CKR_FUNCTION_FAILED, "CKR_FUNCTION_FAILED"},
    {CKR_ARGUMENTS_BAD, "CKR_ARGUMENTS_BAD"},
    {CKR_DATA_LEN_RANGE, "CKR_DATA_LEN_RANGE"},
    {CKR_DEVICE_ERROR, "CKR_DEVICE_ERROR"},
    {CKR_DEVICE_MEMORY, "CKR_DEVICE_MEMORY"},
    {CKR_DEVICE_REMOVED, "CKR_DEVICE_REMOVED"},
    {CKR_FUNCTION_NOT_SUPPORTED, "CKR_FUNCTION_NOT_SUPPORTED"},
    {CKR_KEY_FUNCTION_NOT_PERMITTED, "CKR_KEY_FUNCTION_NOT_PERMITTED"},
    {CKR_KEY_HANDLE_INVALID, "CKR_KEY_HANDLE_INVALID"},
    {CKR_KEY_TYPE_INCONSISTENT, "CKR_KEY_TYPE_INCONSISTENT"},
    {CKR_MECHANISM_INVALID, "CKR_MECHANISM_INVALID"},
    {CKR_OBJECT_HANDLE_INVALID, "CKR_OBJECT_HANDLE_INVALID"},
    {CKR_OPERATION_ACTIVE, "CKR_OPERATION_ACTIVE"},
    {CKR_PIN_EXPIRED, "CKR_PIN_EXPIRED"},
    {CKR_PIN_INCORRECT, "CKR_PIN_INCORRECT"},
    {CKR_PIN_LOCKED, "CKR_PIN_LOCKED"},
    {CKR_SESSION_CLOSED, "CKR_SESSION_CLOSED"},
    {CKR_SESSION_COUNT, "CKR_SESSION_COUNT"},
    {CKR_SESSION_HANDLE_INVALID, "CKR_SESSION_HANDLE_INVALID"},
    {CKR_TOKEN_NOT_PRESENT, "CKR_TOKEN_NOT_PRESENT"},
    {CKR_TOKEN_NOT_RECOGNIZED, "CKR_TOKEN_NOT_RECOGNIZED"},
    {CKR_USER_NOT_LOGGED_IN, "CKR_USER_NOT_LOGGED_IN"},
    {CKR_USER_PIN_NOT_INITIALIZED, "CKR_USER_PIN_NOT_INITIALIZED"},
    {CKR_CRYPTOKI_NOT_INITIALIZED, "CKR_CRYPTOKI_NOT_INITIALIZED"},
};

std::vector<std::string> InDirectory(const std::string& strDirectory, const std::string& strName) {
    return {strDirectory + strName, strDirectory + strName + ".so", strDirectory + "lib" + strName + ".so"};
}

// The files to try, in order.
std::vector<std::string> FileNames(const std::string& strPath, const std::string& strName) {
    if (strName.find('/') != std::string::npos) {
        throw Failure(VCTK_E_TOKEN_MODULE, strName + ": module-name contains \"/\"; use module-path for a path");
    }
    if (!strPath.empty()) {
        struct stat status {};
        const bool bDirectory = stat(strPath.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
        if (bDirectory == strName.empty()) {
            throw Failure(VCTK_E_TOKEN_MODULE,
                          strPath + (bDirectory ? ": this is a directory; add module-name"
                                                : ": not a directory, so module-name cannot be used"));
        }
        return bDirectory ? InDirectory(strPath + "/", strName) : std::vector{strPath};
    }
    std::vector<std::string> names;
    for (const char* pszDirectory : kModuleDirectories) {
        if (strName.empty()) {
            for (const char* pszProxy : kProxies) {
                names.push_back(std::string(pszDirectory) + pszProxy);
            }
            continue;
        }
        const std::vector<std::string> more = InDirectory(pszDirectory, strName);
        names.insert(names.end(), more.begin(), more.end());
    }
    return names;
}

struct Library {
    void* pHandle;
    std::string strFile;
};

// The library stays loaded for the life of the process.
Library LoadFile(const std::string& strFile) {
    // Loads the real path, because a link may point to another file by now.
    const std::string strTrusted = RequireTrustedModule(strFile);
    void* const pLibrary = dlopen(strTrusted.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (pLibrary == nullptr) {
        const char* pszError = dlerror();
        throw Failure(VCTK_E_TOKEN_MODULE, pszError != nullptr ? pszError : strFile);
    }
    return {pLibrary, strTrusted};
}

// The first of the files that can be loaded. strMissing: the error text if none of them exists.
Library Load(const std::vector<std::string>& names, const std::string& strMissing) {
    std::string strWhy = strMissing;
    for (const std::string& strFile : names) {
        try {
            return LoadFile(strFile);
        } catch (const Failure& failure) {
            if (access(strFile.c_str(), F_OK) == 0 || errno == EACCES) {
                strWhy = failure.Detail();
            }
        }
    }
    throw Failure(VCTK_E_TOKEN_MODULE, strWhy);
}

std::string MissingText(const std::string& strPath, const std::string& strName) {
    if (!strPath.empty()) {
        return strPath + ": there is no " + (strName.empty() ? "such file" : "module " + strName + " here");
    }
    return strName.empty() ? "p11-kit is not installed; install it, or name a module with module-path"
                           : "no module " + strName + " is installed; if it is in another directory, add module-path";
}

// The first function that the toolkit calls and the module does not have; null if it has all. A module may not leave
// any out (PKCS #11 2.40 section 5).
const char* MissingFunction(const CK_FUNCTION_LIST& functions) {
    const std::pair<const char*, bool> needed[] = {
        {"C_Initialize", functions.C_Initialize != nullptr},
        {"C_GetInfo", functions.C_GetInfo != nullptr},
        {"C_GetSlotList", functions.C_GetSlotList != nullptr},
        {"C_GetSlotInfo", functions.C_GetSlotInfo != nullptr},
        {"C_GetTokenInfo", functions.C_GetTokenInfo != nullptr},
        {"C_GetMechanismInfo", functions.C_GetMechanismInfo != nullptr},
        {"C_OpenSession", functions.C_OpenSession != nullptr},
        {"C_CloseSession", functions.C_CloseSession != nullptr},
        {"C_Login", functions.C_Login != nullptr},
        {"C_GetAttributeValue", functions.C_GetAttributeValue != nullptr},
        {"C_FindObjectsInit", functions.C_FindObjectsInit != nullptr},
        {"C_FindObjects", functions.C_FindObjects != nullptr},
        {"C_FindObjectsFinal", functions.C_FindObjectsFinal != nullptr},
        {"C_SignInit", functions.C_SignInit != nullptr},
        {"C_Sign", functions.C_Sign != nullptr},
    };
    const auto* const pMissing =
        std::find_if(std::begin(needed), std::end(needed), [](const auto& function) { return !function.second; });
    return pMissing != std::end(needed) ? pMissing->first : nullptr;
}

}  // namespace

std::string Pkcs11ResultText(CK_RV rv) {
    for (const ResultName& result : kResultNames) {
        if (result.rv == rv) {
            return result.pszName;
        }
    }
    std::string strDigits;
    for (CK_RV n = rv; n != 0 || strDigits.empty(); n /= 16) {
        strDigits.insert(strDigits.begin(), vexposix::kUpperHexDigits[n % 16]);
    }
    return "PKCS #11 result 0x" + strDigits;
}

// The modules of a process. Never destroyed. A forked child gets a new object.
struct Pkcs11Module::Process {
    explicit Process(Process* pWas) : pParent(pWas) {}

    // A child in a new PID namespace can have its parent's number. A child without fork handlers (vfork) has its
    // parent's object.
    bool IsCurrent() const { return nId == getpid() && this == Current(); }

    const pid_t nId = getpid();
    Process* const pParent;  // that of the parent process; a child never touches it

    CVEXMutex mutex;
    std::map<void*, Pkcs11Module*> modules VEX_GUARDED_BY(mutex);  // by library

    // Held shared by each call of a module's function.
    std::shared_mutex calls;
    std::atomic<bool> bEnding{false};

    static std::atomic<Process*>& Current() {
        static std::atomic<Process*> s_current{nullptr};
        return s_current;
    }
};

Pkcs11Module::Process& Pkcs11Module::CurrentProcess() {
    static std::once_flag s_once;
    std::call_once(s_once, [] {
        Process::Current() = new Process(nullptr);
        // The child starts with new locks, because other threads of the parent may hold the old ones.
        vexposix::AddToFork(vexposix::ForkPhase::kModules,
                            {nullptr, nullptr, [] { Process::Current() = new Process(Process::Current()); }});
    });
    return *Process::Current();
}

// Exit handlers run in the reverse order of their registration. This one is registered after the module is loaded, so
// it runs before the module's own handlers, which destroy what the module's functions need.
void Pkcs11Module::CloseAtExit() {
    Process& process = CurrentProcess();
    process.bEnding = true;
    // Not with a time limit of the lock: the system clock can be set back, and ThreadSanitizer does not see locks that
    // wait by the monotonic clock.
    if (vexposix::TryFor(kLongestWaitAtExit, [&] { return process.calls.try_lock(); })) {
        process.calls.unlock();
    }
}

Pkcs11Module::CallPermit::CallPermit(const Pkcs11Module& module, bool bAlone) {
    if (!module.m_process.IsCurrent()) {
        throw Failure(VCTK_E_TOKEN_FAILED, "the store was opened before a fork; open it again in this process");
    }
    m_notEnding = std::shared_lock(module.m_process.calls, std::defer_lock);
    if (!module.m_process.bEnding) {
        m_notEnding.lock();
    }
    if (module.m_process.bEnding) {
        throw Failure(VCTK_E_TOKEN_FAILED, "the process is ending");
    }
    if (bAlone) {
        m_alone = std::unique_lock(module.m_oneCall);
    }
}

bool Pkcs11Module::IsUsable() const {
    return m_process.IsCurrent() && !m_process.bEnding;
}

Pkcs11Module::Pkcs11Module(Process& process, CK_FUNCTION_LIST* pFunctions)
    : m_process(process), m_pFunctions(pFunctions) {
    CK_C_INITIALIZE_ARGS arguments{};
    arguments.flags = CKF_OS_LOCKING_OK;
    CK_RV rv = m_pFunctions->C_Initialize(&arguments);
    if (rv == CKR_CANT_LOCK) {
        m_bOneCallAtATime = true;
        rv = m_pFunctions->C_Initialize(nullptr);
    }
    // Other code in the process may use the same module.
    if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED) {
        throw Failure(VCTK_E_TOKEN_MODULE, "C_Initialize: " + Pkcs11ResultText(rv));
    }
    if (std::atexit(CloseAtExit) != 0) {
        throw Failure(VCTK_E_OUT_OF_MEMORY);
    }
}

Pkcs11Module& Pkcs11Module::Open(const std::string& strPath, const std::string& strName) {
    const std::vector<std::string> names = FileNames(strPath, strName);
    Process& process = CurrentProcess();
    const CVEXLock lock(process.mutex);
    const Library library = Load(names, MissingText(strPath, strName));
    Pkcs11Module*& pModule = process.modules[library.pHandle];
    if (pModule == nullptr) {
        const auto getFunctions = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library.pHandle, "C_GetFunctionList"));
        CK_FUNCTION_LIST* pFunctions = nullptr;
        if (getFunctions == nullptr || getFunctions(&pFunctions) != CKR_OK || pFunctions == nullptr) {
            throw Failure(VCTK_E_TOKEN_MODULE, "it is not a PKCS #11 module: C_GetFunctionList is missing or fails")
                .About(library.strFile);
        }
        if (const char* const pszMissing = MissingFunction(*pFunctions)) {
            throw Failure(VCTK_E_TOKEN_MODULE, std::string("it has no function ") + pszMissing).About(library.strFile);
        }
        try {
            pModule = new Pkcs11Module(process, pFunctions);
        } catch (const Failure& failure) {
            throw failure.About(library.strFile);
        }
    }
    return *pModule;
}

Token& Pkcs11Module::FindToken(const TokenName& name) {
    const CVEXLock lock(m_mutex);
    std::unique_ptr<Token>& token = m_tokens[name];
    if (!token) {
        token = std::make_unique<Token>(*this, name);
    }
    return *token;
}

}  // namespace vextk
