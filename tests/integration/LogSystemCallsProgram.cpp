// Writes as many records as its argument says. It waits until each record is in the file before it writes the next.
// Some records that do not count come first. A call of getppid, which nothing else here makes, marks the begin and the
// end.
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
