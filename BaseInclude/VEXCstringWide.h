// The members of CString. VEXCstring.h includes this header and declares them.
#pragma once

#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cwchar>
#include <string>

#include "VEXCompat.h"
#include "VEXCstring.h"
#include "VEXText.h"
#include "VEXType.h"

// ---- Blocks ----

inline CStringData* CString::GetData() const {
    VEXStringAssert(m_pchData != nullptr, "m_pchData != NULL", 1338, "CStringData* CString::GetData() const");
    return reinterpret_cast<CStringData*>(m_pchData) - 1;
}

inline void CString::StampEmptyBlock() {
    VEXStampField(_atltmpDataNil->nRefs, -1L);
    VEXStampField(_atltmpDataNil->nDataLength, 0);
    VEXStampField(_atltmpDataNil->nAllocLength, 0);
    VEXStampField(*_atltmpPchNil, TCHAR(0));
}

inline void CString::Init() {
    m_pchData = _atltmpPchNil;
    StampEmptyBlock();
}

inline BOOL CString::AllocBuffer(int nLen) {
    VEXStringAssert(nLen >= 0, "nLen >= 0", 1385, "BOOL CString::AllocBuffer(int)");
    VEXStringAssert(nLen <= INT_MAX - 1, "nLen <= INT_MAX - 1", 1386, "BOOL CString::AllocBuffer(int)");
    if (nLen == 0) {
        Release();
        Init();
        return TRUE;
    }
    m_pchData = VEXNewBlock<CStringData, TCHAR>(nLen)->data();
    return TRUE;
}

inline void CString::Release() {
    CStringData* const pData = GetData();
    if (pData == _atltmpDataNil) {
        return;
    }
    VEXStringAssert(VEXLoadField(pData->nRefs) != 0, "GetData()->nRefs != 0", 1526, "void CString::Release()");
    VEXReleaseBlock(pData);
    Init();
}

inline void CString::Release(CStringData* pData) {
    if (pData != nullptr && pData != _atltmpDataNil) {
        VEXReleaseBlock(pData);
    }
}

// Unlike Release it does not assert the count, and unlike CStringA's destructor it does not change m_pchData.
inline CString::~CString() {
    CStringData* const pData = GetData();
    if (pData != _atltmpDataNil && VEXReleaseBlock(pData)) {
        StampEmptyBlock();
    }
}

inline void CString::CopyBeforeWrite() {
    Ops::MakePrivate(*this);
    VEXStringAssert(!Ops::IsShared(*this), "GetData()->nRefs <= 1", 1508, "void CString::CopyBeforeWrite()");
}

inline BOOL CString::AllocBeforeWrite(int nLen) {
    if (Ops::IsShared(*this) || nLen > GetAllocLength()) {
        Release();
        AllocBuffer(nLen);
    }
    VEXStringAssert(!Ops::IsShared(*this), "GetData()->nRefs <= 1", 1518, "BOOL CString::AllocBeforeWrite(int)");
    return TRUE;
}

inline void CString::ReleaseBuffer(int nNewLength) {
    CopyBeforeWrite();
    const int nLength = nNewLength < 0 ? lstrlenW(m_pchData) : nNewLength;
    VEXStringAssert(nLength <= GetAllocLength(), "nNewLength <= GetData()->nAllocLength", 347,
                    "void CString::ReleaseBuffer(int)");
    Ops::SetLength(*this, nLength);
}

inline void CString::AllocCopy(CString& dest, int nCopyLen, int nCopyIndex, int nExtraLen) const {
    Ops::AllocCopy(*this, dest, nCopyLen, nCopyIndex, nExtraLen);
}

inline void CString::ConcatCopy(int nSrc1Len, LPCTSTR lpszSrc1Data, int nSrc2Len, LPCTSTR lpszSrc2Data) {
    Ops::ConcatCopy(*this, nSrc1Len, lpszSrc1Data, nSrc2Len, lpszSrc2Data);
}

inline LPTSTR CString::GetBuffer() {
    CopyBeforeWrite();
    return m_pchData;
}

inline LPTSTR CString::GetBuffer(int nMinBufLength) {
    return Ops::GetBuffer(*this, nMinBufLength);
}

// ---- Conversion ----

inline int CString::tchar_mbstowcsz(wchar_t* wcstr, const char* mbstr, size_t count) {
    // Unlike CStringA::char_wcstombsz it passes one more than the room.
    const int nResult = MultiByteToWideChar(CP_ACP, 0, mbstr, -1, wcstr, static_cast<int>(count + 1));
    VEXStringAssert(wcstr == nullptr || nResult <= static_cast<int>(count), "wcstr == NULL || result <= (int)count",
                    1664, "static int CString::tchar_mbstowcsz(wchar_t*, const char*, size_t)");
    if (wcstr != nullptr && nResult > 0) {
        // A toolkit that counts the terminator reports count for a full buffer; the buffer ends there.
        const size_t nEnd = static_cast<size_t>(nResult);
        wcstr[nEnd < count ? nEnd : count - 1] = 0;
    }
    return nResult;
}

inline int CString::tchar_wcstombsz(char* mbstr, const wchar_t* wcstr, size_t count) {
    return CStringA::char_wcstombsz(mbstr, wcstr, count);
}

inline CString::CString(LPCSTR lpsz) {
    Init();
    if (lpsz == nullptr || *lpsz == 0) {
        return;
    }
    const int nLen = static_cast<int>(std::mbstowcs(nullptr, lpsz, 0));
    if (nLen <= 0) {
        return;
    }
    AllocBuffer(nLen);
    tchar_mbstowcsz(m_pchData, lpsz, static_cast<size_t>(nLen) + 1);
    ReleaseBuffer(-1);
}

// ---- The rest ----

inline CString::CString(const CString& strSrc) {
    Init();
    *this = strSrc;
}

inline CString::CString(TCHAR ch, int nLength) {
    Init();
    if (nLength > 0) {
        AllocBuffer(nLength);
        std::wmemset(m_pchData, ch, static_cast<size_t>(nLength));
    }
}

inline CString::CString(LPCTSTR lpsz) {
    Init();
    *this = lpsz;
}

inline CString::CString(LPCTSTR lpch, int nLength) {
    Init();
    AssignCopy(nLength, lpch);
}

inline CString::CString(const unsigned char* lpsz) : CString(reinterpret_cast<LPCSTR>(lpsz)) {}

inline CString::CString(LPCSTR lpch, int nLength) : CString(std::string(CVEXText<char>::Of(lpch, nLength)).c_str()) {}

inline CString& CString::operator=(const CString& strSrc) {
    Ops::Share(*this, strSrc, m_pchData);
    return *this;
}

inline CString& CString::operator=(LPCTSTR lpsz) {
    AssignCopy(SafeStrlen(lpsz), lpsz);
    return *this;
}

inline CString& CString::operator=(TCHAR ch) {
    AssignCopy(1, &ch);
    return *this;
}

inline CString& CString::operator=(char ch) {
    return *this = CString(&ch, 1);
}

inline CString& CString::operator+=(char ch) {
    return *this += CString(&ch, 1);
}

inline CString& CString::operator+=(const CString& strSrc) {
    ConcatInPlace(strSrc.GetLength(), strSrc.m_pchData);
    return *this;
}

inline CString& CString::operator+=(TCHAR ch) {
    ConcatInPlace(1, &ch);
    return *this;
}

inline CString& CString::operator+=(LPCTSTR lpsz) {
    ConcatInPlace(SafeStrlen(lpsz), lpsz);
    return *this;
}

inline void CString::Append(LPCTSTR lpch, DWORD dwLength) {
    ConcatInPlace(CVEXText<TCHAR>::Length(dwLength), lpch);
}

inline void CString::Append(const char* lpch, DWORD dwLength) {
    *this += CString(lpch, CVEXText<char>::Length(dwLength));
}

inline void CString::Append(int nValue) {
    *this += std::to_wstring(nValue).c_str();
}

inline CString CString::Mid(int nFirst, int nCount) const {
    return Ops::Part(*this, CVEXText<TCHAR>::Mid(Ops::Of(*this), nFirst, nCount));
}

inline CString CString::Right(int nCount) const {
    return Ops::Part(*this, CVEXText<TCHAR>::Right(Ops::Of(*this), nCount));
}

inline int CString::Find(LPCTSTR lpszSub, int nStart) const {
    return CVEXText<TCHAR>::Find(Ops::Of(*this), CVEXText<TCHAR>::Of(lpszSub), nStart);
}

inline void CString::Format(LPCTSTR lpszFormat, ...) {
    va_list args;
    va_start(args, lpszFormat);
    FormatV(lpszFormat, args);
    va_end(args);
}

inline void CString::FormatV(LPCTSTR lpszFormat, va_list args) {
    TCHAR* pszPrinted = nullptr;
    const int nLength = VEXAllocPrint(&pszPrinted, lpszFormat, args);
    Ops::AssignPrinted(*this, pszPrinted, nLength);
}

inline BSTR CString::AllocSysString() const {
    const DWORD cbText = (static_cast<DWORD>(GetLength()) + 1) * sizeof(TCHAR);
    const BSTR pszCopy = static_cast<BSTR>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, cbText));
    if (pszCopy != nullptr) {
        memcpy_x(pszCopy, cbText, m_pchData, cbText);
    }
    return pszCopy;
}

inline BOOL CString::_LoadString(UINT) {
    Empty();
    return FALSE;
}

inline const CString& CString::_GetEmptyString() {
    static const CString strEmpty;
    return strEmpty;
}
