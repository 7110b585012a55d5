// A time-stamping authority on loopback, as long as the object exists (TimeStampAuthority.py). It ends with this
// process, too, however that ends. The including program defines VEX_TEST_SOURCE_DIR.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "TempDirectory.h"
#include "posix/FileDescriptor.h"

class RunningAuthority {
public:
    // Returns when the authority serves.
    RunningAuthority() {
        std::vector<std::string> arguments = {VEX_TEST_SOURCE_DIR "/tests/support/TimeStampAuthority.py", "--directory",
                                              m_directory.Path(), "--until-end-of-input"};
        std::vector<char*> texts;
        for (std::string& strArgument : arguments) {
            texts.push_back(strArgument.data());
        }
        texts.push_back(nullptr);
        Pipe url;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, m_input.reader.Get(), STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, url.writer.Get(), STDOUT_FILENO);
        const int nError = posix_spawn(&m_nProcess, texts[0], &actions, nullptr, texts.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        m_input.reader.Close();
        url.writer.Close();
        m_strUrl = nError == 0 ? ReadLine(url.reader.Get()) : std::string();
        if (m_strUrl.empty()) {
            Stop();
            throw std::runtime_error("the time-stamping authority does not start");
        }
    }
    ~RunningAuthority() { Stop(); }
    RunningAuthority(const RunningAuthority&) = delete;
    RunningAuthority& operator=(const RunningAuthority&) = delete;

    // Behind it may follow the name of a fault, for a wrong answer.
    const std::string& Url() const { return m_strUrl; }
    std::string Certificate() const { return m_directory.Path("tsa.pem"); }
    // The certificate that the authority's leads to.
    std::string Root() const { return m_directory.Path("tsa-ca.pem"); }
    // The file with the request that it got as that number, from 1 on.
    std::string Request(int nNumber) const { return m_directory.Path("requests/" + std::to_string(nNumber) + ".tsq"); }

private:
    struct Pipe {
        Pipe() {
            int ends[2];
            if (pipe2(ends, O_CLOEXEC) != 0) {
                throw std::runtime_error("no pipe");
            }
            reader = vexposix::FileDescriptor(ends[0]);
            writer = vexposix::FileDescriptor(ends[1]);
        }
        vexposix::FileDescriptor reader;
        vexposix::FileDescriptor writer;
    };

    static std::string ReadLine(int nDescriptor) {
        std::string strLine;
        for (char ch = 0; read(nDescriptor, &ch, 1) == 1 && ch != '\n';) {
            strLine += ch;
        }
        return strLine;
    }

    void Stop() {
        if (m_nProcess > 0) {
            kill(m_nProcess, SIGTERM);
            waitpid(m_nProcess, nullptr, 0);
        }
    }

    TempDirectory m_directory;
    Pipe m_input;  // which nobody writes to
    pid_t m_nProcess = -1;
    std::string m_strUrl;
};
