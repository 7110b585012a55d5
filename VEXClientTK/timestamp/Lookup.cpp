#include "timestamp/Lookup.h"

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

#include "posix/ErrnoText.h"
#include "posix/ForkPhases.h"
#include "posix/NoSignals.h"
#include "posix/VisibleText.h"

namespace vextimestamp {
namespace {

addrinfo Hints(int nFlags) {
    addrinfo hints = {};
    hints.ai_flags = nFlags | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    return hints;
}

// As gai_strerror has it in English. The process may have another language.
std::string LookupText(int nError) {
    switch (nError) {
        case EAI_AGAIN:
            return "Temporary failure in name resolution";
        case EAI_FAIL:
            return "Non-recoverable failure in name resolution";
        case EAI_MEMORY:
            return "Memory allocation failure";
        case EAI_NONAME:
            return "Name or service not known";
        default:
            return "error " + std::to_string(nError) + " of getaddrinfo";
    }
}

// Lookups in all threads of this process, with those that nobody waits for any more.
std::atomic<int> s_cRunning = 0;

// Counts one.
class Running {
public:
    Running() {
        static const bool s_bForks = ForgetInChildren();
        static_cast<void>(s_bForks);
        if (++s_cRunning > kMostLookups) {
            --s_cRunning;
            throw Fault("too many earlier lookups still wait for the name servers; check these, or try again later");
        }
    }
    ~Running() { --s_cRunning; }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

private:
    // A child has none of the threads.
    static bool ForgetInChildren() {
        vexposix::AddToFork(vexposix::ForkPhase::kLookups, {nullptr, nullptr, [] { s_cRunning = 0; }});
        return true;
    }
};

// libc cannot stop a lookup that waits for a name server, and getaddrinfo_a fails in forked children. So each lookup
// has a thread of its own, and this object belongs to the thread and to the caller.
class Lookup {
public:
    Lookup(std::string strHost, std::string strPort) : m_strHost(std::move(strHost)), m_strPort(std::move(strPort)) {}

    // In its thread.
    void Run() {
        const addrinfo hints = Hints(0);
        addrinfo* pAddresses = nullptr;
        const int nError = getaddrinfo(m_strHost.c_str(), m_strPort.c_str(), &hints, &pAddresses);
        const int nErrno = errno;
        const std::lock_guard lock(m_mutex);
        m_addresses.reset(nError == 0 ? pAddresses : nullptr);
        m_nError = nError;
        m_nErrno = nErrno;
        m_bEnded = true;
        m_ended.notify_one();
    }

    // FALSE: the deadline is over. Otherwise the rest of the functions may be called.
    bool Wait(Deadline deadline) {
        std::unique_lock lock(m_mutex);
        return m_ended.wait_until(lock, deadline, [this] { return m_bEnded; });
    }

    std::string Reason() const { return m_nError == EAI_SYSTEM ? vexposix::ErrnoText(m_nErrno) : LookupText(m_nError); }
    AddressesPtr TakeAddresses() { return std::move(m_addresses); }

private:
    const Running m_running;
    const std::string m_strHost;
    const std::string m_strPort;
    std::mutex m_mutex;
    std::condition_variable m_ended;
    bool m_bEnded = false;
    int m_nError = 0;
    int m_nErrno = 0;
    AddressesPtr m_addresses;
};

std::shared_ptr<Lookup> Start(const std::string& strHost, const std::string& strPort) {
    auto lookup = std::make_shared<Lookup>(strHost, strPort);
    const vexposix::NoSignals noSignals;
    try {
        std::thread([lookup] { lookup->Run(); }).detach();
    } catch (const std::system_error& error) {
        throw Fault("the system has no thread for the lookup of a host: " + vexposix::ErrnoText(error.code().value()));
    }
    return lookup;
}

}  // namespace

AddressesPtr AddressesOf(const std::string& strHost, const std::string& strPort, Deadline deadline) {
    // An address in digits needs no thread.
    const addrinfo numeric = Hints(AI_NUMERICHOST);
    addrinfo* pAddresses = nullptr;
    if (getaddrinfo(strHost.c_str(), strPort.c_str(), &numeric, &pAddresses) == 0) {
        return AddressesPtr(pAddresses);
    }
    const std::shared_ptr<Lookup> lookup = Start(strHost, strPort);
    if (!lookup->Wait(deadline)) {
        throw Fault("the name servers do not give the address of \"" + vexposix::Visible(strHost, true) +
                    "\" in time; check the name, or allow more time");
    }
    AddressesPtr addresses = lookup->TakeAddresses();
    if (!addresses) {
        throw Fault("no address of the host \"" + vexposix::Visible(strHost, true) +
                    "\" is found: " + lookup->Reason() + "; check the name and the name servers");
    }
    return addresses;
}

}  // namespace vextimestamp
