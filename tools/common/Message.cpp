#include "Message.h"

#include <langinfo.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "posix/VisibleText.h"

namespace tools {

bool LocaleIsUtf8() {
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

void Complain(const char* pszProgram, std::string_view text) {
    static_cast<void>(std::fprintf(stderr, "%s: %s\n", pszProgram, vexposix::Visible(text, LocaleIsUtf8()).c_str()));
}

std::string VisibleLines(std::string_view text) {
    std::string strLines;
    while (!text.empty()) {
        const std::size_t nEnd = std::min(text.find('\n'), text.size());
        strLines += vexposix::Visible(text.substr(0, nEnd), LocaleIsUtf8());
        strLines += nEnd < text.size() ? "\n" : "";
        text.remove_prefix(std::min(nEnd + 1, text.size()));
    }
    return strLines;
}

}  // namespace tools
