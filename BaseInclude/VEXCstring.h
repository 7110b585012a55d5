// The counted, copy-on-write strings: CString (wide) and CStringA (narrow). Their members are in VEXCstringWide.h and
// VEXCstringNarrow.h.
//
// A string is one pointer to the characters of a data block (VEXStringBlock.h draws it). Copies share the block, which
// counts them; a string makes its own copy before it writes. A string without text uses the empty block of its kind,
// which exists once in a process.
//
// Threads: strings that share a block are for one thread at a time, because the count is not atomic. Strings that share
// no block may be used by different threads at once. All threads may share the empty block.
//
// Ownership: the text of GetString, GetBuffer and the conversions belongs to the string and is valid until the string
// is next written or destroyed.
//
// Errors: a broken invariant prints the standard assertion message and aborts. When memory runs out, the array
// allocation throws std::bad_alloc. A text that cannot be converted becomes an empty string.
//
// Arguments, unless a comment says otherwise: a null text is an empty text; positions count from 0, negative positions
// mean 0 and positions after the end mean the end; counts below 0 mean 0; a counted text is taken whole, with its zero
// characters; a terminated text ends at its terminator. Comparisons return -1, 0 or 1. A text argument may be part of
// the string itself. == between strings compares addresses: use Compare.
#pragma once

#include <climits>
#include <cstdarg>
#include <cstddef>
#include <type_traits>

#include "VEXAssert.h"
#include "VEXAtomicField.h"
#include "VEXStringBlock.h"
#include "VEXStringOps.h"
#include "VEXText.h"
#include "VEXType.h"

// A terminated text on the heap of the process. The receiver frees it with HeapFree.
using BSTR = LPWSTR;

// may_alias: the empty block is declared as an array of int.
struct __attribute__((__may_alias__)) CStringData {
    long nRefs;        // strings on the block; -1: the empty block
    int nDataLength;   // characters of the text
    int nAllocLength;  // recorded capacity in characters, not more than the block's room
    lockid_t cslock;   // reserved: never initialised or used

    TCHAR* data() { return reinterpret_cast<TCHAR*>(this + 1); }
};

struct __attribute__((__may_alias__)) CstringDataA {
    long nRefs;
    int nDataLength;
    int nAllocLength;
    lockid_t cslock;

    char* data() { return reinterpret_cast<char*>(this + 1); }
};

static_assert(sizeof(lockid_t) == 40);
static_assert(std::is_standard_layout_v<CStringData> && sizeof(CStringData) == 56 && alignof(CStringData) == 8);
static_assert(offsetof(CStringData, nRefs) == 0 && sizeof(CStringData::nRefs) == 8);
static_assert(offsetof(CStringData, nDataLength) == 8 && sizeof(CStringData::nDataLength) == 4);
static_assert(offsetof(CStringData, nAllocLength) == 12 && sizeof(CStringData::nAllocLength) == 4);
static_assert(offsetof(CStringData, cslock) == 16);
static_assert(std::is_standard_layout_v<CstringDataA> && sizeof(CstringDataA) == 56 && alignof(CstringDataA) == 8);
static_assert(offsetof(CstringDataA, nRefs) == 0 && sizeof(CstringDataA::nRefs) == 8);
static_assert(offsetof(CstringDataA, nDataLength) == 8 && sizeof(CstringDataA::nDataLength) == 4);
static_assert(offsetof(CstringDataA, nAllocLength) == 12 && sizeof(CstringDataA::nAllocLength) == 4);
static_assert(offsetof(CstringDataA, cslock) == 16);

// The empty blocks. Only their addresses distinguish them from other blocks. The pointers are casts of the arrays, so
// they are constants and ready before any static string is constructed.
alignas(CStringData) inline int rgInitData[VEX_EMPTY_BLOCK_INTS] = {-1};
inline CStringData* const _atltmpDataNil = reinterpret_cast<CStringData*>(rgInitData);
inline TCHAR* const _atltmpPchNil = reinterpret_cast<TCHAR*>(reinterpret_cast<CStringData*>(rgInitData) + 1);

alignas(CstringDataA) inline int rgInitDataA[VEX_EMPTY_BLOCK_INTS] = {-1};
inline CstringDataA* const _atltmpDataNilA = reinterpret_cast<CstringDataA*>(rgInitDataA);
inline char* const _atltmpPchNilA = reinterpret_cast<char*>(reinterpret_cast<CstringDataA*>(rgInitDataA) + 1);

inline void VEXStringAssert(bool bHolds, const char* pszExpression, unsigned int nLine, const char* pszFunction) {
    VEXAssert(bHolds, pszExpression, __FILE__, nLine, pszFunction);
}

class CString {
public:
    CString() { Init(); }
    CString(const CString& strSrc);
    CString(TCHAR ch, int nLength);      // nLength times ch
    CString(LPCTSTR lpsz);               // terminated
    CString(LPCTSTR lpch, int nLength);  // counted
    CString(const unsigned char* lpsz);  // as LPCSTR
    CString(LPCSTR lpsz);                // terminated narrow text; empty when it cannot be converted
    CString(LPCSTR lpch, int nLength);   // at most nLength bytes of narrow text, up to a zero byte
    ~CString();

    LPCTSTR GetString() const { return m_pchData; }
    int GetLength() const { return VEXLoadField(GetData()->nDataLength); }
    BOOL IsEmpty() const { return GetLength() == 0; }
    void Empty() { Release(); }

    int Compare(LPCTSTR lpsz) const { return tchar_cstrcmp(m_pchData, lpsz); }
    int CompareNoCase(LPCTSTR lpsz) const { return tchar_cstrcmpi(m_pchData, lpsz); }

    // The private text. The caller may write GetLength() characters, and calls ReleaseBuffer if the length changes.
    LPTSTR GetBuffer();
    // Sets the length after direct writes; below 0: up to the terminator. The recorded capacity becomes the length.
    void ReleaseBuffer(int nNewLength = -1);

    void Append(LPCTSTR lpch, DWORD dwLength);      // counted
    void Append(const char* lpch, DWORD dwLength);  // at most dwLength bytes of narrow text, up to a zero byte
    void Append(int nValue);                        // in decimal

    // The private text with room for nMinBufLength characters and a terminator. The text stays.
    LPTSTR GetBuffer(int nMinBufLength);

    static BOOL _IsValidString(LPCTSTR lpsz) { return lpsz != nullptr; }
    // The next character; lpsz itself at the terminator and for null.
    static LPCTSTR CharNext(LPCTSTR lpsz) { return lpsz == nullptr || *lpsz == 0 ? lpsz : lpsz + 1; }

    // As wprintf: %ls is wide text, %s narrow. Arguments may be this string's text. The string is empty after a
    // failure.
    void Format(LPCTSTR lpszFormat, ...);
    void FormatV(LPCTSTR lpszFormat, va_list args);

    // 0 outside the text.
    TCHAR GetAt(int nIndex) const { return CVEXText<TCHAR>::At(Ops::Of(*this), nIndex); }
    // Does nothing outside the text. A zero character does not shorten the string.
    void SetAt(int nIndex, TCHAR ch) { Ops::SetAt(*this, nIndex, ch); }
    int GetAllocLength() const { return VEXLoadField(GetData()->nAllocLength); }

    CString Mid(int nFirst) const { return Mid(nFirst, INT_MAX); }
    CString Mid(int nFirst, int nCount) const;

    // The first position at or after nStart; -1 if there is none, also when nStart is after the end. An empty text is
    // found at nStart.
    int Find(TCHAR ch) const { return Find(ch, 0); }
    int Find(LPCTSTR lpszSub) const { return Find(lpszSub, 0); }
    int Find(TCHAR ch, int nStart) const { return CVEXText<TCHAR>::Find(Ops::Of(*this), ch, nStart); }
    int Find(LPCTSTR lpszSub, int nStart) const;
    int ReverseFind(TCHAR ch) const { return CVEXText<TCHAR>::FindLast(Ops::Of(*this), ch); }

    CString Left(int nCount) const { return Mid(0, nCount); }
    BSTR AllocSysString() const;  // null when memory runs out
    int CollateNoCase(LPCTSTR lpsz) const { return tchar_cstrcolli(m_pchData, lpsz); }
    CString Right(int nCount) const;

    // Returns the number of replacements; 0 for an empty lpszOld.
    int Replace(LPCTSTR lpszOld, LPCTSTR lpszNew) { return Ops::Replace(*this, lpszOld, lpszNew); }
    // Return the new length.
    int Insert(int nIndex, TCHAR ch) { return Ops::Insert(*this, nIndex, {&ch, 1}); }
    int Insert(int nIndex, LPCTSTR lpsz) { return Ops::Insert(*this, nIndex, CVEXText<TCHAR>::Of(lpsz)); }

    // Narrow characters and texts are converted as in the constructors.
    CString& operator=(char ch);
    CString& operator=(LPCSTR lpsz) { return *this = CString(lpsz); }
    CString& operator=(const CString& strSrc);
    CString& operator=(TCHAR ch);
    CString& operator=(LPCTSTR lpsz);
    CString& operator=(const unsigned char* lpsz) { return *this = CString(lpsz); }

    CString& operator+=(char ch);
    CString& operator+=(const CString& strSrc);
    CString& operator+=(TCHAR ch);
    CString& operator+=(LPCTSTR lpsz);

    operator LPTSTR() { return GetBuffer(); }
    // Twice: otherwise reading a non-const string would use the writable conversion, which unshares it.
    operator LPCTSTR() { return m_pchData; }
    operator LPCTSTR() const { return m_pchData; }

    TCHAR operator[](int nIndex) const { return GetAt(nIndex); }

    // ---- Block management, for code that works on blocks. Work with texts does not need it. ----

    CStringData* GetData() const;
    // Points at the empty block and writes its fields again. Does not release the old block.
    void Init();
    // dest becomes nCopyLen characters from nCopyIndex followed by nExtraLen zero characters. dest may be this string.
    void AllocCopy(CString& dest, int nCopyLen, int nCopyIndex, int nExtraLen) const;
    // A new block of nLen zero characters; nLen is its length and capacity. Does not release the old block, unless nLen
    // is 0: the string is then empty. Returns TRUE.
    BOOL AllocBuffer(int nLen);
    // The string becomes nSrcLen characters. It keeps its block if that is private and large enough.
    void AssignCopy(int nSrcLen, LPCTSTR lpszSrcData) { Ops::AssignCopy(*this, nSrcLen, lpszSrcData); }
    // The string becomes both counted texts, in a new block.
    void ConcatCopy(int nSrc1Len, LPCTSTR lpszSrc1Data, int nSrc2Len, LPCTSTR lpszSrc2Data);
    // Appends. The string keeps its block and recorded capacity if the block is private and large enough.
    void ConcatInPlace(int nSrcLen, LPCTSTR lpszSrcData) { Ops::ConcatInPlace(*this, nSrcLen, lpszSrcData); }
    // Makes the block private, with the same text.
    void CopyBeforeWrite();
    // Makes the block private, with a capacity of at least nLen. A new block loses the text. Returns TRUE.
    BOOL AllocBeforeWrite(int nLen);
    // Releases the share of the block. The string is then empty.
    void Release();
    // Releases one share of a block. Does nothing for the empty block and null.
    static void Release(CStringData* pData);

    // Atomic. Return the new value.
    static LONG InterlockedDecrement(LONG* Addend) { return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST); }
    static LONG InterlockedIncrement(LONG* Addend) { return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST); }
    static void InterLockInit(lockid_t* pLock) { pthread_mutex_init(&pLock->lock, nullptr); }
    static void InterLockRealese(lockid_t* pLock) { pthread_mutex_destroy(&pLock->lock); }

    static int SafeStrlen(LPCTSTR lpsz) { return lpsz == nullptr ? 0 : lstrlenW(lpsz); }
    // Returns FALSE and empties the string: there are no string resources on this platform.
    BOOL _LoadString(UINT nID);
    static const CString& _GetEmptyString();

    // ---- Characters. Texts are terminated. See VEXText.h. ----

    // Wide to narrow, as CStringA::char_wcstombsz.
    static int tchar_wcstombsz(char* mbstr, const wchar_t* wcstr, size_t count);
    // Narrow to wide. count: room in characters, terminator included. Returns the number that the toolkit reports.
    static int tchar_mbstowcsz(wchar_t* wcstr, const char* mbstr, size_t count);
    static LPCTSTR tchar_cstrchr_db(LPCTSTR p, TCHAR ch1, TCHAR ch2) { return CVEXText<TCHAR>::FindPair(p, ch1, ch2); }
    static LPCTSTR tchar_cstrchr(LPCTSTR p, TCHAR ch) { return CVEXText<TCHAR>::FindChar(p, ch); }
    static LPCTSTR tchar_cstrrchr(LPCTSTR p, TCHAR ch) { return CVEXText<TCHAR>::FindLastChar(p, ch); }
    static LPTSTR tchar_cstrrev(LPTSTR pStr) { return CVEXText<TCHAR>::Reverse(pStr); }
    static LPCTSTR tchar_cstrstr(LPCTSTR pStr, LPCTSTR pSub) { return CVEXText<TCHAR>::FindText(pStr, pSub); }
    static int tchar_cstrspn(LPCTSTR pStr, LPCTSTR pSet) { return CVEXText<TCHAR>::CountOf(pStr, pSet); }
    static int tchar_cstrcspn(LPCTSTR pStr, LPCTSTR pSet) { return CVEXText<TCHAR>::CountNotOf(pStr, pSet); }
    static LPCTSTR tchar_cstrpbrk(LPCTSTR pStr, LPCTSTR pSet) { return CVEXText<TCHAR>::FindAnyOf(pStr, pSet); }
    static int tchar_cstrisdigit(TCHAR ch) { return CVEXText<TCHAR>::IsDigit(ch); }
    static int tchar_cstrisspace(TCHAR ch) { return CVEXText<TCHAR>::IsSpace(ch); }
    static int tchar_cstrcmp(LPCTSTR p1, LPCTSTR p2) { return CVEXText<TCHAR>::Compare(p1, p2); }
    static int tchar_cstrcmpi(LPCTSTR p1, LPCTSTR p2) { return CVEXText<TCHAR>::CompareNoCase(p1, p2); }
    static int tchar_cstrcoll(LPCTSTR p1, LPCTSTR p2) { return CVEXText<TCHAR>::Collate(p1, p2); }
    static int tchar_cstrcolli(LPCTSTR p1, LPCTSTR p2) { return CVEXText<TCHAR>::CollateNoCase(p1, p2); }
    static int tchar_cstrtoi(LPCTSTR p) { return CVEXText<TCHAR>::ToInt(p); }

protected:
    LPTSTR m_pchData;

private:
    using Ops = CVEXStringOps<CString, CStringData, TCHAR>;

    static void StampEmptyBlock();
};

class CStringA {
public:
    CStringA() { Init(); }
    CStringA(const CStringA& strSrc);
    CStringA(char ch, int nLength);       // nLength times ch
    CStringA(LPCSTR lpsz);                // terminated
    CStringA(LPCSTR lpch, int nLength);   // counted
    CStringA(const unsigned char* lpsz);  // as LPCSTR
    CStringA(LPCWSTR lpsz);               // terminated wide text; empty when it cannot be converted
    CStringA(LPCWSTR lpch, int nLength);  // at most nLength characters of wide text, up to a zero character
    ~CStringA();

    // Narrow text has one encoding on this platform, the locale's: both leave the text as it is.
    void AnsiToOem() {}
    void OemToAnsi() {}

    LPCSTR GetString() const { return m_pchData; }
    int GetLength() const { return VEXLoadField(GetData()->nDataLength); }
    BOOL IsEmpty() const { return GetLength() == 0; }
    void Empty() { Release(); }

    int Compare(LPCSTR lpsz) const { return char_cstrcmp(m_pchData, lpsz); }
    int CompareNoCase(LPCSTR lpsz) const { return char_cstrcmpi(m_pchData, lpsz); }

    // As the members of CString, with bytes instead of characters.
    LPSTR GetBuffer();
    void ReleaseBuffer(int nNewLength = -1);
    void Append(const char* lpch, DWORD dwLength);  // counted
    void Append(int nValue);                        // in decimal
    LPSTR GetBuffer(int nMinBufLength);

    static BOOL _IsValidString(LPCSTR lpsz) { return lpsz != nullptr; }
    // The position after the multibyte character at lpsz, or after one byte if that is not a valid character.
    static LPCSTR CharNext(LPCSTR lpsz);

    // As printf. Arguments may be this string's text. The string is empty after a failure.
    void Format(LPCSTR lpszFormat, ...) __attribute__((__format__(__printf__, 2, 3)));
    void FormatV(LPCSTR lpszFormat, va_list args) __attribute__((__format__(__printf__, 2, 0)));

    char GetAt(int nIndex) const { return CVEXText<char>::At(Ops::Of(*this), nIndex); }
    void SetAt(int nIndex, char ch) { Ops::SetAt(*this, nIndex, ch); }
    int GetAllocLength() const { return VEXLoadField(GetData()->nAllocLength); }

    CStringA Mid(int nFirst) const { return Mid(nFirst, INT_MAX); }
    CStringA Mid(int nFirst, int nCount) const;
    CStringA Left(int nCount) const { return Mid(0, nCount); }

    int Find(char ch) const { return Find(ch, 0); }
    int Find(LPCSTR lpszSub) const { return Find(lpszSub, 0); }
    int Find(char ch, int nStart) const { return CVEXText<char>::Find(Ops::Of(*this), ch, nStart); }
    int Find(LPCSTR lpszSub, int nStart) const;

    BSTR AllocSysString() const;  // wide; null when memory runs out
    int CollateNoCase(LPCSTR lpsz) const { return char_cstrcolli(m_pchData, lpsz); }
    CStringA Right(int nCount) const;
    int Replace(LPCSTR lpszOld, LPCSTR lpszNew) { return Ops::Replace(*this, lpszOld, lpszNew); }
    int Insert(int nIndex, char ch) { return Ops::Insert(*this, nIndex, {&ch, 1}); }
    int Insert(int nIndex, LPCSTR lpsz) { return Ops::Insert(*this, nIndex, CVEXText<char>::Of(lpsz)); }
    int ReverseFind(char ch) const { return CVEXText<char>::FindLast(Ops::Of(*this), ch); }

    // Wide texts are converted as in the constructors.
    CStringA& operator=(LPCWSTR lpsz) { return *this = CStringA(lpsz); }
    CStringA& operator=(const CString& strSrc) { return *this = strSrc.GetString(); }
    CStringA& operator=(const CStringA& strSrc);
    CStringA& operator=(char ch);
    CStringA& operator=(LPCSTR lpsz);
    CStringA& operator=(const unsigned char* lpsz) { return *this = reinterpret_cast<LPCSTR>(lpsz); }

    CStringA& operator+=(const CStringA& strSrc);
    CStringA& operator+=(char ch);
    CStringA& operator+=(LPCSTR lpsz);

    operator LPCSTR() { return m_pchData; }
    operator LPCSTR() const { return m_pchData; }
    operator LPSTR() { return GetBuffer(); }

    char operator[](int nIndex) const { return GetAt(nIndex); }

    // ---- Block management, as in CString ----

    CstringDataA* GetData() const;
    void Init();
    void AllocCopy(CStringA& dest, int nCopyLen, int nCopyIndex, int nExtraLen) const;
    BOOL AllocBuffer(int nLen);
    void AssignCopy(int nSrcLen, LPCSTR lpszSrcData) { Ops::AssignCopy(*this, nSrcLen, lpszSrcData); }
    void ConcatCopy(int nSrc1Len, LPCSTR lpszSrc1Data, int nSrc2Len, LPCSTR lpszSrc2Data);
    void ConcatInPlace(int nSrcLen, LPCSTR lpszSrcData) { Ops::ConcatInPlace(*this, nSrcLen, lpszSrcData); }
    void CopyBeforeWrite();
    BOOL AllocBeforeWrite(int nLen);
    void Release();
    static void Release(CstringDataA* pData);

    static LONG InterlockedDecrement(LONG* Addend) { return CString::InterlockedDecrement(Addend); }
    static LONG InterlockedIncrement(LONG* Addend) { return CString::InterlockedIncrement(Addend); }
    static void InterLockInit(lockid_t* pLock) { CString::InterLockInit(pLock); }
    static void InterLockRealese(lockid_t* pLock) { CString::InterLockRealese(pLock); }

    static int SafeStrlen(LPCSTR lpsz) { return CVEXText<char>::Length(CVEXText<char>::Of(lpsz).size()); }
    BOOL _LoadString(UINT nID);
    static const CStringA& _GetEmptyString();

    // ---- Characters, as in CString ----

    // Wide to narrow. count: room in bytes without the terminator; the buffer needs one byte more.
    // Returns the number of bytes that the toolkit reports.
    static int char_wcstombsz(char* mbstr, const wchar_t* wcstr, size_t count);
    // Narrow to wide, as CString::tchar_mbstowcsz.
    static int char_mbstowcsz(wchar_t* wcstr, const char* mbstr, size_t count);
    static LPCSTR char_cstrchr_db(LPCSTR p, char ch1, char ch2) { return CVEXText<char>::FindPair(p, ch1, ch2); }
    static LPCSTR char_cstrchr(LPCSTR p, char ch) { return CVEXText<char>::FindChar(p, ch); }
    static LPCSTR char_cstrrchr(LPCSTR p, char ch) { return CVEXText<char>::FindLastChar(p, ch); }
    static LPSTR char_cstrrev(LPSTR pStr) { return CVEXText<char>::Reverse(pStr); }
    static LPCSTR char_cstrstr(LPCSTR pStr, LPCSTR pSub) { return CVEXText<char>::FindText(pStr, pSub); }
    static int char_cstrspn(LPCSTR pStr, LPCSTR pSet) { return CVEXText<char>::CountOf(pStr, pSet); }
    static int char_cstrcspn(LPCSTR pStr, LPCSTR pSet) { return CVEXText<char>::CountNotOf(pStr, pSet); }
    static LPCSTR char_cstrpbrk(LPCSTR pStr, LPCSTR pSet) { return CVEXText<char>::FindAnyOf(pStr, pSet); }
    static int char_cstrisdigit(char ch) { return CVEXText<char>::IsDigit(ch); }
    static int char_cstrisspace(char ch) { return CVEXText<char>::IsSpace(ch); }
    static int char_cstrcmp(LPCSTR p1, LPCSTR p2) { return CVEXText<char>::Compare(p1, p2); }
    static int char_cstrcmpi(LPCSTR p1, LPCSTR p2) { return CVEXText<char>::CompareNoCase(p1, p2); }
    static int char_cstrcoll(LPCSTR p1, LPCSTR p2) { return CVEXText<char>::Collate(p1, p2); }
    static int char_cstrcolli(LPCSTR p1, LPCSTR p2) { return CVEXText<char>::CollateNoCase(p1, p2); }
    static int char_cstrtoi(LPCSTR p) { return CVEXText<char>::ToInt(p); }

protected:
    LPSTR m_pchData;

private:
    using Ops = CVEXStringOps<CStringA, CstringDataA, char>;
};

static_assert(sizeof(CString) == sizeof(LPTSTR) && sizeof(CStringA) == sizeof(LPSTR));

#include "VEXCstringNarrow.h"  // the members of CStringA
#include "VEXCstringWide.h"    // the members of CString
