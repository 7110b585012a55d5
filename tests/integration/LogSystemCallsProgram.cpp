// Writes as many records as its argument says, each after the one before has reached the file, so that the log's
// threads wait for nothing but one another.
#include <cstdlib>

#include "DebugLogMgr.h"
#include "FileCalls.h"

int main(int nArguments, char** ppszArguments) {
    const int nRecords = nArguments == 2 ? std::atoi(ppszArguments[1]) : 0;
    for (int i = 0; i < nRecords; ++i) {
        CDebugLogMgr::MacroHelper(L"[INFO] ", 1, L"test.cpp", L"Function", 7)(L"%s", L"text");
        file_calls::WaitFor("CloseHandle", i + 1);
    }
    return 0;
}
