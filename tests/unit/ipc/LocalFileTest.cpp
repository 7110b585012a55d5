// CVexFile with a local file: what it does with the toolkit's handle.
#include <gmock/gmock.h>

#include <optional>
#include <vector>

#include "FileFunctions.h"
#include "TempDirectory.h"
#include "VexFile.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// The toolkit's file functions on this thread.
struct Handles {
    std::optional<HANDLE> hToReturn;  // by VexCreateFile, which then opens nothing
    std::vector<HANDLE> closed;
};

thread_local Handles t_handles;

}  // namespace

// Before those of the toolkit.
HANDLE VexCreateFile(LPCSTR lpFileName) {
    static VEX_NEXT(VexCreateFile);
    return t_handles.hToReturn ? *t_handles.hToReturn : s_pVexCreateFile(lpFileName);
}

BOOL CloseHandle(HANDLE hObject) {
    static VEX_NEXT(CloseHandle);
    t_handles.closed.push_back(hObject);
    return s_pCloseHandle(hObject);
}

namespace {

class LocalFile : public testing::Test {
protected:
    LocalFile() { t_handles = {}; }
    ~LocalFile() override { t_handles = {}; }

    const TempDirectory m_directory;
    const CString m_strPath{m_directory.Path("file").c_str()};
};

TEST_F(LocalFile, AHandleOfZeroOrMinusOneIsAFailureAndIsNotClosed) {
    for (const HANDLE hFailure : {HANDLE{nullptr}, HANDLE{INVALID_HANDLE_VALUE}}) {
        t_handles.hToReturn = hFailure;
        {
            CVexFile file;
            DWORD dwError = 0;
            EXPECT_FALSE(file.OpenFile(m_strPath, dwError)) << hFailure;
            EXPECT_FALSE(file.IsOpen()) << hFailure;
            file.CloseFile();
            EXPECT_FALSE(file.OpenFile(m_strPath, dwError)) << hFailure;
        }
        EXPECT_THAT(t_handles.closed, IsEmpty());
    }
}

TEST_F(LocalFile, IsClosedOnceAndForgotten) {
    for (const bool bBeforeItsEnd : {true, false}) {
        t_handles = {};
        HANDLE hOpened = nullptr;
        {
            CVexFile file;
            DWORD dwError = 0;
            ASSERT_TRUE(file.OpenFile(m_strPath, dwError));
            EXPECT_FALSE(file.MayOthersWrite());
            hOpened = file.AbandonAfterFork();
            EXPECT_NE(hOpened, nullptr);
            if (bBeforeItsEnd) {
                file.CloseFile();
                EXPECT_TRUE(file.MayOthersWrite());  // without a name there is doubt
            }
        }
        EXPECT_THAT(t_handles.closed, ElementsAre(hOpened));
    }
}

}  // namespace
