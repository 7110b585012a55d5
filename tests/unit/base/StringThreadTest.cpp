// Many threads, each with its own strings. They share only the empty blocks. Mainly for ThreadSanitizer.
#include <clocale>
#include <vector>

#include "StringKinds.h"
#include "Threads.h"

namespace {

constexpr int THREADS = 16;
constexpr int ROUNDS = 2000;

// Works as a native does: texts from literals, conversions both ways, empty strings passed as plain texts.
int UseOwnStrings(int nThread) {
    int nWrong = 0;
    for (int nRound = 0; nRound < ROUNDS; ++nRound) {
        CString strEmpty;
        CStringA strEmptyA;
        CString strName("function");
        CString strShared(strName);
        strShared += L'!';
        CStringA strNarrow(strShared);
        strName = L"";
        strShared.Format(L"%ls-%d", strShared.GetString(), nThread);
        strEmpty.CopyBeforeWrite();
        strEmptyA.ReleaseBuffer();
        nWrong += std::wcslen(strEmpty.GetString()) + std::strlen(strEmptyA.GetString()) == 0 ? 0 : 1;
        nWrong += strEmpty.IsEmpty() && strEmptyA.IsEmpty() && strName.IsEmpty() ? 0 : 1;
        nWrong += VEXLoadField(strName.GetData()->nRefs) == -1 ? 0 : 1;
        nWrong += strNarrow.Compare("function!") == 0 ? 0 : 1;
        nWrong += strShared.Compare((L"function!-" + std::to_wstring(nThread)).c_str()) == 0 ? 0 : 1;
        nWrong += CString::_GetEmptyString().IsEmpty() && CStringA::_GetEmptyString().IsEmpty() ? 0 : 1;
    }
    return nWrong;
}

TEST(StringThreads, OwnStringsAreIndependent) {
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
    std::vector<int> wrong(THREADS, -1);
    OnThreads(THREADS, [&wrong](int nThread) { wrong[static_cast<std::size_t>(nThread)] = UseOwnStrings(nThread); });
    EXPECT_EQ(wrong, std::vector<int>(THREADS, 0));
}

// Something was written to the empty block. All threads reset it at the same time.
TEST(StringThreads, StampAChangedEmptyBlock) {
    constexpr int nDirtyings = 200;
    for (int nDirtying = 0; nDirtying < nDirtyings; ++nDirtying) {
        VEXStoreField(_atltmpDataNil->nRefs, 5L);
        VEXStoreField(*_atltmpPchNilA, 'x');
        OnThreads(4, [](int) {
            const CString strEmpty;
            const CStringA strEmptyA;
        });
        ASSERT_EQ(_atltmpDataNil->nRefs, -1);
        ASSERT_EQ(*_atltmpPchNilA, '\0');
    }
}

TEST(StringThreads, InterlockedHelpersCountEveryStep) {
    LONG lCount = 0;
    OnThreads(THREADS, [&lCount](int) {
        for (int nRound = 0; nRound < ROUNDS; ++nRound) {
            CString::InterlockedIncrement(&lCount);
            CStringA::InterlockedIncrement(&lCount);
            CString::InterlockedDecrement(&lCount);
        }
    });
    EXPECT_EQ(lCount, THREADS * ROUNDS);
    EXPECT_EQ(CStringA::InterlockedDecrement(&lCount), THREADS * ROUNDS - 1);
}

}  // namespace
