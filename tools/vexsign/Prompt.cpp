#include "Prompt.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <stdexcept>

#include "common/SignalsBlocked.h"
#include "posix/FileDescriptor.h"
#include "posix/FileIo.h"

namespace vexsign {
namespace {

using vexposix::FileDescriptor;

constexpr std::size_t kLongestPin = 4096;
constexpr std::array kEnds = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};

volatile std::sig_atomic_t s_nSignal = 0;

void OnSignal(int nSignal) {
    s_nSignal = nSignal;
}

FileDescriptor OpenTerminal() {
    FileDescriptor terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
    if (!terminal.IsOpen()) {
        throw std::runtime_error("cannot ask for the PIN: there is no terminal; use --pin-source");
    }
    return terminal;
}

// Holds back the signals that would end or stop the process. Await delivers them while it waits, and then returns.
class SignalsHeld {
public:
    SignalsHeld() {
        struct sigaction action = {};
        action.sa_handler = OnSignal;
        for (std::size_t i = 0; i < kEnds.size(); ++i) {
            sigaction(kEnds[i], &action, &m_before[i]);
        }
    }
    ~SignalsHeld() {
        for (std::size_t i = 0; i < kEnds.size(); ++i) {
            sigaction(kEnds[i], &m_before[i], nullptr);
        }
    }
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;

    // True: the descriptor can be read. False: a signal has arrived.
    bool Await(int nDescriptor) const {
        pollfd input = {nDescriptor, POLLIN, 0};
        while (s_nSignal == 0) {
            if (ppoll(&input, 1, nullptr, &m_blocked.Before()) > 0) {
                return true;
            }
        }
        return false;
    }

private:
    const tools::SignalsBlocked m_blocked{kEnds};  // until the old actions are restored
    std::array<struct sigaction, kEnds.size()> m_before{};
};

class EchoOff {
public:
    explicit EchoOff(const FileDescriptor& terminal) : m_terminal(terminal) {
        const bool bKnown = tcgetattr(terminal.Get(), &m_before) == 0;
        termios quiet = m_before;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        if (!bKnown || tcsetattr(terminal.Get(), TCSAFLUSH, &quiet) != 0) {
            throw std::runtime_error(
                "cannot ask for the PIN: the terminal's echo cannot be turned off; use --pin-source");
        }
    }
    ~EchoOff() { tcsetattr(m_terminal.Get(), TCSAFLUSH, &m_before); }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;

private:
    const FileDescriptor& m_terminal;
    termios m_before{};
};

// False: interrupted, the line is too long, or the input ends without a line end.
bool ReadLine(const FileDescriptor& terminal, const SignalsHeld& signals, std::string& strLine) {
    strLine.reserve(kLongestPin);
    char ch = 0;
    while (strLine.size() < kLongestPin && signals.Await(terminal.Get()) && read(terminal.Get(), &ch, 1) == 1) {
        if (ch == '\n') {
            return true;
        }
        strLine += ch;
    }
    return false;
}

}  // namespace

void AskPin(const char* pszPrompt, Secret& pin) {
    const FileDescriptor terminal = OpenTerminal();
    bool bRead = false;
    {
        const SignalsHeld signals;
        {
            const EchoOff echo(terminal);
            vexposix::WriteAll(terminal.Get(), pszPrompt);
            bRead = ReadLine(terminal, signals, pin.Text());
        }
        vexposix::WriteAll(terminal.Get(), "\n");
    }
    if (s_nSignal != 0) {
        static_cast<void>(std::raise(s_nSignal));
        throw std::runtime_error("interrupted while asking for the PIN");
    }
    if (!bRead) {
        throw std::runtime_error("no PIN was given; type it and press Enter");
    }
}

}  // namespace vexsign
