// The assertions of the counted strings. Each ends the process with the standard message, in every build type.
#include <atomic>
#include <climits>
#include <csignal>
#include <thread>

#include "ArrayNew.h"
#include "StringKinds.h"

namespace {

// What the C library prints: program, source file, line, function signature, expression.
std::string Message(int nLine, const std::string& strFunction, const std::string& strExpression) {
    std::string strPattern;
    for (const char ch : "BaseInclude/VEXCstring.h:" + std::to_string(nLine) + ": " + strFunction + ": Assertion `" +
                             strExpression + "' failed.\n") {
        if (std::string_view(".[]{}()\\*+?|^$").find(ch) != std::string_view::npos) {
            strPattern += '\\';
        }
        if (ch != '\0') {
            strPattern += ch;
        }
    }
    return strPattern;
}

template <typename TKind>
using OpenString = typename CStringKindTest<TKind>::COpenString;

// So long that setting it to zero takes time.
constexpr int LONG_TEXT = 100000;

// The block of the next strings, and a thread that breaks the rule of one thread at a time: it repeatedly makes that
// block look shared.
template <typename TKind>
class CMeddledBlock {
public:
    CMeddledBlock() : m_thread([this] { Run(); }) { CArrayNewWatch::AllocateFrom(s_storage); }
    ~CMeddledBlock() {
        m_bStop = true;
        m_thread.join();
    }

private:
    using Data = typename TKind::Data;

    void Run() {
        while (!m_bStop) {
            VEXStoreField(reinterpret_cast<Data*>(s_storage)->nRefs, 2L);
        }
    }

    alignas(Data) static inline BYTE s_storage[sizeof(Data) + (LONG_TEXT + 1) * sizeof(typename TKind::Char)];
    std::atomic<bool> m_bStop{false};
    std::thread m_thread;
};

// Repeats the call until the thread interferes.
template <typename TKind>
[[noreturn]] void CopyAgainstMeddling() {
    typename TKind::String str;
    str.AllocBuffer(LONG_TEXT);
    const CMeddledBlock<TKind> block;
    for (;;) {
        typename TKind::String(str).CopyBeforeWrite();
    }
}

template <typename TKind>
[[noreturn]] void AllocAgainstMeddling() {
    const CMeddledBlock<TKind> block;
    for (;;) {
        typename TKind::String().AllocBeforeWrite(LONG_TEXT);
    }
}

template <typename TKind>
void ReleaseBlockWithoutOwners() {
    OpenString<TKind> str;
    str.AllocBuffer(3);
    str.GetData()->nRefs = 0;
    str.Release();
}

template <typename TKind>
void ReleaseBufferAboveCapacity() {
    typename TKind::String str;
    str.AllocBuffer(5);
    str.ReleaseBuffer(4);
    str.ReleaseBuffer(5);
}

struct Row {
    const char* pszName;
    void (*pfnBreak)();
    int nLine;
    const char* pszFunction;
    const char* pszExpression;
};

template <typename TKind>
void WithNullPointer(void (*pfnUse)(OpenString<TKind>&)) {
    OpenString<TKind> str;
    str.m_pchData = nullptr;
    pfnUse(str);
}

const Row g_aRows[] = {
    {"wide, null", [] { WithNullPointer<WideKind>([](auto& str) { str.GetData(); }); }, 1338,
     "CStringData* CString::GetData() const", "m_pchData != NULL"},
    {"wide, null length", [] { WithNullPointer<WideKind>([](auto& str) { str.GetLength(); }); }, 1338,
     "CStringData* CString::GetData() const", "m_pchData != NULL"},
    {"wide, null release", [] { WithNullPointer<WideKind>([](auto& str) { str.Release(); }); }, 1338,
     "CStringData* CString::GetData() const", "m_pchData != NULL"},
    {"wide, null destructor", [] { WithNullPointer<WideKind>([](auto&) {}); }, 1338,
     "CStringData* CString::GetData() const", "m_pchData != NULL"},
    {"wide, negative length", [] { CString().AllocBuffer(-1); }, 1385, "BOOL CString::AllocBuffer(int)", "nLen >= 0"},
    {"wide, least length", [] { CString().AllocBuffer(INT_MIN); }, 1385, "BOOL CString::AllocBuffer(int)", "nLen >= 0"},
    {"wide, greatest length", [] { CString().AllocBuffer(INT_MAX); }, 1386, "BOOL CString::AllocBuffer(int)",
     "nLen <= INT_MAX - 1"},
    {"wide, appending too much", [] { CString(L"abc").Append(L"abc", INT_MAX - 3); }, 1386,
     "BOOL CString::AllocBuffer(int)", "nLen <= INT_MAX - 1"},
    {"wide, appending more than an int", [] { CString(L"abc").Append(L"abc", ~DWORD{0}); }, 1386,
     "BOOL CString::AllocBuffer(int)", "nLen <= INT_MAX - 1"},
    {"wide, count 0", ReleaseBlockWithoutOwners<WideKind>, 1526, "void CString::Release()", "GetData()->nRefs != 0"},
    {"wide, shared after copying", CopyAgainstMeddling<WideKind>, 1508, "void CString::CopyBeforeWrite()",
     "GetData()->nRefs <= 1"},
    {"wide, shared after allocating", AllocAgainstMeddling<WideKind>, 1518, "BOOL CString::AllocBeforeWrite(int)",
     "GetData()->nRefs <= 1"},
    {"wide, above capacity", ReleaseBufferAboveCapacity<WideKind>, 347, "void CString::ReleaseBuffer(int)",
     "nNewLength <= GetData()->nAllocLength"},
    {"wide, above no capacity", [] { CString().ReleaseBuffer(1); }, 347, "void CString::ReleaseBuffer(int)",
     "nNewLength <= GetData()->nAllocLength"},

    {"narrow, null", [] { WithNullPointer<NarrowKind>([](auto& str) { str.GetData(); }); }, 2971,
     "CstringDataA* CStringA::GetData() const", "m_pchData != NULL"},
    {"narrow, null release", [] { WithNullPointer<NarrowKind>([](auto& str) { str.Release(); }); }, 2971,
     "CstringDataA* CStringA::GetData() const", "m_pchData != NULL"},
    {"narrow, null destructor", [] { WithNullPointer<NarrowKind>([](auto&) {}); }, 2971,
     "CstringDataA* CStringA::GetData() const", "m_pchData != NULL"},
    {"narrow, negative length", [] { CStringA().AllocBuffer(-1); }, 3019, "BOOL CStringA::AllocBuffer(int)",
     "nLen >= 0"},
    {"narrow, greatest length", [] { CStringA().AllocBuffer(INT_MAX); }, 3020, "BOOL CStringA::AllocBuffer(int)",
     "nLen <= INT_MAX - 1"},
    {"narrow, appending too much", [] { CStringA("abc").Append("abc", INT_MAX - 3); }, 3020,
     "BOOL CStringA::AllocBuffer(int)", "nLen <= INT_MAX - 1"},
    {"narrow, count 0", ReleaseBlockWithoutOwners<NarrowKind>, 3159, "void CStringA::Release()",
     "GetData()->nRefs != 0"},
    {"narrow, shared after copying", CopyAgainstMeddling<NarrowKind>, 3141, "void CStringA::CopyBeforeWrite()",
     "GetData()->nRefs <= 1"},
    {"narrow, shared after allocating", AllocAgainstMeddling<NarrowKind>, 3151, "BOOL CStringA::AllocBeforeWrite(int)",
     "GetData()->nRefs <= 1"},
    {"narrow, above capacity", ReleaseBufferAboveCapacity<NarrowKind>, 2115, "void CStringA::ReleaseBuffer(int)",
     "nNewLength <= GetData()->nAllocLength"},
};

TEST(StringAssertionDeathTest, EveryBrokenInvariant) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const Row& row : g_aRows) {
        SCOPED_TRACE(row.pszName);
        EXPECT_EXIT(row.pfnBreak(), ::testing::KilledBySignal(SIGABRT),
                    Message(row.nLine, row.pszFunction, row.pszExpression));
    }
}

}  // namespace
