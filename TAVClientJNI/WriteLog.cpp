#include "WriteLog.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <cwchar>
#include <memory>

#include "VEXAppendFile.h"
#include "VEXForkPause.h"

namespace {

struct Free {
    void operator()(void* pBlock) const { std::free(pBlock); }
};

template <typename Char>
using Text = std::unique_ptr<Char, Free>;

// Zeroed. Null when memory runs out.
template <typename Char>
Text<Char> Allocate(std::size_t nChars) {
    return Text<Char>(static_cast<Char*>(std::calloc(nChars, sizeof(Char))));
}

const char* LevelWord(int level) {
    switch (level) {
        case 1:
            return "DEBU";
        case 2:
            return "WARN";
        case 3:
            return "ERRO";
        default:
            return "INFO";
    }
}

void WriteTime(FILE* stream) {
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    char szTime[32] = {};
    {
        const CVEXForkPause pause;
        if (pause.LocalTime(now, local)) {
            static_cast<void>(std::strftime(szTime, sizeof(szTime), "%d/%b/%Y:%H:%M:%S %Z", &local));
        }
    }
    static_cast<void>(std::fprintf(stream, "[%s] ", szTime));
}

// The letter d behind %u is part of the record's format.
void WriteProcess(FILE* stream) {
    static_cast<void>(std::fprintf(stream, "[%d %ud]", getpid(), static_cast<unsigned int>(pthread_self())));
}

void WriteMessage(FILE* stream, int level, const wchar_t* pszWide) {
    constexpr auto kUnconvertible = static_cast<std::size_t>(-1);
    const std::size_t cbMessage = std::wcstombs(nullptr, pszWide, 0);
    if (cbMessage == kUnconvertible) {
        return;
    }
    const Text<char> pszNarrow = Allocate<char>(cbMessage + 1);
    if (pszNarrow && std::wcstombs(pszNarrow.get(), pszWide, cbMessage) != kUnconvertible) {
        static_cast<void>(std::fprintf(stream, "[%s]%s\n", LevelWord(level), pszNarrow.get()));
    }
}

}  // namespace

FILE* pv_init_log() {
    char szPath[256] = {};
    static_cast<void>(std::snprintf(szPath, sizeof(szPath), "%s", "/tmp/PILog.txt"));
    FILE* const stream = VEXOpenToAppend(szPath);
    if (stream == nullptr) {
        std::printf("system error: error to open log file[%s].\n", szPath);
        return nullptr;
    }
    static_cast<void>(std::fflush(stream));
    return stream;
}

void pv_uninit(FILE* stream) {
    if (stream != nullptr) {
        static_cast<void>(std::fclose(stream));
    }
}

void pv_log(int level, const wchar_t* format, ...) {
    FILE* const stream = pv_init_log();
    if (stream == nullptr) {
        return;
    }
    constexpr std::size_t nMessage = 32769;
    const Text<wchar_t> pszMessage = Allocate<wchar_t>(nMessage);
    WriteTime(stream);
    WriteProcess(stream);
    if (pszMessage) {
        va_list args;
        va_start(args, format);
        {
            const CVEXForkPause pause;
            static_cast<void>(std::btowc(0x80));  // loads the locale's conversions for WriteMessage
            static_cast<void>(std::vswprintf(pszMessage.get(), nMessage - 1, format, args));
        }
        va_end(args);
        WriteMessage(stream, level, pszMessage.get());
    }
    static_cast<void>(std::fflush(stream));
    pv_uninit(stream);
}
