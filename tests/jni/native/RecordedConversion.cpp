#include "RecordedConversion.h"

#include <dlfcn.h>

#include <algorithm>
#include <string>

#include "CallText.h"
#include "RecordingToolkit.h"
#include "VEXCompat.h"

namespace {

recorded_conversion::Answers g_answers;

using Conversion = decltype(&MultiByteToWideChar);

Conversion ToolkitConversion() {
    static const auto s_pfn = reinterpret_cast<Conversion>(dlsym(RTLD_NEXT, "MultiByteToWideChar"));
    return s_pfn;
}

}  // namespace

namespace recorded_conversion {

Script::Script(Answers answers) {
    g_answers = answers;
}
Script::~Script() {
    g_answers = {};
}

}  // namespace recorded_conversion

int MultiByteToWideChar(UINT uCodePage, DWORD dwFlags, LPCSTR lpMultiByteStr, int cbMultiByte, LPWSTR lpWideCharStr,
                        int cchWideChar) {
    std::string strBuffer = "null";
    if (lpWideCharStr != nullptr) {
        const auto isZero = [](wchar_t ch) { return ch == 0; };
        const LPWSTR pEnd = std::find_if_not(lpWideCharStr, lpWideCharStr + cchWideChar, isZero);
        strBuffer = "[" + std::to_string(pEnd - lpWideCharStr) + " zeros]";
    }
    const std::optional<int> nAnswer = lpWideCharStr == nullptr ? g_answers.nMeasured : g_answers.nConverted;
    const int nResult =
        nAnswer ? *nAnswer
                : ToolkitConversion()(uCodePage, dwFlags, lpMultiByteStr, cbMultiByte, lpWideCharStr, cchWideChar);
    if (uCodePage == CP_UTF8) {
        const std::string strSource =
            lpMultiByteStr == nullptr ? "null" : Quoted({lpMultiByteStr, static_cast<size_t>(cbMultiByte)});
        recording_toolkit::Record("MultiByteToWideChar(65001, " + std::to_string(dwFlags) + ", " + strSource + ", " +
                                  std::to_string(cbMultiByte) + ", " + strBuffer + ", " + std::to_string(cchWideChar) +
                                  ") = " + std::to_string(nResult));
    }
    return nResult;
}
