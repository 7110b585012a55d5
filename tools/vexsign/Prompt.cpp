#include "Prompt.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <stdexcept>

#include "common/SignalsBlocked.h"

namespace vexsign {
namespace {

constexpr std::size_t kLongestPin = 4096;
constexpr std::array kEnds = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};

volatile std::sig_atomic_t g_nSignal = 0;

void OnSignal(int nSignal) {
    g_nSignal = nSignal;
}

class Terminal {
public:
    Terminal() : m_nDescriptor(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY)) {
        if (m_nDescriptor < 0) {
            throw std::runtime_error("there is no terminal to ask for the PIN on; use --pin-source");
        }
    }
    ~Terminal() { close(m_nDescriptor); }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    int Descriptor() const { return m_nDescriptor; }
    void Write(const char* pszText) const {
        [[maybe_unused]] const ssize_t cb = write(m_nDescriptor, pszText, std::strlen(pszText));
    }

private:
    int m_nDescriptor;
};

// Signals that would end or stop the process arrive in Await alone, and end it.
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

    // True: the descriptor can be read. False: a signal came.
    bool Await(int nDescriptor) const {
        pollfd input = {nDescriptor, POLLIN, 0};
        while (g_nSignal == 0) {
            if (ppoll(&input, 1, nullptr, &m_blocked.Before()) > 0) {
                return true;
            }
        }
        return false;
    }

private:
    const tools::SignalsBlocked m_blocked{kEnds};  // until the actions are back
    std::array<struct sigaction, kEnds.size()> m_before{};
};

class EchoOff {
public:
    explicit EchoOff(const Terminal& terminal) : m_terminal(terminal) {
        if (tcgetattr(terminal.Descriptor(), &m_before) != 0) {
            throw std::runtime_error("the terminal cannot be set up to ask for the PIN");
        }
        termios quiet = m_before;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        if (tcsetattr(terminal.Descriptor(), TCSAFLUSH, &quiet) != 0) {
            throw std::runtime_error("the terminal cannot be set up to ask for the PIN");
        }
    }
    ~EchoOff() { tcsetattr(m_terminal.Descriptor(), TCSAFLUSH, &m_before); }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;

private:
    const Terminal& m_terminal;
    termios m_before{};
};

// False: interrupted, too long, or at the end without a line end.
bool ReadLine(const Terminal& terminal, const SignalsHeld& signals, std::string& strLine) {
    strLine.reserve(kLongestPin);
    char ch = 0;
    while (strLine.size() < kLongestPin && signals.Await(terminal.Descriptor()) &&
           read(terminal.Descriptor(), &ch, 1) == 1) {
        if (ch == '\n') {
            return true;
        }
        strLine += ch;
    }
    return false;
}

}  // namespace

void AskPin(const char* pszPrompt, Secret& pin) {
    const Terminal terminal;
    bool bRead = false;
    {
        const SignalsHeld signals;
        {
            const EchoOff echo(terminal);
            terminal.Write(pszPrompt);
            bRead = ReadLine(terminal, signals, pin.Text());
        }
        terminal.Write("\n");
    }
    if (g_nSignal != 0) {
        static_cast<void>(std::raise(g_nSignal));
        throw std::runtime_error("interrupted");
    }
    if (!bRead) {
        throw std::runtime_error("no PIN was given");
    }
}

}  // namespace vexsign
