// The command line.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "FileTable.h"

namespace vexfiled {

struct Options {
    std::string strRoot;
    std::uint16_t uPort = 8766;  // 0: any free one
    bool bPortGiven = false;
    std::vector<std::string> allowedUsers;  // names or numbers, besides root and the server's own user
    bool bAllowAny = false;
    std::size_t cbMaxMessage = 0x1000000;  // payload of a request or a reply
    std::size_t cMaxConnections = 64;
    FileTable::Limits files;
    std::chrono::seconds clientTimeout{30};
    std::chrono::seconds totalsPeriod{3600};
    bool bVerbose = false;
};

// Nothing: the program has to exit with nExit, and the help, the version or an error message has been printed.
std::optional<Options> ParseOptions(int argc, char** argv, int& nExit);

}  // namespace vexfiled
