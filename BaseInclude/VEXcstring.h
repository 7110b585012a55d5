// The counted, copy-on-write strings: CString (wide) and CStringA (narrow).
#pragma once

#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "VEXAssert.h"
#include "VEXCompat.h"
#include "VEXStringBlock.h"
#include "VEXType.h"

// The empty block is an array of int, hence may_alias.
struct __attribute__((__may_alias__)) CStringData {
    long nRefs;
    int nDataLength;
    int nAllocLength;
    lockid_t cslock;

    TCHAR* data() { return reinterpret_cast<TCHAR*>(this + 1); }
};

struct __attribute__((__may_alias__)) CstringDataA {
    long nRefs;
    int nDataLength;
    int nAllocLength;
    lockid_t cslock;

    char* data() { return reinterpret_cast<char*>(this + 1); }
};

alignas(CStringData) inline int rgInitData[VEX_EMPTY_BLOCK_INTS] = {-1};
inline CStringData* const _atltmpDataNil = reinterpret_cast<CStringData*>(rgInitData);
inline TCHAR* const _atltmpPchNil = reinterpret_cast<TCHAR*>(reinterpret_cast<CStringData*>(rgInitData) + 1);

alignas(CstringDataA) inline int rgInitDataA[VEX_EMPTY_BLOCK_INTS] = {-1};
inline CstringDataA* const _atltmpDataNilA = reinterpret_cast<CstringDataA*>(rgInitDataA);
inline char* const _atltmpPchNilA = reinterpret_cast<char*>(reinterpret_cast<CstringDataA*>(rgInitDataA) + 1);

class CString {
public:
    CString() { Init(); }
    CString(const CString& strSrc) {
        Init();
        *this = strSrc;
    }
    CString(LPCTSTR lpsz) {
        Init();
        *this = lpsz;
    }
    CString(LPCSTR lpsz) {
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
    ~CString() {
        CStringData* const pData = GetData();
        if (pData != _atltmpDataNil && VEXReleaseBlock(pData)) {
            StampEmptyBlock();
        }
    }

    int GetLength() const { return VEXLoadField(GetData()->nDataLength); }
    BOOL IsEmpty() const { return GetLength() == 0; }

    CString& operator=(const CString& strSrc) {
        if (m_pchData != strSrc.m_pchData) {
            Release();
            if (VEXLoadField(strSrc.GetData()->nRefs) > 0) {
                m_pchData = strSrc.m_pchData;
                VEXStoreField(GetData()->nRefs, GetData()->nRefs + 1);
            }
        }
        return *this;
    }
    CString& operator=(LPCTSTR lpsz) {
        const int nLen = lpsz == nullptr ? 0 : lstrlenW(lpsz);
        if (nLen <= 0) {
            Release();
            Init();
            return *this;
        }
        AllocBeforeWrite(nLen);
        memcpy_x(m_pchData, (static_cast<size_t>(nLen) + 1) * sizeof(TCHAR), lpsz,
                 static_cast<size_t>(nLen) * sizeof(TCHAR));
        GetData()->nDataLength = GetData()->nAllocLength = nLen;
        m_pchData[nLen] = 0;
        return *this;
    }

    operator LPTSTR() { return m_pchData; }
    operator LPCTSTR() const { return m_pchData; }

    CStringData* GetData() const {
        VEXAssert(m_pchData != nullptr, "m_pchData != NULL", __FILE__, 1338, "CStringData* CString::GetData() const");
        return reinterpret_cast<CStringData*>(m_pchData) - 1;
    }
    void Init() {
        m_pchData = _atltmpPchNil;
        StampEmptyBlock();
    }
    BOOL AllocBuffer(int nLen) {
        VEXAssert(nLen >= 0, "nLen >= 0", __FILE__, 1385, "BOOL CString::AllocBuffer(int)");
        VEXAssert(nLen <= INT_MAX - 1, "nLen <= INT_MAX - 1", __FILE__, 1386, "BOOL CString::AllocBuffer(int)");
        if (nLen == 0) {
            Release();
            Init();
            return TRUE;
        }
        m_pchData = VEXNewBlock<CStringData, TCHAR>(nLen)->data();
        return TRUE;
    }
    void CopyBeforeWrite() {
        if (VEXLoadField(GetData()->nRefs) > 1) {
            CStringData* const pOld = GetData();
            Release();
            AllocBuffer(pOld->nDataLength);
            if (pOld->nDataLength > 0) {
                memcpy_x(m_pchData, (static_cast<size_t>(GetData()->nAllocLength) + 1) * sizeof(TCHAR), pOld->data(),
                         (static_cast<size_t>(pOld->nDataLength) + 1) * sizeof(TCHAR));
            }
        }
        VEXAssert(VEXLoadField(GetData()->nRefs) <= 1, "GetData()->nRefs <= 1", __FILE__, 1508,
                  "void CString::CopyBeforeWrite()");
    }
    BOOL AllocBeforeWrite(int nLen) {
        if (VEXLoadField(GetData()->nRefs) > 1 || nLen > VEXLoadField(GetData()->nAllocLength)) {
            Release();
            AllocBuffer(nLen);
        }
        VEXAssert(VEXLoadField(GetData()->nRefs) <= 1, "GetData()->nRefs <= 1", __FILE__, 1518,
                  "BOOL CString::AllocBeforeWrite(int)");
        return TRUE;
    }
    void ReleaseBuffer(int nNewLength) {
        CopyBeforeWrite();
        if (nNewLength < 0) {
            nNewLength = lstrlenW(m_pchData);
        }
        VEXAssert(nNewLength <= VEXLoadField(GetData()->nAllocLength), "nNewLength <= GetData()->nAllocLength",
                  __FILE__, 347, "void CString::ReleaseBuffer(int)");
        VEXStampField(GetData()->nDataLength, nNewLength);
        VEXStampField(GetData()->nAllocLength, nNewLength);
        VEXStampField(m_pchData[nNewLength], TCHAR(0));
    }
    void Release() {
        if (GetData() == _atltmpDataNil) {
            return;
        }
        VEXAssert(VEXLoadField(GetData()->nRefs) != 0, "GetData()->nRefs != 0", __FILE__, 1526,
                  "void CString::Release()");
        VEXReleaseBlock(GetData());
        Init();
    }
    static int tchar_mbstowcsz(wchar_t* wcstr, const char* mbstr, size_t count) {
        const int nResult = MultiByteToWideChar(CP_ACP, 0, mbstr, -1, wcstr, static_cast<int>(count + 1));
        VEXAssert(wcstr == nullptr || nResult <= static_cast<int>(count), "wcstr == NULL || result <= (int)count",
                  __FILE__, 1664, "static int CString::tchar_mbstowcsz(wchar_t*, const char*, size_t)");
        if (wcstr != nullptr && nResult > 0) {
            wcstr[static_cast<size_t>(nResult) < count ? static_cast<size_t>(nResult) : count - 1] = 0;
        }
        return nResult;
    }

private:
    static void StampEmptyBlock() {
        VEXStampField(_atltmpDataNil->nRefs, -1L);
        VEXStampField(_atltmpDataNil->nDataLength, 0);
        VEXStampField(_atltmpDataNil->nAllocLength, 0);
        VEXStampField(*_atltmpPchNil, TCHAR(0));
    }

    LPTSTR m_pchData;
};

class CStringA {
public:
    CStringA() { Init(); }
    CStringA(const CStringA& strSrc) {
        Init();
        *this = strSrc;
    }
    CStringA(LPCWSTR lpsz) {
        Init();
        if (lpsz == nullptr || std::wcslen(lpsz) == 0) {
            return;
        }
        const int nLen = static_cast<int>(std::wcstombs(nullptr, lpsz, 0));
        if (nLen <= 0) {
            Init();
            return;
        }
        AllocBuffer(nLen);
        char_wcstombsz(m_pchData, lpsz, static_cast<size_t>(nLen));
        ReleaseBuffer(-1);
    }
    ~CStringA() {
        CstringDataA* const pData = GetData();
        if (pData != _atltmpDataNilA && VEXReleaseBlock(pData)) {
            Init();
        }
    }

    int GetLength() const { return VEXLoadField(GetData()->nDataLength); }
    BOOL IsEmpty() const { return GetLength() == 0; }

    CStringA& operator=(const CString& strSrc) { return *this = CStringA(static_cast<LPCTSTR>(strSrc)); }
    CStringA& operator=(const CStringA& strSrc) {
        if (m_pchData != strSrc.m_pchData) {
            Release();
            if (VEXLoadField(strSrc.GetData()->nRefs) > 0) {
                m_pchData = strSrc.m_pchData;
                VEXStoreField(GetData()->nRefs, GetData()->nRefs + 1);
            }
        }
        return *this;
    }

    operator LPCSTR() const { return m_pchData; }

    CstringDataA* GetData() const {
        VEXAssert(m_pchData != nullptr, "m_pchData != NULL", __FILE__, 2971, "CstringDataA* CStringA::GetData() const");
        return reinterpret_cast<CstringDataA*>(m_pchData) - 1;
    }
    void Init() {
        m_pchData = _atltmpPchNilA;
        VEXStampField(*_atltmpPchNilA, '\0');
        VEXStampField(GetData()->nRefs, -1L);
        VEXStampField(GetData()->nAllocLength, 0);
        VEXStampField(GetData()->nDataLength, 0);
    }
    BOOL AllocBuffer(int nLen) {
        VEXAssert(nLen >= 0, "nLen >= 0", __FILE__, 3019, "BOOL CStringA::AllocBuffer(int)");
        VEXAssert(nLen <= INT_MAX - 1, "nLen <= INT_MAX - 1", __FILE__, 3020, "BOOL CStringA::AllocBuffer(int)");
        if (nLen == 0) {
            Release();
            Init();
            return TRUE;
        }
        m_pchData = VEXNewBlock<CstringDataA, char>(nLen)->data();
        return TRUE;
    }
    void CopyBeforeWrite() {
        if (VEXLoadField(GetData()->nRefs) > 1) {
            CstringDataA* const pOld = GetData();
            Release();
            AllocBuffer(pOld->nDataLength);
            if (pOld->nDataLength > 0) {
                memcpy_x(m_pchData, static_cast<size_t>(GetData()->nAllocLength) + 1, pOld->data(),
                         static_cast<size_t>(pOld->nDataLength) + 1);
            }
        }
        VEXAssert(VEXLoadField(GetData()->nRefs) <= 1, "GetData()->nRefs <= 1", __FILE__, 3141,
                  "void CStringA::CopyBeforeWrite()");
    }
    void ReleaseBuffer(int nNewLength) {
        CopyBeforeWrite();
        if (nNewLength < 0) {
            nNewLength = static_cast<int>(std::strlen(m_pchData));
        }
        VEXAssert(nNewLength <= VEXLoadField(GetData()->nAllocLength), "nNewLength <= GetData()->nAllocLength",
                  __FILE__, 2115, "void CStringA::ReleaseBuffer(int)");
        VEXStampField(GetData()->nDataLength, nNewLength);
        VEXStampField(GetData()->nAllocLength, nNewLength);
        VEXStampField(m_pchData[nNewLength], '\0');
    }
    void Release() {
        if (GetData() == _atltmpDataNilA) {
            return;
        }
        VEXAssert(VEXLoadField(GetData()->nRefs) != 0, "GetData()->nRefs != 0", __FILE__, 3159,
                  "void CStringA::Release()");
        VEXReleaseBlock(GetData());
        Init();
    }
    static int char_wcstombsz(char* mbstr, const wchar_t* wcstr, size_t count) {
        const int nResult = WideCharToMultiByte(CP_ACP, 0, wcstr, -1, mbstr, static_cast<int>(count), nullptr, nullptr);
        VEXAssert(mbstr == nullptr || nResult <= static_cast<int>(count), "mbstr == NULL || result <= (int)count",
                  __FILE__, 3281, "static int CStringA::char_wcstombsz(char*, const wchar_t*, size_t)");
        if (mbstr != nullptr && nResult > 0) {
            mbstr[nResult] = 0;
        }
        return nResult;
    }

private:
    LPSTR m_pchData;
};
