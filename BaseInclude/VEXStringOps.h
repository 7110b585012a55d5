// The work with blocks that CString and CStringA have in common, built on the public members of both classes.
//
// In every function a source text may be part of the string itself. When memory runs out (std::bad_alloc), the string
// keeps its text or becomes empty.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "VEXCompat.h"
#include "VEXStringBlock.h"
#include "VEXText.h"

template <typename TString, typename TData, typename TChar>
class CVEXStringOps {
public:
    using View = std::basic_string_view<TChar>;

    // The counted text; valid until the string is written.
    static View Of(const TString& str) {
        return View(str.GetData()->data(), static_cast<std::size_t>(str.GetLength()));
    }

    static bool IsShared(const TString& str) { return VEXLoadField(str.GetData()->nRefs) > 1; }

    // CopyBeforeWrite without its assertion.
    static void MakePrivate(TString& str) {
        if (!IsShared(str)) {
            return;
        }
        TData* const pOld = str.GetData();
        str.Release();
        // The other strings on the old block keep it alive.
        str.AllocBuffer(pOld->nDataLength);  // NOLINT(clang-analyzer-cplusplus.NewDelete): it does not see the count
        // A string without characters now uses the empty block, whose terminator needs no copy.
        if (pOld->nDataLength > 0) {
            memcpy_x(str.GetData()->data(), Bytes(str.GetData()->nAllocLength, 1), pOld->data(),
                     Bytes(pOld->nDataLength, 1));
        }
    }

    // ReleaseBuffer without its assertion.
    static void SetLength(TString& str, int nLength) {
        TData* const pData = str.GetData();
        VEXStampField(pData->nDataLength, nLength);
        VEXStampField(pData->nAllocLength, nLength);
        VEXStampField(pData->data()[nLength], TChar(0));
    }

    // The string becomes the nLen characters at pch. It keeps its block if that is private and large enough.
    static void AssignCopy(TString& str, int nLen, const TChar* pch) {
        if (nLen <= 0 || pch == nullptr) {
            str.Release();
            str.Init();
            return;
        }
        str.AllocBeforeWrite(nLen);
        CopyText(str.GetData()->data(), nLen, pch, nLen);
        SetLength(str, nLen);
    }

    // The string becomes the nLen1 characters at pch1 followed by the nLen2 at pch2, in a new block.
    static void ConcatCopy(TString& str, int nLen1, const TChar* pch1, int nLen2, const TChar* pch2) {
        const int nCount1 = Count(nLen1, pch1);
        const int nCount2 = Count(nLen2, pch2);
        TString strNew;
        strNew.AllocBuffer(Sum(nCount1, nCount2));
        TChar* const pchNew = strNew.GetData()->data();
        CopyText(pchNew, nCount1, pch1, nCount1);
        CopyText(pchNew + nCount1, nCount2, pch2, nCount2);
        str = strNew;
    }

    // Appends. The string keeps its block if that is private and its recorded capacity has room.
    static void ConcatInPlace(TString& str, int nLen, const TChar* pch) {
        const int nCount = Count(nLen, pch);
        if (nCount == 0) {
            return;
        }
        TData* const pData = str.GetData();
        const int nOld = str.GetLength();
        const int nNew = Sum(nOld, nCount);
        if (IsShared(str) || nNew > VEXLoadField(pData->nAllocLength)) {
            ConcatCopy(str, nOld, pData->data(), nCount, pch);
            return;
        }
        CopyText(pData->data() + nOld, nCount, pch, nCount);
        pData->nDataLength = nNew;
        pData->data()[nNew] = 0;
    }

    // strDest becomes nCopyLen characters of str from nCopyIndex, followed by nExtraLen zero characters.
    static void AllocCopy(const TString& str, TString& strDest, int nCopyLen, int nCopyIndex, int nExtraLen) {
        const View copied = CVEXText<TChar>::Mid(Of(str), nCopyIndex, nCopyLen);
        const int nCopied = static_cast<int>(copied.size());
        TString strNew;
        strNew.AllocBuffer(Sum(nCopied, nExtraLen < 0 ? 0 : nExtraLen));
        CopyText(strNew.GetData()->data(), nCopied, copied.data(), nCopied);
        strDest = strNew;
    }

    // A private block with room for nMinLength characters or the present text, whichever is longer.
    static TChar* GetBuffer(TString& str, int nMinLength) {
        const int nOld = str.GetLength();
        if (IsShared(str) || nMinLength > VEXLoadField(str.GetData()->nAllocLength)) {
            TString strNew;
            AllocCopy(str, strNew, nOld, 0, nMinLength > nOld ? nMinLength - nOld : 0);
            VEXStampField(strNew.GetData()->nDataLength, nOld);
            str = strNew;
        }
        return str.GetData()->data();
    }

    // Shares strSrc's block. The text of a block with no positive count is copied instead.
    static void Share(TString& str, const TString& strSrc, TChar*& pchData) {
        TData* const pSrc = strSrc.GetData();
        if (pSrc == str.GetData()) {
            return;
        }
        const long nRefs = VEXLoadField(pSrc->nRefs);
        if (nRefs <= 0) {
            AssignCopy(str, strSrc.GetLength(), pSrc->data());
            return;
        }
        str.Release();
        VEXStoreField(pSrc->nRefs, nRefs + 1);
        pchData = pSrc->data();
    }

    // A part of the string's own text. If it is the whole text, the result shares the block.
    static TString Part(const TString& str, View part) {
        if (part.size() == static_cast<std::size_t>(str.GetLength())) {
            return str;
        }
        return TString(part.data(), static_cast<int>(part.size()));
    }

    static void SetAt(TString& str, int nIndex, TChar ch) {
        if (CVEXText<TChar>::InRange(Of(str), nIndex)) {
            str.CopyBeforeWrite();
            str.GetData()->data()[nIndex] = ch;
        }
    }

    static int Replace(TString& str, const TChar* pszOld, const TChar* pszNew) {
        using Text = CVEXText<TChar>;
        int nReplaced = 0;
        const auto result = Text::Replace(Of(str), Text::Of(pszOld), Text::Of(pszNew), nReplaced);
        if (nReplaced > 0) {
            AssignCopy(str, Text::Length(result.size()), result.data());
        }
        return nReplaced;
    }

    static int Insert(TString& str, int nIndex, View inserted) {
        using Text = CVEXText<TChar>;
        if (!inserted.empty()) {
            const auto result = Text::Insert(Of(str), nIndex, inserted);
            AssignCopy(str, Text::Length(result.size()), result.data());
        }
        return str.GetLength();
    }

    // The string becomes what VEXAllocPrint printed; the printed text is freed.
    static void AssignPrinted(TString& str, TChar* pszPrinted, int nLength) {
        const std::unique_ptr<TChar, FreeText> owner(pszPrinted);
        AssignCopy(str, nLength, pszPrinted);
    }

private:
    struct FreeText {
        void operator()(TChar* psz) const { std::free(psz); }
    };

    static std::size_t Bytes(int nCount, std::size_t nTerminators) {
        return (static_cast<std::size_t>(nCount) + nTerminators) * sizeof(TChar);
    }

    static int Count(int nLen, const TChar* pch) { return pch == nullptr || nLen < 0 ? 0 : nLen; }

    // A sum that is too long becomes INT_MAX, which no block accepts.
    static int Sum(int nLen1, int nLen2) {
        return CVEXText<TChar>::Length(static_cast<std::size_t>(nLen1) + static_cast<std::size_t>(nLen2));
    }

    // pchDest has room for nRoom characters and a terminator. Source and destination may overlap, which not every
    // toolkit's memcpy_x allows.
    static void CopyText(TChar* pchDest, int nRoom, const TChar* pch, int nCount) {
        const auto nDest = reinterpret_cast<std::uintptr_t>(pchDest);
        const auto nSource = reinterpret_cast<std::uintptr_t>(pch);
        const std::size_t cbText = Bytes(nCount, 0);
        if ((nDest > nSource ? nDest - nSource : nSource - nDest) < cbText) {
            const std::basic_string<TChar> strApart(pch, static_cast<std::size_t>(nCount));
            memcpy_x(pchDest, Bytes(nRoom, 1), strApart.data(), cbText);
        } else if (nCount > 0) {
            memcpy_x(pchDest, Bytes(nRoom, 1), pch, cbText);
        }
    }
};
