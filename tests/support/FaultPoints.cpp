#include "FaultPoints.h"

#include <dlfcn.h>
#include <execinfo.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "FileFunctions.h"
#include "VCTK.h"

namespace {

struct State {
    std::atomic<bool> bArmed{false};
    std::atomic<fault_points::Where> where{fault_points::Where::kHere};
    std::atomic<fault_points::How> how{fault_points::How::kOnce};
    std::atomic<long> nPoint{0};
    std::atomic<long> nCalls{0};
    std::atomic<const char*> pszFailed{nullptr};
    std::atomic<bool> bForOpenSsl{false};
    std::atomic<bool> bOpenSslLeaks{false};
};

constinit State g_state;
constinit std::atomic<long> g_nLiveBlocks{0};
constinit std::atomic<void*> g_hLast{nullptr};

thread_local constinit bool t_bArms = false;
thread_local constinit int t_nPaused = 0;

constinit bool* g_pbOpenSsl = nullptr;
constinit long g_nRoom = 0;
constinit std::size_t* g_pnWays = nullptr;
constinit long g_nRoomForWays = 0;

// The return addresses of the calls that led here, the last call first.
class Callers {
public:
    Callers() : m_nCallers(backtrace(m_callers.data(), static_cast<int>(m_callers.size()))) {}
    void* const* begin() const { return m_callers.data(); }
    void* const* end() const { return m_callers.data() + m_nCallers; }

private:
    std::array<void*, 64> m_callers{};
    int m_nCallers;
};

bool IsInLibrary(const void* pCode, const char* pszName) {
    Dl_info info{};
    return pCode != nullptr && dladdr(pCode, &info) != 0 && info.dli_fname != nullptr &&
           std::strstr(info.dli_fname, pszName) != nullptr;
}

// Whether OpenSSL makes this allocation, directly or through the toolkit's allocation functions for it. In an optimised
// build these functions have no stack frame.
bool IsForOpenSsl(const void* pCaller) {
    const fault_points::Pause pause;
    if (!IsInLibrary(pCaller, "libVEXClientTK")) {
        return IsInLibrary(pCaller, "libcrypto");
    }
    const Callers callers;
    void* const* const pFound = std::find(callers.begin(), callers.end(), pCaller);
    return pFound != callers.end() && pFound + 1 != callers.end() && IsInLibrary(pFound[1], "libcrypto");
}

// Whether the allocation is in a function of OpenSSL 3 that leaks when the allocation fails.
bool IsForgetful() {
    const fault_points::Pause pause;
    const Callers callers;
    return std::any_of(callers.begin(), callers.end(), [](void* pCaller) {
        Dl_info info{};
        return dladdr(pCaller, &info) != 0 && info.dli_sname != nullptr &&
               std::strcmp(info.dli_sname, "OSSL_STORE_attach") == 0;  // it leaks the loader that it created
    });
}

std::size_t NumberOfWay() {
    const fault_points::Pause pause;
    std::size_t nWay = 0;
    for (void* const pCaller : Callers()) {
        if (IsInLibrary(pCaller, "libVEXClientTK")) {
            nWay = nWay * 31 + reinterpret_cast<std::size_t>(pCaller);
        }
    }
    return nWay;
}

}  // namespace

namespace fault_points {

static bool IsToFail(const char* pszFunction, const void* pCaller);

void Arm(Where where, long nPoint, How how) {
    t_bArms = true;
    g_state.where = where;
    g_state.how = how;
    g_state.nPoint = nPoint;
    g_state.nCalls = 0;
    g_state.pszFailed = nullptr;
    g_state.bForOpenSsl = false;
    g_state.bOpenSslLeaks = false;
    g_state.bArmed = true;
}

bool IsAllocation(std::string_view function) {
    return function == "malloc" || function == "calloc" || function == "realloc" || function == "operator new";
}

long Disarm() {
    g_state.bArmed = false;
    return g_state.nCalls;
}

const char* Failed() {
    return g_state.pszFailed;
}

bool FailedInOpenSsl() {
    return g_state.bForOpenSsl;
}

bool OpenSslLeaks() {
    return g_state.bOpenSslLeaks;
}

void NoteOpenSsl(bool* pbOpenSsl, long nRoom) {
    g_pbOpenSsl = pbOpenSsl;
    g_nRoom = nRoom;
}

void NoteWays(std::size_t* pnWays, long nRoom) {
    g_pnWays = pnWays;
    g_nRoomForWays = nRoom;
}

bool IsToFail(const char* pszFunction) {
    return IsToFail(pszFunction, nullptr);
}

static bool IsToFail(const char* pszFunction, const void* pCaller) {
    if (!g_state.bArmed || t_nPaused > 0 || t_bArms != (g_state.where == Where::kHere)) {
        return false;
    }
    const long nCall = ++g_state.nCalls;
    if (g_state.nPoint == 0 && nCall <= g_nRoom) {
        g_pbOpenSsl[nCall - 1] = IsForOpenSsl(pCaller);
    }
    if (g_state.nPoint == 0 && nCall <= g_nRoomForWays) {
        g_pnWays[nCall - 1] = NumberOfWay();
    }
    if (nCall == g_state.nPoint) {
        g_state.pszFailed = pszFunction;
        g_state.bForOpenSsl = IsForOpenSsl(pCaller);
        g_state.bOpenSslLeaks = IsForgetful();
        return true;
    }
    return g_state.how == How::kFromThereOn && g_state.nPoint > 0 && nCall > g_state.nPoint &&
           IsAllocation(pszFunction);
}

Pause::Pause() {
    ++t_nPaused;
}

Pause::~Pause() {
    --t_nPaused;
}

long LiveBlocks() {
    return g_nLiveBlocks;
}

void* LastHandle() {
    return g_hLast;
}

}  // namespace fault_points

using fault_points::IsToFail;
using fault_points::Pause;

// ---- Memory ----

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

// libc's own names for its functions.
extern "C" void* __libc_malloc(std::size_t cb);
extern "C" void* __libc_calloc(std::size_t c, std::size_t cb);
extern "C" void* __libc_realloc(void* p, std::size_t cb);
extern "C" void* __libc_memalign(std::size_t cbAlignment, std::size_t cb);
extern "C" void __libc_free(void* p);

namespace {

void* Counted(void* p) {
    g_nLiveBlocks += p != nullptr ? 1 : 0;
    return p;
}

void* Refused() {
    errno = ENOMEM;
    return nullptr;
}

}  // namespace

extern "C" {

void* malloc(std::size_t cb) {
    return IsToFail("malloc", __builtin_return_address(0)) ? Refused() : Counted(__libc_malloc(cb));
}

void* calloc(std::size_t c, std::size_t cb) {
    return IsToFail("calloc", __builtin_return_address(0)) ? Refused() : Counted(__libc_calloc(c, cb));
}

void* realloc(void* p, std::size_t cb) {
    if (cb != 0 && IsToFail("realloc", __builtin_return_address(0))) {
        return Refused();
    }
    void* const pNew = __libc_realloc(p, cb);
    g_nLiveBlocks += p == nullptr && pNew != nullptr ? 1 : 0;
    g_nLiveBlocks -= p != nullptr && pNew == nullptr && cb == 0 ? 1 : 0;
    return pNew;
}

void free(void* p) {
    g_nLiveBlocks -= p != nullptr ? 1 : 0;
    __libc_free(p);
}

void* memalign(std::size_t cbAlignment, std::size_t cb) {
    return Counted(__libc_memalign(cbAlignment, cb));
}

void* aligned_alloc(std::size_t cbAlignment, std::size_t cb) {
    return Counted(__libc_memalign(cbAlignment, cb));
}

int posix_memalign(void** pp, std::size_t cbAlignment, std::size_t cb) {
    *pp = Counted(__libc_memalign(cbAlignment, cb));
    return *pp != nullptr ? 0 : ENOMEM;
}

}  // extern "C"

#else

namespace {

void* New(std::size_t cb) {
    void* const p = IsToFail("operator new") ? nullptr : std::malloc(cb > 0 ? cb : 1);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}

}  // namespace

void* operator new(std::size_t cb) {
    return New(cb);
}
void* operator new[](std::size_t cb) {
    return New(cb);
}
// The sanitizer's operator new would not match the delete below.
void* operator new(std::size_t cb, const std::nothrow_t&) noexcept {
    return IsToFail("operator new") ? nullptr : std::malloc(cb > 0 ? cb : 1);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}

#endif

// ---- The toolkit ----

namespace {

// The result of a failed operation. The bridge does not use its value.
constexpr INT kFailure = -5;

}  // namespace

// The functions of VEX_FILE_FUNCTIONS fail in the same way. GetLastError and GetTickCount cannot fail. A failing
// HeapFree still frees, so that the test itself does not leak. memcpy_x behaves as if the bytes did not fit.
#define VEX_OTHER_FUNCTIONS(X)                                                                                         \
    X(INT, VCTK_SetDigestAlg, kFailure, (HANDLE hObject, const char* pszDigestAlg), (hObject, pszDigestAlg))           \
    X(INT, VCTK_SetChooseSingleCert, kFailure, (HANDLE hObject, int nChoose), (hObject, nChoose))                      \
    X(INT, VCTK_AddFilter, kFailure, (HANDLE hObject, ULONG ulType, const char* pszValue),                             \
      (hObject, ulType, pszValue))                                                                                     \
    X(INT, VCTK_ClearFilter, kFailure, (HANDLE hObject), (hObject))                                                    \
    X(INT, VCTK_P1Sign, kFailure, (HANDLE hObject, const char* pszData, int nInputForm),                               \
      (hObject, pszData, nInputForm))                                                                                  \
    X(INT, VCTK_GetP1SignResult, kFailure, (HANDLE hObject, char* pszBuffer, int* pnLength),                           \
      (hObject, pszBuffer, pnLength))                                                                                  \
    X(INT, VCTK_P7Sign, kFailure,                                                                                      \
      (HANDLE hObject, const char* pszData, int nInputForm, int nDetached, int nIncludeCert),                          \
      (hObject, pszData, nInputForm, nDetached, nIncludeCert))                                                         \
    X(INT, VCTK_GetP7SignResult, kFailure, (HANDLE hObject, char* pszBuffer, int* pnLength),                           \
      (hObject, pszBuffer, pnLength))                                                                                  \
    X(INT, VCTK_Finalize, kFailure, (HANDLE hObject), (hObject))                                                       \
    X(INT, VCTK_GetSignCert, kFailure, (HANDLE hObject, char* pszBuffer, int* pnLength),                               \
      (hObject, pszBuffer, pnLength))                                                                                  \
    X(INT, VCTK_GetLastError, kFailure, (HANDLE hObject), (hObject))                                                   \
    X(INT, VCTK_GetLastErrorMessage, kFailure, (HANDLE hObject, char* pszBuffer, int* pnLength),                       \
      (hObject, pszBuffer, pnLength))                                                                                  \
    X(INT, VCTK_CallQueueEnable, kFailure, (HANDLE hObject, int nQueue, int nEnable), (hObject, nQueue, nEnable))      \
    X(INT, VCTK_GetCertList, kFailure,                                                                                 \
      (HANDLE hObject, const char* pszRecordSeparator, const char* pszFieldSeparator, char* pszBuffer, int* pnLength), \
      (hObject, pszRecordSeparator, pszFieldSeparator, pszBuffer, pnLength))                                           \
    X(HANDLE, GetProcessHeap, nullptr, (), ())                                                                         \
    X(LPVOID, HeapAlloc, nullptr, (HANDLE hHeap, DWORD dwFlags, DWORD dwBytes), (hHeap, dwFlags, dwBytes))             \
    X(LPVOID, HeapReAlloc, nullptr, (HANDLE hHeap, DWORD dwFlags, LPVOID lpMem, DWORD dwBytes),                        \
      (hHeap, dwFlags, lpMem, dwBytes))                                                                                \
    X(DWORD, HeapSize, ~DWORD{0}, (HANDLE hHeap, DWORD dwFlags, LPCVOID lpMem), (hHeap, dwFlags, lpMem))               \
    X(BOOL, HeapFree, (s_pHeapFree(hHeap, dwFlags, lpMem), FALSE), (HANDLE hHeap, DWORD dwFlags, LPVOID lpMem),        \
      (hHeap, dwFlags, lpMem))                                                                                         \
    X(int, MultiByteToWideChar, 0,                                                                                     \
      (UINT uCodePage, DWORD dwFlags, LPCSTR lpMultiByteStr, int cbMultiByte, LPWSTR lpWideCharStr, int cchWideChar),  \
      (uCodePage, dwFlags, lpMultiByteStr, cbMultiByte, lpWideCharStr, cchWideChar))                                   \
    X(int, WideCharToMultiByte, 0,                                                                                     \
      (UINT uCodePage, DWORD dwFlags, LPCWSTR lpWideCharStr, int cchWideChar, LPSTR lpMultiByteStr, int cbMultiByte,   \
       LPCSTR lpDefaultChar, BOOL* lpUsedDefaultChar),                                                                 \
      (uCodePage, dwFlags, lpWideCharStr, cchWideChar, lpMultiByteStr, cbMultiByte, lpDefaultChar, lpUsedDefaultChar)) \
    X(int, lstrlenW, 0, (LPCWSTR lpString), (lpString))                                                                \
    X(int, wcscpy_s, ERANGE, (LPWSTR pszDest, size_t cchDest, LPCWSTR pszSrc), (pszDest, cchDest, pszSrc))             \
    X(int, memcpy_x, (std::memset(pDest, 0, cbDest), ERANGE),                                                          \
      (void* pDest, size_t cbDest, const void* pSrc, size_t cbCount), (pDest, cbDest, pSrc, cbCount))                  \
    X(BOOL, WriteFile, FALSE, (HANDLE hFile, LPCVOID lpBuffer, DWORD cb, DWORD * pcbWritten, LPVOID lpOverlapped),     \
      (hFile, lpBuffer, cb, pcbWritten, lpOverlapped))                                                                 \
    X(UINT, GetPrivateProfileIntA, static_cast<UINT>(nDefault),                                                        \
      (LPCSTR lpAppName, LPCSTR lpKeyName, INT nDefault, LPCSTR lpFileName),                                           \
      (lpAppName, lpKeyName, nDefault, lpFileName))                                                                    \
    X(BOOL, PathRemoveFileSpecW, FALSE, (LPWSTR pszPath), (pszPath))

#define VEX_CAN_FAIL(Result, Name, Failure, Parameters, Arguments) \
    VEX_NEXT(Name);                                                \
    Result Name Parameters {                                       \
        return IsToFail(#Name) ? Failure : s_p##Name Arguments;    \
    }
VEX_FILE_FUNCTIONS(VEX_CAN_FAIL)
VEX_OTHER_FUNCTIONS(VEX_CAN_FAIL)
#undef VEX_CAN_FAIL

VEX_NEXT(VCTK_Initialize);

HANDLE VCTK_Initialize(const char* pszAuxParam) {
    const HANDLE hObject = IsToFail("VCTK_Initialize") ? nullptr : s_pVCTK_Initialize(pszAuxParam);
    g_hLast = hObject;
    return hObject;
}
