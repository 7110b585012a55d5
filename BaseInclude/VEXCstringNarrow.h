// The members of CStringA. VEXCstring.h includes this header and declares them.
#pragma once

#include <langinfo.h>

#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <string_view>

#include "VEXCompat.h"
#include "VEXCstring.h"
#include "VEXText.h"
#include "VEXType.h"

// ---- Blocks ----

inline CstringDataA* CStringA::GetData() const {
    VEXStringAssert(m_pchData != nullptr, "m_pchData != NULL", 2971, "CstringDataA* CStringA::GetData() const");
    return reinterpret_cast<CstringDataA*>(m_pchData) - 1;
}

// Unlike CString it writes the fields in another order and gets the header from GetData.
inline void CStringA::Init() {
    m_pchData = _atltmpPchNilA;
    VEXStampField(*_atltmpPchNilA, '\0');
    VEXStampField(GetData()->nRefs, -1L);
    VEXStampField(GetData()->nAllocLength, 0);
    VEXStampField(GetData()->nDataLength, 0);
}

inline BOOL CStringA::AllocBuffer(int nLen) {
    VEXStringAssert(nLen >= 0, "nLen >= 0", 3019, "BOOL CStringA::AllocBuffer(int)");
    VEXStringAssert(nLen <= INT_MAX - 1, "nLen <= INT_MAX - 1", 3020, "BOOL CStringA::AllocBuffer(int)");
    if (nLen == 0) {
        Release();
        Init();
        return TRUE;
    }
    m_pchData = VEXNewBlock<CstringDataA, char>(nLen)->data();
    return TRUE;
}

inline void CStringA::Release() {
    CstringDataA* const pData = GetData();
    if (pData == _atltmpDataNilA) {
        return;
    }
    VEXStringAssert(VEXLoadField(pData->nRefs) != 0, "GetData()->nRefs != 0", 3159, "void CStringA::Release()");
    VEXReleaseBlock(pData);
    Init();
}

inline void CStringA::Release(CstringDataA* pData) {
    if (pData != nullptr && pData != _atltmpDataNilA) {
        VEXReleaseBlock(pData);
    }
}

// Unlike Release it does not assert the count; unlike CString's destructor it points a string that freed its block at
// the empty one.
inline CStringA::~CStringA() {
    CstringDataA* const pData = GetData();
    if (pData != _atltmpDataNilA && VEXReleaseBlock(pData)) {
        Init();
    }
}

inline void CStringA::CopyBeforeWrite() {
    Ops::MakePrivate(*this);
    VEXStringAssert(!Ops::IsShared(*this), "GetData()->nRefs <= 1", 3141, "void CStringA::CopyBeforeWrite()");
}

// Unlike CString it returns at once when the block can be kept; the result is the same.
inline BOOL CStringA::AllocBeforeWrite(int nLen) {
    if (!Ops::IsShared(*this) && GetAllocLength() >= nLen) {
        return TRUE;
    }
    Release();
    AllocBuffer(nLen);
    VEXStringAssert(!Ops::IsShared(*this), "GetData()->nRefs <= 1", 3151, "BOOL CStringA::AllocBeforeWrite(int)");
    return TRUE;
}

inline void CStringA::ReleaseBuffer(int nNewLength) {
    CopyBeforeWrite();
    const int nLength = nNewLength < 0 ? SafeStrlen(m_pchData) : nNewLength;
    VEXStringAssert(nLength <= GetAllocLength(), "nNewLength <= GetData()->nAllocLength", 2115,
                    "void CStringA::ReleaseBuffer(int)");
    Ops::SetLength(*this, nLength);
}

inline void CStringA::AllocCopy(CStringA& dest, int nCopyLen, int nCopyIndex, int nExtraLen) const {
    Ops::AllocCopy(*this, dest, nCopyLen, nCopyIndex, nExtraLen);
}

inline void CStringA::ConcatCopy(int nSrc1Len, LPCSTR lpszSrc1Data, int nSrc2Len, LPCSTR lpszSrc2Data) {
    Ops::ConcatCopy(*this, nSrc1Len, lpszSrc1Data, nSrc2Len, lpszSrc2Data);
}

inline LPSTR CStringA::GetBuffer() {
    CopyBeforeWrite();
    return m_pchData;
}

inline LPSTR CStringA::GetBuffer(int nMinBufLength) {
    return Ops::GetBuffer(*this, nMinBufLength);
}

// ---- Conversion ----

inline int CStringA::char_wcstombsz(char* mbstr, const wchar_t* wcstr, size_t count) {
    // Unlike CString::tchar_mbstowcsz it passes exactly the room.
    const int nResult = WideCharToMultiByte(CP_ACP, 0, wcstr, -1, mbstr, static_cast<int>(count), nullptr, nullptr);
    VEXStringAssert(mbstr == nullptr || nResult <= static_cast<int>(count), "mbstr == NULL || result <= (int)count",
                    3281, "static int CStringA::char_wcstombsz(char*, const wchar_t*, size_t)");
    if (mbstr != nullptr && nResult > 0) {
        mbstr[nResult] = 0;
    }
    return nResult;
}

inline int CStringA::char_mbstowcsz(wchar_t* wcstr, const char* mbstr, size_t count) {
    return CString::tchar_mbstowcsz(wcstr, mbstr, count);
}

// What wcstombs(nullptr, lpsz, 0) returns. In a UTF-8 locale, libc takes some ten times as long to count ASCII.
inline int VEXNarrowLength(LPCWSTR lpsz) {
    const std::wstring_view strText(lpsz);
    unsigned int uAll = 0;
    for (const wchar_t ch : strText) {
        uAll |= static_cast<unsigned int>(ch);
    }
    const BOOL bAscii = uAll < 0x80 && std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    return static_cast<int>(bAscii ? strText.size() : std::wcstombs(nullptr, lpsz, 0));
}

inline CStringA::CStringA(LPCWSTR lpsz) {
    Init();
    if (lpsz == nullptr || *lpsz == L'\0') {
        return;
    }
    const int nLen = VEXNarrowLength(lpsz);
    if (nLen <= 0) {
        Init();
        return;
    }
    AllocBuffer(nLen);
    char_wcstombsz(m_pchData, lpsz, static_cast<size_t>(nLen));
    ReleaseBuffer(-1);
}

// ---- The rest ----

inline CStringA::CStringA(const CStringA& strSrc) {
    Init();
    *this = strSrc;
}

inline CStringA::CStringA(char ch, int nLength) {
    Init();
    if (nLength > 0) {
        AllocBuffer(nLength);
        std::memset(m_pchData, ch, static_cast<size_t>(nLength));
    }
}

inline CStringA::CStringA(LPCSTR lpsz) {
    Init();
    *this = lpsz;
}

inline CStringA::CStringA(LPCSTR lpch, int nLength) {
    Init();
    AssignCopy(nLength, lpch);
}

inline CStringA::CStringA(const unsigned char* lpsz) : CStringA(reinterpret_cast<LPCSTR>(lpsz)) {}

inline CStringA::CStringA(LPCWSTR lpch, int nLength)
    : CStringA(std::wstring(CVEXText<wchar_t>::Of(lpch, nLength)).c_str()) {}

inline CStringA& CStringA::operator=(const CStringA& strSrc) {
    Ops::Share(*this, strSrc, m_pchData);
    return *this;
}

inline CStringA& CStringA::operator=(char ch) {
    AssignCopy(1, &ch);
    return *this;
}

inline CStringA& CStringA::operator=(LPCSTR lpsz) {
    AssignCopy(SafeStrlen(lpsz), lpsz);
    return *this;
}

inline CStringA& CStringA::operator+=(const CStringA& strSrc) {
    ConcatInPlace(strSrc.GetLength(), strSrc.m_pchData);
    return *this;
}

inline CStringA& CStringA::operator+=(char ch) {
    ConcatInPlace(1, &ch);
    return *this;
}

inline CStringA& CStringA::operator+=(LPCSTR lpsz) {
    ConcatInPlace(SafeStrlen(lpsz), lpsz);
    return *this;
}

inline void CStringA::Append(const char* lpch, DWORD dwLength) {
    ConcatInPlace(CVEXText<char>::Length(dwLength), lpch);
}

inline void CStringA::Append(int nValue) {
    *this += std::to_string(nValue).c_str();
}

inline LPCSTR CStringA::CharNext(LPCSTR lpsz) {
    if (lpsz == nullptr || *lpsz == 0) {
        return lpsz;
    }
    std::mbstate_t state = {};
    const size_t nBytes = std::mbrlen(lpsz, std::strlen(lpsz), &state);
    constexpr size_t nIncomplete = static_cast<size_t>(-2);
    return lpsz + (nBytes < nIncomplete ? nBytes : 1);
}

inline CStringA CStringA::Mid(int nFirst, int nCount) const {
    return Ops::Part(*this, CVEXText<char>::Mid(Ops::Of(*this), nFirst, nCount));
}

inline CStringA CStringA::Right(int nCount) const {
    return Ops::Part(*this, CVEXText<char>::Right(Ops::Of(*this), nCount));
}

inline int CStringA::Find(LPCSTR lpszSub, int nStart) const {
    return CVEXText<char>::Find(Ops::Of(*this), CVEXText<char>::Of(lpszSub), nStart);
}

inline void CStringA::Format(LPCSTR lpszFormat, ...) {
    va_list args;
    va_start(args, lpszFormat);
    FormatV(lpszFormat, args);
    va_end(args);
}

inline void CStringA::FormatV(LPCSTR lpszFormat, va_list args) {
    char* pszPrinted = nullptr;
    const int nLength = VEXAllocPrint(&pszPrinted, lpszFormat, args);
    Ops::AssignPrinted(*this, pszPrinted, nLength);
}

inline BSTR CStringA::AllocSysString() const {
    return CString(m_pchData).AllocSysString();
}

inline BOOL CStringA::_LoadString(UINT) {
    Empty();
    return FALSE;
}

inline const CStringA& CStringA::_GetEmptyString() {
    static const CStringA strEmpty;
    return strEmpty;
}
