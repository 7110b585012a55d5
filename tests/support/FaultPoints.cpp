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

#include "VCTK.h"
#include "VEXCompat.h"

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

// The return addresses of the calls that led here, the last call first.
class Callers {
public:
    Callers() : m_nCallers(backtrace(m_callers.data(), static_cast<int>(m_callers.size()))) {}
    void* const* begin() const { return m_callers.data(); }
    void* const* end() const { return m_callers.data() + m_nCallers; }

private:
    std::array<void*, 16> m_callers{};
    int m_nCallers;
};

bool IsInLibrary(const void* pCode, const char* pszName) {
    Dl_info info{};
    return pCode != nullptr && dladdr(pCode, &info) != 0 && info.dli_fname != nullptr &&
           std::strstr(info.dli_fname, pszName) != nullptr;
}

// Whether OpenSSL asks for the memory: itself, or through the toolkit's functions for it, which leave no frame of their
// own where they are optimised. Of the call at hand.
bool IsForOpenSsl(const void* pCaller) {
    const fault_points::Pause pause;
    if (!IsInLibrary(pCaller, "libVEXClientTK")) {
        return IsInLibrary(pCaller, "libcrypto");
    }
    const Callers callers;
    void* const* const pFound = std::find(callers.begin(), callers.end(), pCaller);
    return pFound != callers.end() && pFound + 1 != callers.end() && IsInLibrary(pFound[1], "libcrypto");
}

// Whether the allocation at hand is made by a function of OpenSSL 3 that forgets what it has when this one fails.
bool IsForgetful() {
    const fault_points::Pause pause;
    const Callers callers;
    return std::any_of(callers.begin(), callers.end(), [](void* pCaller) {
        Dl_info info{};
        return dladdr(pCaller, &info) != 0 && info.dli_sname != nullptr &&
               std::strcmp(info.dli_sname, "OSSL_STORE_attach") == 0;  // the loader that it has made
    });
}

bool IsAllocation(std::string_view function) {
    return function == "malloc" || function == "calloc" || function == "realloc" || function == "operator new";
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

// What libc calls its own.
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
// A sanitizer's own would not go with the delete below.
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

template <typename Function>
Function* Next(Function*, const char* pszName) {
    const Pause pause;
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, pszName));
}

// What the operations answer with when they fail; the number is of no account to the bridge.
constexpr INT kFailure = -5;

}  // namespace

// Before main, so that looking them up is no point of its own.
#define VEX_NEXT(Name) auto* const s_p##Name = Next(Name, #Name);
VEX_NEXT(VCTK_Initialize)
VEX_NEXT(VCTK_SetDigestAlg)
VEX_NEXT(VCTK_SetChooseSingleCert)
VEX_NEXT(VCTK_AddFilter)
VEX_NEXT(VCTK_ClearFilter)
VEX_NEXT(VCTK_P1Sign)
VEX_NEXT(VCTK_GetP1SignResult)
VEX_NEXT(VCTK_P7Sign)
VEX_NEXT(VCTK_GetP7SignResult)
VEX_NEXT(VCTK_Finalize)
VEX_NEXT(VCTK_GetSignCert)
VEX_NEXT(VCTK_GetLastError)
VEX_NEXT(VCTK_GetLastErrorMessage)
VEX_NEXT(VCTK_CallQueueEnable)
VEX_NEXT(VCTK_GetCertList)
VEX_NEXT(GetProcessHeap)
VEX_NEXT(HeapAlloc)
VEX_NEXT(HeapReAlloc)
VEX_NEXT(HeapSize)
VEX_NEXT(HeapFree)
VEX_NEXT(MultiByteToWideChar)
VEX_NEXT(WideCharToMultiByte)
VEX_NEXT(lstrlenW)
VEX_NEXT(wcscpy_s)
VEX_NEXT(memcpy_x)
VEX_NEXT(VexCreateFile)
VEX_NEXT(CloseHandle)
VEX_NEXT(ReadFile)
VEX_NEXT(WriteFile)
VEX_NEXT(SetFilePointerEx)
VEX_NEXT(GetFileSizeEx)
VEX_NEXT(FlushFileBuffers)
VEX_NEXT(SetEndOfFile)
VEX_NEXT(GetPrivateProfileIntA)
VEX_NEXT(PathIsDirectoryW)
VEX_NEXT(PathRemoveFileSpecW)
VEX_NEXT(SHCreateDirectoryExW)
#undef VEX_NEXT

HANDLE VCTK_Initialize(const char* pszAuxParam) {
    const HANDLE hObject = IsToFail("VCTK_Initialize") ? nullptr : s_pVCTK_Initialize(pszAuxParam);
    g_hLast = hObject;
    return hObject;
}

INT VCTK_SetDigestAlg(HANDLE hObject, const char* pszDigestAlg) {
    return IsToFail("VCTK_SetDigestAlg") ? kFailure : s_pVCTK_SetDigestAlg(hObject, pszDigestAlg);
}

INT VCTK_SetChooseSingleCert(HANDLE hObject, int nChoose) {
    return IsToFail("VCTK_SetChooseSingleCert") ? kFailure : s_pVCTK_SetChooseSingleCert(hObject, nChoose);
}

INT VCTK_AddFilter(HANDLE hObject, ULONG ulType, const char* pszValue) {
    return IsToFail("VCTK_AddFilter") ? kFailure : s_pVCTK_AddFilter(hObject, ulType, pszValue);
}

INT VCTK_ClearFilter(HANDLE hObject) {
    return IsToFail("VCTK_ClearFilter") ? kFailure : s_pVCTK_ClearFilter(hObject);
}

INT VCTK_P1Sign(HANDLE hObject, const char* pszData, int nInputForm) {
    return IsToFail("VCTK_P1Sign") ? kFailure : s_pVCTK_P1Sign(hObject, pszData, nInputForm);
}

INT VCTK_GetP1SignResult(HANDLE hObject, char* pszBuffer, int* pnLength) {
    return IsToFail("VCTK_GetP1SignResult") ? kFailure : s_pVCTK_GetP1SignResult(hObject, pszBuffer, pnLength);
}

INT VCTK_P7Sign(HANDLE hObject, const char* pszData, int nInputForm, int nDetached, int nIncludeCert) {
    return IsToFail("VCTK_P7Sign") ? kFailure : s_pVCTK_P7Sign(hObject, pszData, nInputForm, nDetached, nIncludeCert);
}

INT VCTK_GetP7SignResult(HANDLE hObject, char* pszBuffer, int* pnLength) {
    return IsToFail("VCTK_GetP7SignResult") ? kFailure : s_pVCTK_GetP7SignResult(hObject, pszBuffer, pnLength);
}

INT VCTK_Finalize(HANDLE hObject) {
    return IsToFail("VCTK_Finalize") ? kFailure : s_pVCTK_Finalize(hObject);
}

INT VCTK_GetSignCert(HANDLE hObject, char* pszBuffer, int* pnLength) {
    return IsToFail("VCTK_GetSignCert") ? kFailure : s_pVCTK_GetSignCert(hObject, pszBuffer, pnLength);
}

INT VCTK_GetLastError(HANDLE hObject) {
    return IsToFail("VCTK_GetLastError") ? kFailure : s_pVCTK_GetLastError(hObject);
}

INT VCTK_GetLastErrorMessage(HANDLE hObject, char* pszBuffer, int* pnLength) {
    return IsToFail("VCTK_GetLastErrorMessage") ? kFailure : s_pVCTK_GetLastErrorMessage(hObject, pszBuffer, pnLength);
}

INT VCTK_CallQueueEnable(HANDLE hObject, int nQueue, int nEnable) {
    return IsToFail("VCTK_CallQueueEnable") ? kFailure : s_pVCTK_CallQueueEnable(hObject, nQueue, nEnable);
}

INT VCTK_GetCertList(HANDLE hObject, const char* pszRecordSeparator, const char* pszFieldSeparator, char* pszBuffer,
                     int* pnLength) {
    return IsToFail("VCTK_GetCertList")
               ? kFailure
               : s_pVCTK_GetCertList(hObject, pszRecordSeparator, pszFieldSeparator, pszBuffer, pnLength);
}

// ---- The compatibility functions ----
//
// All but GetLastError and GetTickCount, which have no failure. What gives something back does so even when it says
// that it has failed: a leak would be the test's own.

HANDLE GetProcessHeap() {
    return IsToFail("GetProcessHeap") ? nullptr : s_pGetProcessHeap();
}

LPVOID HeapAlloc(HANDLE hHeap, DWORD dwFlags, DWORD dwBytes) {
    return IsToFail("HeapAlloc") ? nullptr : s_pHeapAlloc(hHeap, dwFlags, dwBytes);
}

LPVOID HeapReAlloc(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem, DWORD dwBytes) {
    return IsToFail("HeapReAlloc") ? nullptr : s_pHeapReAlloc(hHeap, dwFlags, lpMem, dwBytes);
}

DWORD HeapSize(HANDLE hHeap, DWORD dwFlags, LPCVOID lpMem) {
    return IsToFail("HeapSize") ? ~DWORD{0} : s_pHeapSize(hHeap, dwFlags, lpMem);
}

BOOL HeapFree(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem) {
    const bool bFails = IsToFail("HeapFree");
    const BOOL bFreed = s_pHeapFree(hHeap, dwFlags, lpMem);
    return bFails ? FALSE : bFreed;
}

int MultiByteToWideChar(UINT uCodePage, DWORD dwFlags, LPCSTR lpMultiByteStr, int cbMultiByte, LPWSTR lpWideCharStr,
                        int cchWideChar) {
    return IsToFail("MultiByteToWideChar")
               ? 0
               : s_pMultiByteToWideChar(uCodePage, dwFlags, lpMultiByteStr, cbMultiByte, lpWideCharStr, cchWideChar);
}

int WideCharToMultiByte(UINT uCodePage, DWORD dwFlags, LPCWSTR lpWideCharStr, int cchWideChar, LPSTR lpMultiByteStr,
                        int cbMultiByte, LPCSTR lpDefaultChar, BOOL* lpUsedDefaultChar) {
    return IsToFail("WideCharToMultiByte")
               ? 0
               : s_pWideCharToMultiByte(uCodePage, dwFlags, lpWideCharStr, cchWideChar, lpMultiByteStr, cbMultiByte,
                                        lpDefaultChar, lpUsedDefaultChar);
}

int lstrlenW(LPCWSTR lpString) {
    return IsToFail("lstrlenW") ? 0 : s_plstrlenW(lpString);
}

int wcscpy_s(LPWSTR pszDest, size_t cchDest, LPCWSTR pszSrc) {
    return IsToFail("wcscpy_s") ? ERANGE : s_pwcscpy_s(pszDest, cchDest, pszSrc);
}

int memcpy_x(void* pDest, size_t cbDest, const void* pSrc, size_t cbCount) {
    if (IsToFail("memcpy_x")) {
        std::memset(pDest, 0, cbDest);  // as when the bytes do not fit
        return ERANGE;
    }
    return s_pmemcpy_x(pDest, cbDest, pSrc, cbCount);
}

HANDLE VexCreateFile(LPCSTR lpFileName) {
    return s_pVexCreateFile(IsToFail("VexCreateFile") ? nullptr : lpFileName);
}

BOOL CloseHandle(HANDLE hObject) {
    const bool bFails = IsToFail("CloseHandle");
    const BOOL bClosed = s_pCloseHandle(hObject);
    return bFails ? FALSE : bClosed;
}

BOOL ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD cb, DWORD* pcbRead, LPVOID lpOverlapped) {
    return IsToFail("ReadFile") ? FALSE : s_pReadFile(hFile, lpBuffer, cb, pcbRead, lpOverlapped);
}

BOOL WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD cb, DWORD* pcbWritten, LPVOID lpOverlapped) {
    return IsToFail("WriteFile") ? FALSE : s_pWriteFile(hFile, lpBuffer, cb, pcbWritten, lpOverlapped);
}

BOOL SetFilePointerEx(HANDLE hFile, LARGE_INTEGER liDistance, LONGLONG* pPosition, DWORD dwMoveMethod) {
    return IsToFail("SetFilePointerEx") ? FALSE : s_pSetFilePointerEx(hFile, liDistance, pPosition, dwMoveMethod);
}

BOOL GetFileSizeEx(HANDLE hFile, LONGLONG* lpFileSize) {
    return IsToFail("GetFileSizeEx") ? FALSE : s_pGetFileSizeEx(hFile, lpFileSize);
}

BOOL FlushFileBuffers(HANDLE hFile) {
    return IsToFail("FlushFileBuffers") ? FALSE : s_pFlushFileBuffers(hFile);
}

BOOL SetEndOfFile(HANDLE hFile) {
    return IsToFail("SetEndOfFile") ? FALSE : s_pSetEndOfFile(hFile);
}

UINT GetPrivateProfileIntA(LPCSTR lpAppName, LPCSTR lpKeyName, INT nDefault, LPCSTR lpFileName) {
    return IsToFail("GetPrivateProfileIntA") ? static_cast<UINT>(nDefault)
                                             : s_pGetPrivateProfileIntA(lpAppName, lpKeyName, nDefault, lpFileName);
}

BOOL PathIsDirectoryW(LPCWSTR pszPath) {
    return IsToFail("PathIsDirectoryW") ? FALSE : s_pPathIsDirectoryW(pszPath);
}

BOOL PathRemoveFileSpecW(LPWSTR pszPath) {
    return IsToFail("PathRemoveFileSpecW") ? FALSE : s_pPathRemoveFileSpecW(pszPath);
}

int SHCreateDirectoryExW(HANDLE hwnd, LPCWSTR pszPath, LPCVOID psa) {
    return IsToFail("SHCreateDirectoryExW") ? static_cast<int>(ERROR_ACCESS_DENIED)
                                            : s_pSHCreateDirectoryExW(hwnd, pszPath, psa);
}
