// Runs a shell command, for checks with other programs.
#pragma once

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

struct CommandResult {
    int nStatus = -1;       // exit status; -1 when a signal ended it
    std::string strOutput;  // standard output and standard error
};

inline CommandResult RunCommand(const std::string& strCommand) {
    const std::string strShell = "{ " + strCommand + "\n} 2>&1";
    std::FILE* pPipe = popen(strShell.c_str(), "r");
    if (pPipe == nullptr) {
        throw std::runtime_error("cannot run " + strCommand);
    }
    CommandResult result;
    std::array<char, 4096> buffer{};
    for (size_t cb = 0; (cb = std::fread(buffer.data(), 1, buffer.size(), pPipe)) > 0;) {
        result.strOutput.append(buffer.data(), cb);
    }
    const int nStatus = pclose(pPipe);
    result.nStatus = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
    return result;
}
