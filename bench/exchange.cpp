// What one exchange with a server on this machine costs: all of it, and without the command that prints the user's
// number. In the second case it reads an open file instead.
//
// With mode=product or mode=floor it only makes exchanges=N exchanges without that command, for counting from outside.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>

#include "Exchanges.h"

namespace {

bool g_bCommand = true;

// Endless output as the command would print it.
class Answer {
public:
    Answer() : m_pFile(fdopen(memfd_create("id", MFD_CLOEXEC), "w+")) {
        bench::Require(m_pFile != nullptr && write(fileno(m_pFile), "1000\n", 5) == 5, "a file in memory");
        Rewind();
    }
    std::FILE* File() { return m_pFile; }
    void Rewind() { lseek(fileno(m_pFile), 0, SEEK_SET); }

private:
    std::FILE* m_pFile;
};

Answer& TheAnswer() {
    static Answer s_answer;
    return s_answer;
}

}  // namespace

// These replace libc's functions and call them.
extern "C" {

std::FILE* popen(const char* pszCommand, const char* pszMode) {
    static auto* const s_pNext = reinterpret_cast<std::FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "popen"));
    return g_bCommand ? s_pNext(pszCommand, pszMode) : TheAnswer().File();
}
int pclose(std::FILE* pFile) {
    static auto* const s_pNext = reinterpret_cast<int (*)(std::FILE*)>(dlsym(RTLD_NEXT, "pclose"));
    if (g_bCommand) {
        return s_pNext(pFile);
    }
    TheAnswer().Rewind();
    return 0;
}

}  // extern "C"

int main(int argc, char** argv) {
    const bench::Amounts amounts(argc, argv);
    bench::Question("What does one exchange with a server on this machine cost?");
    bench::Require(access("/tmp/testPipe", F_OK) != 0, "no trace of exchanges: /tmp/testPipe is there");
    const std::string strMode = amounts.Text("mode", "all");
    const int nExchanges = amounts.Of("exchanges", 20);
    bench::Exchanges exchanges;
    const auto product = [&] { return exchanges.Product(nExchanges); };
    const auto floor = [&] { return exchanges.Floor(nExchanges); };
    if (strMode != "all") {
        bench::Require(strMode == "product" || strMode == "floor", "mode=product or mode=floor");
        g_bCommand = false;
        strMode == "product" ? product() : floor();
        return 0;
    }
    const int nRounds = amounts.Of("rounds", 60);
    bench::Interleave("one exchange", "us", nRounds, {{"product", product}, {"floor", floor}});
    g_bCommand = false;
    bench::Interleave("one exchange without the command", "us", nRounds, {{"product", product}, {"floor", floor}});
    return 0;
}
