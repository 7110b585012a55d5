#include "FileServerProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <stdexcept>

namespace {

constexpr std::chrono::minutes kMaxWait(1);

int CountOf(const std::string& strPart, const std::string& strText) {
    int c = 0;
    for (std::size_t n = strText.find(strPart); n != strText.npos; n = strText.find(strPart, n + 1)) {
        ++c;
    }
    return c;
}

}  // namespace

FileServerProcess::FileServerProcess(std::vector<std::string> arguments, const std::string& strLimit, int nPassed) {
    arguments.insert(arguments.begin(), VEXFILED_PROGRAM);
    if (!strLimit.empty()) {
        arguments.insert(arguments.begin(), {"/bin/sh", "-c", "ulimit " + strLimit + " && exec \"$0\" \"$@\""});
    }
    std::vector<char*> argv;
    for (std::string& strArgument : arguments) {
        argv.push_back(strArgument.data());
    }
    argv.push_back(nullptr);

    std::array<int, 2> pipe{};
    if (pipe2(pipe.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe[1], STDERR_FILENO);
    if (nPassed >= 0) {
        posix_spawn_file_actions_adddup2(&actions, nPassed, 3);
    }
    const int nError = posix_spawn(&m_nProcess, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipe[1]);
    if (nError != 0) {
        close(pipe[0]);
        throw std::runtime_error("cannot start " + arguments[0]);
    }
    m_logReader = std::thread([this, nDescriptor = pipe[0]] { ReadLog(nDescriptor); });
}

FileServerProcess::~FileServerProcess() {
    if (m_nProcess > 0) {
        kill(m_nProcess, SIGKILL);
        waitpid(m_nProcess, nullptr, 0);
    }
    m_logReader.join();
}

void FileServerProcess::ReadLog(int nDescriptor) {
    std::array<char, 4096> buffer{};
    ssize_t cb = 0;
    while ((cb = read(nDescriptor, buffer.data(), buffer.size())) > 0) {
        const std::lock_guard lock(m_mutex);
        m_strLog.append(buffer.data(), static_cast<std::size_t>(cb));
        m_changed.notify_all();
    }
    close(nDescriptor);
    const std::lock_guard lock(m_mutex);
    m_bEnded = true;
    m_changed.notify_all();
}

bool FileServerProcess::WaitForLog(const std::string& strText, int cLines) {
    std::unique_lock lock(m_mutex);
    const auto isThere = [&] { return CountOf(strText, m_strLog) >= cLines; };
    m_changed.wait_for(lock, kMaxWait, [&] { return m_bEnded || isThere(); });
    return isThere();
}

int FileServerProcess::LinesWith(const std::string& strText) {
    return CountOf(strText, Log());
}

std::uint16_t FileServerProcess::Port() {
    const std::string strBefore = "listening on 127.0.0.1:";
    if (!WaitForLog(strBefore)) {
        return 0;
    }
    const std::string strLog = Log();
    return static_cast<std::uint16_t>(std::stoi(strLog.substr(strLog.find(strBefore) + strBefore.size())));
}

std::string FileServerProcess::Log() {
    const std::lock_guard lock(m_mutex);
    return m_strLog;
}

void FileServerProcess::Signal(int nSignal) const {
    kill(m_nProcess, nSignal);
}

ServerEnd FileServerProcess::Wait() {
    {
        std::unique_lock lock(m_mutex);
        if (!m_changed.wait_for(lock, kMaxWait, [this] { return m_bEnded; })) {
            kill(m_nProcess, SIGKILL);
        }
    }
    int nStatus = 0;
    waitpid(m_nProcess, &nStatus, 0);
    m_nProcess = -1;
    return WIFEXITED(nStatus) ? ServerEnd{WEXITSTATUS(nStatus), 0} : ServerEnd{-1, WTERMSIG(nStatus)};
}
