#include "ToolkitDouble.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <map>
#include <memory>
#include <string>

namespace {

using Block = std::unique_ptr<BYTE[]>;

struct Entry {
    Block pBytes;
    DWORD dwSize;
};

std::map<const void*, Entry>& Blocks() {
    static std::map<const void*, Entry> s_blocks;
    return s_blocks;
}

int s_nHeap;

void Record(char chCall, HANDLE hHeap, DWORD dwFlags) {
    Double().heapCalls.push_back({chCall, dwFlags, hHeap == &s_nHeap});
}

bool MayAllocate(DWORD dwBytes) {
    if (Double().nAllocationsLeft == 0 || dwBytes > (DWORD{1} << 32)) {
        return false;
    }
    if (Double().nAllocationsLeft > 0) {
        --Double().nAllocationsLeft;
    }
    return true;
}

LPVOID NewBlock(DWORD dwBytes) {
    const DWORD dwMargin = Double().dwMargin;
    Block pBytes = std::make_unique<BYTE[]>(dwMargin + dwBytes + dwMargin);
    void* const pAddress = pBytes.get() + dwMargin;
    Blocks()[pAddress] = {std::move(pBytes), dwBytes};
    return pAddress;
}

// Returns a converted text as a toolkit does for a terminated source.
template <typename TChar>
int HandOut(std::basic_string<TChar> text, TChar* pOut, int nRoom) {
    const ToolkitDouble& toolkit = Double();
    if (toolkit.nForcedResult != 0) {
        return toolkit.nForcedResult;
    }
    if (toolkit.bWritesHalf) {
        text.resize(text.size() / 2);
    }
    const std::size_t nRoomed = static_cast<std::size_t>(std::max(nRoom, 0));
    const bool bTerminated = toolkit.bCountsTerminator && text.size() < nRoomed;
    const std::size_t nWritten = std::min(text.size() + (bTerminated ? 1 : 0), nRoomed);
    std::copy_n(text.c_str(), nWritten, pOut);
    return static_cast<int>(nWritten);
}

void RecordConversion(UINT uCodePage, DWORD dwFlags, int nSourceLength, int nRoom, bool bDefaultsGiven) {
    ToolkitDouble& toolkit = Double();
    toolkit.uCodePage = uCodePage;
    toolkit.dwFlags = dwFlags;
    toolkit.nSourceLength = nSourceLength;
    toolkit.nRoom = nRoom;
    toolkit.bDefaultsGiven = bDefaultsGiven;
}

}  // namespace

ToolkitDouble& Double() {
    static ToolkitDouble s_double;
    return s_double;
}

void ResetDouble() {
    Double().FreeAll();
    Double() = ToolkitDouble();
}

std::size_t ToolkitDouble::LiveBlocks() const {
    return Blocks().size();
}

void ToolkitDouble::FreeAll() {
    Blocks().clear();
}

extern "C" {

HANDLE GetProcessHeap() {
    return &s_nHeap;
}

LPVOID HeapAlloc(HANDLE hHeap, DWORD dwFlags, DWORD dwBytes) {
    Record('A', hHeap, dwFlags);
    return MayAllocate(dwBytes) ? NewBlock(dwBytes) : nullptr;
}

// Always moves, so that a pointer into the old block points to freed memory.
LPVOID HeapReAlloc(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem, DWORD dwBytes) {
    Record('R', hHeap, dwFlags);
    if (!MayAllocate(dwBytes)) {
        return nullptr;
    }
    const LPVOID pNew = NewBlock(dwBytes);
    std::memcpy(pNew, lpMem, std::min(dwBytes, Blocks().at(lpMem).dwSize));
    Blocks().erase(lpMem);
    return pNew;
}

DWORD HeapSize(HANDLE hHeap, DWORD dwFlags, LPCVOID lpMem) {
    Record('S', hHeap, dwFlags);
    return Blocks().at(lpMem).dwSize;
}

BOOL HeapFree(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem) {
    Record('F', hHeap, dwFlags);
    return Blocks().erase(lpMem) == 1;
}

int MultiByteToWideChar(UINT uCodePage, DWORD dwFlags, LPCSTR lpMultiByteStr, int cbMultiByte, LPWSTR lpWideCharStr,
                        int cchWideChar) {
    RecordConversion(uCodePage, dwFlags, cbMultiByte, cchWideChar, false);
    std::wstring text(std::strlen(lpMultiByteStr), L'\0');
    text.resize(std::mbstowcs(text.data(), lpMultiByteStr, text.size()));
    return HandOut(text, lpWideCharStr, cchWideChar);
}

int WideCharToMultiByte(UINT uCodePage, DWORD dwFlags, LPCWSTR lpWideCharStr, int cchWideChar, LPSTR lpMultiByteStr,
                        int cbMultiByte, LPCSTR lpDefaultChar, BOOL* lpUsedDefaultChar) {
    RecordConversion(uCodePage, dwFlags, cchWideChar, cbMultiByte,
                     lpDefaultChar != nullptr || lpUsedDefaultChar != nullptr);
    std::string text(std::wcslen(lpWideCharStr) * 4, '\0');
    text.resize(std::wcstombs(text.data(), lpWideCharStr, text.size()));
    return HandOut(text, lpMultiByteStr, cbMultiByte);
}

int lstrlenW(LPCWSTR lpString) {
    if (Double().nForcedLength != 0) {
        return Double().nForcedLength;
    }
    return lpString == nullptr ? 0 : static_cast<int>(std::wcslen(lpString));
}

// As strict as a toolkit may be: aborts when the bytes do not fit or overlap.
int memcpy_x(void* pDest, size_t cbDest, const void* pSrc, size_t cbCount) {
    const auto nDest = reinterpret_cast<std::uintptr_t>(pDest);
    const auto nSource = reinterpret_cast<std::uintptr_t>(pSrc);
    if (cbCount > cbDest || (nDest > nSource ? nDest - nSource : nSource - nDest) < cbCount) {
        std::abort();
    }
    std::memcpy(pDest, pSrc, cbCount);
    return 0;
}

}  // extern "C"
