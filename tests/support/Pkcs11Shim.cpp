#include "Pkcs11Shim.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <p11-kit/pkcs11.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <mutex>
#include <shared_mutex>
#include <string_view>
#include <vector>

namespace {

Pkcs11Shim g_shim;
CK_FUNCTION_LIST* g_pReal = nullptr;
CK_FUNCTION_LIST g_functions;
// Calls that use a session hold it shared: the real module would free a session that is closed while it is in use.
std::shared_mutex g_sessions;

// Counts a call among those that run at once.
class Inside {
public:
    Inside() {
        const int cNow = ++s_cInside;
        for (int cMost = g_shim.cMostAtOnce; cMost < cNow && !g_shim.cMostAtOnce.compare_exchange_weak(cMost, cNow);) {
        }
    }
    ~Inside() { --s_cInside; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

private:
    inline static std::atomic<int> s_cInside{0};
};

// Appends a line to the file of calls, if the environment names one.
void Note(std::string_view line) {
    const char* const pszFile = std::getenv("VEX_TEST_PKCS11_CALLS");
    const int fd = pszFile == nullptr ? -1 : open(pszFile, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0) {
        [[maybe_unused]] const ssize_t cb = write(fd, line.data(), line.size());
        close(fd);
    }
}

void LoseSessions() {
    const std::lock_guard lock(g_sessions);
    CK_ULONG cSlots = 0;
    g_pReal->C_GetSlotList(CK_TRUE, nullptr, &cSlots);
    std::vector<CK_SLOT_ID> slots(cSlots);
    g_pReal->C_GetSlotList(CK_TRUE, slots.data(), &cSlots);
    for (const CK_SLOT_ID nSlot : slots) {
        g_pReal->C_CloseAllSessions(nSlot);
    }
    g_shim.cSessions = 0;
}

// The real function, or the answer of a reader without a card.
template <auto Member, CK_RV Away>
struct Forward;
template <typename... Arguments, CK_RV (*CK_FUNCTION_LIST::*Member)(Arguments...), CK_RV Away>
struct Forward<Member, Away> {
    static CK_RV Call(Arguments... arguments) { return g_shim.fRemoved ? Away : (g_pReal->*Member)(arguments...); }
    static void Install() { g_functions.*Member = Call; }
};

CK_RV Initialize(void* pArguments) {
    ++g_shim.cInitialize;
    g_shim.cSessions = 0;  // a forked child has no session of its parent
    if (g_shim.nNotInitialised != CKR_OK) {
        return g_shim.nNotInitialised;
    }
    if (g_shim.fCannotLock) {
        if (pArguments != nullptr) {
            return CKR_CANT_LOCK;
        }
        CK_C_INITIALIZE_ARGS arguments = {};
        arguments.flags = CKF_OS_LOCKING_OK;  // the real module can
        return g_pReal->C_Initialize(&arguments);
    }
    return g_pReal->C_Initialize(pArguments);
}

CK_RV GetTokenInfo(CK_SLOT_ID nSlot, CK_TOKEN_INFO* pInfo) {
    const CK_RV rv = Forward<&CK_FUNCTION_LIST::C_GetTokenInfo, CKR_TOKEN_NOT_PRESENT>::Call(nSlot, pInfo);
    if (rv == CKR_OK && g_shim.fPinPad) {
        pInfo->flags |= CKF_PROTECTED_AUTHENTICATION_PATH;
    }
    return rv;
}

CK_RV GetSlotList(CK_BBOOL fPresent, CK_SLOT_ID* pSlots, CK_ULONG* pcSlots) {
    if (g_shim.fRemoved && fPresent != 0) {
        *pcSlots = 0;
        return CKR_OK;
    }
    return g_pReal->C_GetSlotList(fPresent, pSlots, pcSlots);
}

CK_RV OpenSession(CK_SLOT_ID nSlot, CK_FLAGS flags, void* pContext, CK_NOTIFY notify, CK_SESSION_HANDLE* phSession) {
    const Inside inside;
    const std::shared_lock lock(g_sessions);
    if (g_shim.fRemoved) {
        return CKR_TOKEN_NOT_PRESENT;
    }
    if (g_shim.nNoSession != CKR_OK) {
        return g_shim.nNoSession;
    }
    if (++g_shim.cSessions > g_shim.nMostSessions) {
        --g_shim.cSessions;
        return CKR_SESSION_COUNT;
    }
    const CK_RV rv = g_pReal->C_OpenSession(nSlot, flags, pContext, notify, phSession);
    Note("C_OpenSession\n");
    g_shim.cSessions -= rv == CKR_OK ? 0 : 1;
    return rv;
}

CK_RV CloseSession(CK_SESSION_HANDLE hSession) {
    const std::shared_lock lock(g_sessions);
    if (g_shim.fRemoved) {
        return CKR_SESSION_HANDLE_INVALID;
    }
    const CK_RV rv = g_pReal->C_CloseSession(hSession);
    Note("C_CloseSession\n");
    g_shim.cSessions -= rv == CKR_OK ? 1 : 0;
    return rv;
}

CK_RV Login(CK_SESSION_HANDLE hSession, CK_USER_TYPE nUser, unsigned char* pbPin, CK_ULONG cbPin) {
    const std::shared_lock lock(g_sessions);
    if (g_shim.fRemoved) {
        return CKR_DEVICE_REMOVED;
    }
    ++(nUser == CKU_CONTEXT_SPECIFIC ? g_shim.cContextLogins : g_shim.cLogins);
    Note("C_Login\n");
    if (g_shim.fPinLocked) {
        return CKR_PIN_LOCKED;
    }
    if (g_shim.fPinPad && pbPin == nullptr) {
        ++g_shim.cPads;
        unsigned char entered[] = {'4', '7', '1', '1'};
        return g_pReal->C_Login(hSession, nUser, entered, sizeof entered);
    }
    if (g_shim.fPinChanged) {
        if (cbPin == 0 || pbPin[cbPin - 1] != 'x') {
            return CKR_PIN_INCORRECT;
        }
        --cbPin;
    }
    return g_pReal->C_Login(hSession, nUser, pbPin, cbPin);
}

CK_RV Logout(CK_SESSION_HANDLE hSession) {
    Note("C_Logout\n");
    return Forward<&CK_FUNCTION_LIST::C_Logout, CKR_DEVICE_REMOVED>::Call(hSession);
}

bool IsDecryptionKey(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject) {
    std::array<char, 64> label{};
    CK_ATTRIBUTE attribute{CKA_LABEL, label.data(), label.size()};
    return g_pReal->C_GetAttributeValue(hSession, hObject, &attribute, 1) == CKR_OK &&
           std::string_view(label.data(), attribute.ulValueLen) == "decryptkey";
}

// The real module lets any key sign.
CK_RV GetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE* pAttributes,
                        CK_ULONG cAttributes) {
    const CK_RV rv = Forward<&CK_FUNCTION_LIST::C_GetAttributeValue, CKR_DEVICE_REMOVED>::Call(
        hSession, hObject, pAttributes, cAttributes);
    for (CK_ULONG i = 0; rv == CKR_OK && i < cAttributes; ++i) {
        if (pAttributes[i].type == CKA_SIGN && pAttributes[i].pValue != nullptr && IsDecryptionKey(hSession, hObject)) {
            *static_cast<CK_BBOOL*>(pAttributes[i].pValue) = CK_FALSE;
        }
        if (pAttributes[i].type == CKA_VALUE && pAttributes[i].pValue != nullptr && g_shim.fCertificatesDamaged) {
            *static_cast<unsigned char*>(pAttributes[i].pValue) = 0;
        }
    }
    return rv;
}

bool IsMissing(CK_MECHANISM_TYPE nMechanism) {
    return std::any_of(g_shim.nMissing.begin(), g_shim.nMissing.end(),
                       [=](const std::atomic<unsigned long>& nMissing) { return nMissing == nMechanism; });
}

CK_RV GetMechanismInfo(CK_SLOT_ID nSlot, CK_MECHANISM_TYPE nMechanism, CK_MECHANISM_INFO* pInfo) {
    return IsMissing(nMechanism) ? CKR_MECHANISM_INVALID : g_pReal->C_GetMechanismInfo(nSlot, nMechanism, pInfo);
}

CK_RV SignInit(CK_SESSION_HANDLE hSession, CK_MECHANISM* pMechanism, CK_OBJECT_HANDLE hKey) {
    if (g_shim.fRemoved) {
        return CKR_DEVICE_REMOVED;
    }
    g_shim.nMechanism = pMechanism->mechanism;
    if (IsMissing(pMechanism->mechanism)) {
        CK_SESSION_INFO session{};
        const CK_RV rv = g_pReal->C_GetSessionInfo(hSession, &session);
        return rv == CKR_OK ? CKR_MECHANISM_INVALID : rv;
    }
    return g_pReal->C_SignInit(hSession, pMechanism, hKey);
}

CK_RV Sign(CK_SESSION_HANDLE hSession, unsigned char* pbData, CK_ULONG cbData, unsigned char* pbSignature,
           CK_ULONG* pcbSignature) {
    const Inside inside;
    const std::shared_lock lock(g_sessions);
    if (g_shim.fRemoved) {
        return CKR_DEVICE_REMOVED;
    }
    ++g_shim.cSignatures;
    Note("C_Sign\n");
    g_shim.cbSigned = cbData;
    while (g_shim.fSigningHangs) {
        pause();
    }
    if (g_shim.fSigningFails) {
        return CKR_FUNCTION_FAILED;  // the real module still waits for the data
    }
    return g_pReal->C_Sign(hSession, pbData, cbData, pbSignature, pcbSignature);
}

}  // namespace

extern "C" {

Pkcs11Shim* VexTestPkcs11Shim() {
    return &g_shim;
}

CK_RV C_GetFunctionList(CK_FUNCTION_LIST** ppFunctions) {
    void* const pLibrary = dlopen(std::getenv("VEX_TEST_PKCS11_MODULE"), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    const auto getReal =
        pLibrary == nullptr ? nullptr : reinterpret_cast<CK_C_GetFunctionList>(dlsym(pLibrary, "C_GetFunctionList"));
    if (getReal == nullptr || getReal(&g_pReal) != CKR_OK) {
        return CKR_GENERAL_ERROR;
    }
    g_functions = *g_pReal;
    g_functions.C_GetFunctionList = C_GetFunctionList;
    g_functions.C_Initialize = Initialize;
    g_functions.C_GetSlotList = GetSlotList;
    g_functions.C_GetTokenInfo = GetTokenInfo;
    g_functions.C_OpenSession = OpenSession;
    g_functions.C_CloseSession = CloseSession;
    g_functions.C_Login = Login;
    g_functions.C_Logout = Logout;
    g_functions.C_GetAttributeValue = GetAttributeValue;
    g_functions.C_GetMechanismInfo = GetMechanismInfo;
    g_functions.C_SignInit = SignInit;
    g_functions.C_Sign = Sign;
    Forward<&CK_FUNCTION_LIST::C_FindObjectsInit, CKR_DEVICE_REMOVED>::Install();
    Forward<&CK_FUNCTION_LIST::C_FindObjects, CKR_DEVICE_REMOVED>::Install();
    Forward<&CK_FUNCTION_LIST::C_FindObjectsFinal, CKR_DEVICE_REMOVED>::Install();
    g_shim.pfnLoseSessions = LoseSessions;
    g_shim.pFunctions = &g_functions;
    *ppFunctions = &g_functions;
    return CKR_OK;
}

unsigned long VexTestInitialiseModule() {
    CK_FUNCTION_LIST* pFunctions = nullptr;
    CK_C_INITIALIZE_ARGS arguments = {};
    arguments.flags = CKF_OS_LOCKING_OK;
    const CK_RV rv = C_GetFunctionList(&pFunctions);
    return rv == CKR_OK ? pFunctions->C_Initialize(&arguments) : rv;
}

}  // extern "C"
