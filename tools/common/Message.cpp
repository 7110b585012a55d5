#include "Message.h"

#include <langinfo.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <system_error>

#include "Exit.h"
#include "posix/FileIo.h"
#include "posix/VisibleText.h"

namespace tools {

bool LocaleIsUtf8() {
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

void Complain(const char* pszProgram, std::string_view text) {
    static_cast<void>(std::fprintf(stderr, "%s: %s\n", pszProgram, vexposix::Visible(text, LocaleIsUtf8()).c_str()));
}

int PrintHelp(const char* pszProgram, std::string_view text) {
    const int nError = vexposix::WriteAll(STDOUT_FILENO, text);
    if (nError == 0 || nError == EPIPE) {
        return kExitOk;
    }
    Complain(pszProgram, "standard output: " + std::generic_category().message(nError));
    return kExitError;
}

std::string VisibleUsageError(std::string_view text) {
    text = text.substr(0, text.find_last_not_of('\n') + 1);
    const std::size_t nHint = text.rfind('\n') + 1;  // 0: there is only one line
    std::string strLines;
    for (const std::string_view line : {text.substr(0, std::max<std::size_t>(nHint, 1) - 1), text.substr(nHint)}) {
        strLines += line.empty() ? "" : vexposix::Visible(line, LocaleIsUtf8()) + '\n';
    }
    return strLines;
}

}  // namespace tools
