// Writes as many records as its argument says, each after the one before has reached the file, so that the log's
// threads wait for nothing but one another. Before the first of them come some that are not counted, and a mark before
// and after them: getppid, which nothing else here calls.
#include <unistd.h>
#include <cstdlib>

#include "DebugLogMgr.h"
#include "FileCalls.h"

namespace {

int g_nWritten = 0;

void Write(int nRecords) {
    for (int i = 0; i < nRecords; ++i) {
        CDebugLogMgr::MacroHelper(L"[INFO] ", 1, L"test.cpp", L"Function", 7)(L"%s", L"text");
        file_calls::WaitFor("CloseHandle", ++g_nWritten);
    }
}

}  // namespace

int main(int nArguments, char** ppszArguments) {
    Write(10);
    static_cast<void>(getppid());
    Write(nArguments == 2 ? std::atoi(ppszArguments[1]) : 0);
    static_cast<void>(getppid());
    return 0;
}
