#include "TemporaryFile.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>

#include "SignalsBlocked.h"
#include "SystemError.h"

namespace tools {
namespace {

std::array<std::atomic<const char*>, kMostTemporaryFiles> s_names;

void RemoveAndEnd(int nSignal) {
    for (const std::atomic<const char*>& name : s_names) {
        if (const char* const pszName = name.load(); pszName != nullptr) {
            unlink(pszName);
        }
    }
    // SA_RESETHAND has restored the default action, which ends the process when this handler returns.
    static_cast<void>(raise(nSignal));
}

void HandleSignals() {
    for (const int nSignal : kEndingSignals) {
        struct sigaction before = {};
        if (sigaction(nSignal, nullptr, &before) == 0 && before.sa_handler == SIG_DFL) {
            struct sigaction action = {};
            action.sa_handler = RemoveAndEnd;
            action.sa_flags = static_cast<int>(SA_RESETHAND);
            sigaction(nSignal, &action, nullptr);
        }
    }
}

void Replace(const char* pszBefore, const char* pszName) {
    for (std::atomic<const char*>& name : s_names) {
        if (name.load() == pszBefore) {
            name.store(pszName);
            return;
        }
    }
}

std::string RandomName() {
    std::uint64_t uRandom = 0;
    if (getrandom(&uRandom, sizeof uRandom, 0) != static_cast<ssize_t>(sizeof uRandom)) {
        ThrowSystemError(errno, "getrandom");
    }
    std::array<char, 32> name{};
    const int cch = std::snprintf(name.data(), name.size(), ".vex-%016llx", static_cast<unsigned long long>(uRandom));
    return {name.data(), static_cast<std::size_t>(cch)};
}

}  // namespace

TemporaryFile::TemporaryFile(const std::string& strPath, mode_t nMode) {
    const std::string strDirectory = strPath.substr(0, strPath.rfind('/') + 1);
    // A signal between the next two steps would leave the file behind.
    const SignalsBlocked wait(kEndingSignals);
    m_file.emplace(AT_FDCWD, strDirectory + RandomName(), nMode);
    if (!m_file->IsOpen()) {
        ThrowSystemError(errno, "cannot create a temporary file beside " + strPath);
    }
    Replace(nullptr, m_file->Name().c_str());
    HandleSignals();
}

TemporaryFile::~TemporaryFile() {
    std::optional<SignalsBlocked> wait;
    if (!m_file->HasMoved()) {
        wait.emplace(kEndingSignals);
    }
    Replace(m_file->Name().c_str(), nullptr);
    m_file.reset();
}

void TemporaryFile::MoveTo(const std::string& strPath) {
    const SignalsBlocked wait(kEndingSignals);
    if (const int nError = m_file->MoveTo(strPath.c_str()); nError != 0) {
        ThrowSystemError(nError, strPath);
    }
}

void TemporaryFile::MoveSyncedTo(const std::string& strPath) {
    const SignalsBlocked wait(kEndingSignals);
    if (const int nError = m_file->MoveSyncedTo(strPath.c_str()); nError != 0) {
        ThrowSystemError(nError, strPath);
    }
}

}  // namespace tools
