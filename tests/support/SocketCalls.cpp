#include "SocketCalls.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

#include "SystemCalls.h"
#include "VEXCompat.h"

using system_calls::Next;
using system_calls::Perform;

namespace {

constexpr std::uint16_t kFileServerPort = 8766;

struct FailurePlan {
    std::string_view function;
    int nErrno = 0;
    int nCallsLeft = 0;
};

thread_local std::optional<int> t_nObject;
thread_local std::optional<timeval> t_time;
thread_local FailurePlan t_failure;
thread_local std::optional<const char*> t_pszUserCommand;
thread_local int t_nLastSocket = -1;

std::atomic<std::uint16_t> s_uFileServerPort = kFileServerPort;

struct Observer {
    pthread_t creator;
    std::function<void()> function;
};
std::atomic<Observer*> s_pAtEndOfConnection = nullptr;

Outcome Decide(const system_calls::Call& call) {
    const bool bFails = t_failure.function == call.pszName && t_failure.nCallsLeft > 0 && --t_failure.nCallsLeft == 0;
    return bFails ? Fail(t_failure.nErrno) : kReal;
}

}  // namespace

namespace socket_calls {

Identity::Identity(std::uint16_t uObject) {
    t_nObject = uObject;
}
Identity::~Identity() {
    t_nObject.reset();
}

FixedTime::FixedTime(std::time_t seconds, int nMicroseconds) {
    t_time = timeval{seconds, nMicroseconds};
}
FixedTime::~FixedTime() {
    t_time.reset();
}

Failure::Failure(std::string_view function, int nErrno, int nCall) {
    t_failure = {function, nErrno, nCall};
    system_calls::g_pDecide = Decide;
}
Failure::~Failure() {
    t_failure = {};
}
bool Failure::Happened() {
    return t_failure.nCallsLeft == 0;
}

UserCommand::UserCommand(const char* pszCommand) {
    t_pszUserCommand = pszCommand;
}
UserCommand::~UserCommand() {
    t_pszUserCommand.reset();
}

AtEndOfConnection::AtEndOfConnection(std::function<void()> function) {
    s_pAtEndOfConnection = new Observer{pthread_self(), std::move(function)};
}
AtEndOfConnection::~AtEndOfConnection() {
    delete s_pAtEndOfConnection.exchange(nullptr);
}

int LastSocket() {
    return t_nLastSocket;
}

FileServerPort::FileServerPort(std::uint16_t uPort) {
    s_uFileServerPort = uPort;
}
FileServerPort::~FileServerPort() {
    s_uFileServerPort = kFileServerPort;
}

}  // namespace socket_calls

extern "C" {

int rand() noexcept {
    static auto* const s_pNext = Next(rand, "rand");
    return t_nObject ? *t_nObject : s_pNext();
}

int gettimeofday(timeval* pTime, void* pZone) noexcept {
    static auto* const s_pNext = Next(gettimeofday, "gettimeofday");
    return Perform({"gettimeofday"}, [&](std::size_t) {
        if (t_time) {
            *pTime = *t_time;
            return 0;
        }
        const int nResult = s_pNext(pTime, pZone);
        if (t_nObject) {
            pTime->tv_usec = 0;
        }
        return nResult;
    });
}

FILE* popen(const char* pszCommand, const char* pszMode) {
    static auto* const s_pNext = Next(popen, "popen");
    if (t_pszUserCommand && *t_pszUserCommand == nullptr) {
        errno = EMFILE;
        return nullptr;
    }
    return s_pNext(t_pszUserCommand ? *t_pszUserCommand : pszCommand, pszMode);
}

int socket(int nDomain, int nType, int nProtocol) noexcept {
    static auto* const s_pNext = Next(socket, "socket");
    t_nLastSocket = Perform({"socket"}, [&](std::size_t) { return s_pNext(nDomain, nType, nProtocol); });
    return t_nLastSocket;
}

int connect(int nSocket, const sockaddr* pAddress, socklen_t cbAddress) {
    static auto* const s_pNext = Next(connect, "connect");
    return Perform({"connect"}, [&](std::size_t) {
        if (pAddress->sa_family == AF_INET) {
            sockaddr_in address = *reinterpret_cast<const sockaddr_in*>(pAddress);
            if (address.sin_port == htons(kFileServerPort)) {
                address.sin_port = htons(s_uFileServerPort);
            }
            return s_pNext(nSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        }
        return s_pNext(nSocket, pAddress, cbAddress);
    });
}

ssize_t send(int nSocket, const void* pData, size_t cbData, int nFlags) {
    static auto* const s_pNext = Next(send, "send");
    return Perform({"send"}, [&](std::size_t) { return s_pNext(nSocket, pData, cbData, nFlags); });
}

ssize_t recv(int nSocket, void* pData, size_t cbData, int nFlags) {
    static auto* const s_pNext = Next(recv, "recv");
    const ssize_t nReceived = Perform({"recv"}, [&](std::size_t) { return s_pNext(nSocket, pData, cbData, nFlags); });
    const Observer* const pObserver = s_pAtEndOfConnection;
    if (nReceived == 0 && pObserver != nullptr && pthread_equal(pObserver->creator, pthread_self()) == 0) {
        pObserver->function();
        errno = EDOM;
    }
    return nReceived;
}

LPVOID HeapAlloc(HANDLE hHeap, DWORD dwFlags, DWORD dwBytes) {
    static auto* const s_pNext = Next(HeapAlloc, "HeapAlloc");
    return Perform(
        {"HeapAlloc"}, [&](std::size_t) { return s_pNext(hHeap, dwFlags, dwBytes); }, nullptr);
}

int pthread_create(pthread_t* pThread, const pthread_attr_t* pAttributes, void* (*pFunction)(void*),
                   void* pArgument) noexcept {
    static auto* const s_pNext = Next(pthread_create, "pthread_create");
    return Perform(
        {"pthread_create"}, [&](std::size_t) { return s_pNext(pThread, pAttributes, pFunction, pArgument); },
        t_failure.nErrno);
}

}  // extern "C"
