// Random scripts for the other end. The IPC client meets servers that stall, send byte by byte, lie about lengths and
// reset; the file server meets clients that do the same. Sixteen run at a time. Nothing crashes or leaks, memory does
// not grow with a claimed length, and well-behaved peers are served.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Amount.h"
#include "FileServerFixture.h"
#include "PipeIPC.h"
#include "SocketCalls.h"
#include "Threads.h"
#include "posix/FileDescriptor.h"

namespace {

using Random = std::mt19937_64;
using vexposix::FileDescriptor;

constexpr int kParallel = 16;
constexpr long kMaxMoreKilobytes = 64L * 1024;
constexpr long kSendFailed = 0xE0010004;
constexpr long kReceiveFailed = 0xE0010005;

// Lengths at the limits of 32- and 64-bit arithmetic and of the headers, and random ones.
std::uint64_t RandomLength(Random& random) {
    constexpr std::array<std::uint64_t, 16> kLengths = {
        0,           1,           5,           33,          34,         100'000,    0x7FFFFFFF - 34, 0x7FFFFFFF,
        0x80000000U, 0xFFFFFFFFU, 0x100000005, 0x100000000, 1ULL << 62, 1ULL << 63, ~0ULL - 33,      ~0ULL};
    return random() % 8 == 0 ? random() : kLengths[random() % kLengths.size()];
}

std::string RandomBytes(Random& random, std::size_t cbMost) {
    std::string strBytes(random() % (cbMost + 1), '\0');
    for (char& ch : strBytes) {
        ch = static_cast<char>(random());
    }
    return strBytes;
}

void TurnOverSomeBits(Random& random, std::string& strBytes) {
    for (std::uint64_t n = random() % 4; n > 0 && !strBytes.empty(); --n) {
        char& ch = strBytes[random() % strBytes.size()];
        ch = static_cast<char>(ch ^ 1 << random() % 8);
    }
}

bool Wait(int nSocket, short nEvents, int nMilliseconds) {
    pollfd entry{nSocket, nEvents, 0};
    return poll(&entry, 1, nMilliseconds) > 0;
}

// Sends all bytes. False: the other end does not accept them.
bool SendAll(int nSocket, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t cb = send(nSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (cb <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(cb));
    }
    return true;
}

// Receives at most cb bytes within the time.
std::string ReceiveSome(int nSocket, std::size_t cb, int nMilliseconds) {
    std::string strBytes;
    while (strBytes.size() < cb && Wait(nSocket, POLLIN, nMilliseconds)) {
        std::array<char, 4096> buffer{};
        const ssize_t cbNow = recv(nSocket, buffer.data(), std::min(buffer.size(), cb - strBytes.size()), 0);
        if (cbNow <= 0) {
            break;
        }
        strBytes.append(buffer.data(), static_cast<std::size_t>(cbNow));
    }
    return strBytes;
}

// Sends the bytes of a script: whole, byte by byte, cut, after a while, or never.
void SendSomehow(Random& random, int nSocket, std::string_view bytes) {
    switch (random() % 6) {
        case 0:
            for (std::size_t i = 0; i < bytes.size() && i < 60 && SendAll(nSocket, bytes.substr(i, 1)); ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(random() % 3));
            }
            break;
        case 1:
            SendAll(nSocket, bytes.substr(0, random() % (bytes.size() + 1)));
            break;
        case 2:
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 40));
            SendAll(nSocket, bytes);
            break;
        default:
            SendAll(nSocket, bytes);
            break;
    }
}

void EndSomehow(Random& random, FileDescriptor& socket) {
    switch (random() % 4) {
        case 0: {
            const linger atOnce{1, 0};  // a reset
            setsockopt(socket.Get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
            break;
        }
        case 1:
            shutdown(socket.Get(), SHUT_WR);
            ReceiveSome(socket.Get(), 1 << 20, 100);
            break;
        case 2:
            ReceiveSome(socket.Get(), 1 << 20, 100);  // stalls until the other end has enough
            break;
        default:
            break;
    }
    socket = FileDescriptor();
}

// Calls fnWork(n) for each n below nAll, on several threads.
void InParallel(long nAll, const std::function<void(long)>& fnWork) {
    std::atomic<long> nNext{0};
    OnThreads(kParallel, [&](int) {
        for (long n = 0; (n = nNext++) < nAll;) {
            fnWork(n);
        }
    });
}

// "VmRSS", "VmHWM" of a process, in kilobytes.
long MemoryOf(pid_t nProcess, const std::string& strField) {
    std::ifstream file("/proc/" + std::to_string(nProcess) + "/status");
    for (std::string strLine; std::getline(file, strLine);) {
        if (strLine.starts_with(strField + ":")) {
            return std::strtol(strLine.c_str() + strField.size() + 1, nullptr, 10);
        }
    }
    return -1;
}

// Resets "VmHWM", which from now on shows the peak since this call.
void ForgetMostMemory(pid_t nProcess) {
    std::ofstream("/proc/" + std::to_string(nProcess) + "/clear_refs") << "5";
}

std::size_t DescriptorsOf(pid_t nProcess) {
    const std::filesystem::directory_iterator entries("/proc/" + std::to_string(nProcess) + "/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

// Waits at most twenty seconds until the process has as few descriptors as before.
void ExpectDescriptors(pid_t nProcess, std::size_t cExpected) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (DescriptorsOf(nProcess) > cExpected && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_LE(DescriptorsOf(nProcess), cExpected);
}

void ExpectLittleMemory(pid_t nProcess, long nBefore, const char* pszWho) {
    const long nMore = MemoryOf(nProcess, "VmHWM") - nBefore;
    std::printf("%s: at most %ld KiB more memory\n", pszWho, nMore);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // their shadows grow with each block
    EXPECT_LT(nMore, kMaxMoreKilobytes);
#endif
}

// ---- Servers, for the client ----

// Listens on a port of its own and serves one connection.
class RandomServer {
public:
    RandomServer() : m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t cb = sizeof address;
        EXPECT_EQ(bind(m_listener.Get(), reinterpret_cast<const sockaddr*>(&address), cb), 0);
        EXPECT_EQ(listen(m_listener.Get(), 1), 0);
        EXPECT_EQ(getsockname(m_listener.Get(), reinterpret_cast<sockaddr*>(&address), &cb), 0);
        m_uPort = ntohs(address.sin_port);
    }

    std::uint16_t Object() const { return static_cast<std::uint16_t>(m_uPort - 8665); }

    // Answers correctly or by a random script. Returns the reply that the client gets if it gets one.
    std::string Serve(Random& random, bool bRight) {
        FileDescriptor connection(accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!bRight && random() % 8 == 0) {
            EndSomehow(random, connection);
            return {};
        }
        ReceiveSome(connection.Get(), 5, 1000);
        if (!bRight && random() % 8 == 0) {
            SendSomehow(random, connection.Get(), RandomBytes(random, 4096));
            EndSomehow(random, connection);
            return {};
        }
        SendAll(connection.Get(), std::string(1, !bRight && random() % 8 == 0 ? 'x' : '\0'));
        const std::string strRequest = ReceiveSome(connection.Get(), 34, 1000);
        if (strRequest.size() < 34) {
            return {};
        }
        ReceiveSome(connection.Get(), NumberAt(strRequest, 26), 1000);
        const std::string strPayload = RandomBytes(random, random() % 4 == 0 ? 100'000 : 100) + "x";
        const auto header = [&](std::uint64_t uLength) {
            return strRequest.substr(5, 5) + strRequest.substr(0, 5) + Number(NumberAt(strRequest, 10) + 1) +
                   Number(0) + Number(uLength);
        };
        if (bRight) {
            SendAll(connection.Get(), header(strPayload.size()) + strPayload);
            ReceiveSome(connection.Get(), 1, 1000);
            return strPayload;
        }
        std::string strHeader = header(random() % 2 == 0 ? strPayload.size() : RandomLength(random));
        TurnOverSomeBits(random, strHeader);
        SendSomehow(random, connection.Get(), random() % 8 == 0 ? RandomBytes(random, 4096) : strHeader + strPayload);
        EndSomehow(random, connection);
        return strPayload.substr(0, NumberAt(strHeader, 26));
    }

private:
    FileDescriptor m_listener;
    std::uint16_t m_uPort = 0;
};

TEST(PeersTest, ServersForTheClient) {
    // Without this, libc keeps freed large blocks to use them again, up to 64 MiB in each of its arenas.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    const long nServers = AmountOf("VEX_TEST_PEERS", 500) / 2;
    const std::uint64_t uSeed = SeedOfRun();
    std::atomic<long> nAnswered{0};
    std::atomic<long> nRight{0};
    const auto exchange = [&](long n) {
        Random random(uSeed * 1'000'003 + static_cast<std::uint64_t>(n));
        const socket_calls::UserCommand user{nullptr};  // instead of starting a process for each exchange
        RandomServer server;
        const bool bRight = random() % 8 == 0;
        std::string strSent;
        std::thread serving([&, uServerSeed = random()] {
            Random serverRandom(uServerSeed);
            strSent = server.Serve(serverRandom, bRight);
        });
        CPipeIPC client;
        CSmartBuffer reply("before", 6);
        std::string strRequest = RandomBytes(random, random() % 8 == 0 ? 200'000 : 200);
        const long lResult = client.SendMessageAndWait(0, server.Object(), reinterpret_cast<PBYTE>(strRequest.data()),
                                                       strRequest.size(), reply, bRight ? 20'000 : 20 + random() % 100);
        serving.join();
        const std::string strReply(reinterpret_cast<const char*>(reply.GetBytes()), reply.GetSize());
        if (lResult == 0) {
            ++nAnswered;
            EXPECT_TRUE(strReply == strSent) << "server " << n << ", seed " << uSeed;
        } else {
            EXPECT_TRUE(lResult == kSendFailed || lResult == kReceiveFailed) << lResult;
            EXPECT_EQ(strReply, "before") << "server " << n << ", seed " << uSeed;
        }
        if (bRight) {
            ++nRight;
            EXPECT_EQ(lResult, 0) << "server " << n << ", seed " << uSeed;
        }
    };
    InParallel(kParallel * 2, exchange);  // so that libc's first allocations do not count
    const std::size_t cDescriptors = DescriptorsOf(getpid());
    const long nBefore = MemoryOf(getpid(), "VmRSS");
    ForgetMostMemory(getpid());
    nAnswered = nRight = 0;
    InParallel(nServers, exchange);
    ExpectDescriptors(getpid(), cDescriptors);
    ExpectLittleMemory(getpid(), nBefore, "The IPC client");
    EXPECT_GT(nRight, 0);
    std::printf("%ld servers, %ld of them answered well enough, %ld of them rightly\n", nServers, nAnswered.load(),
                nRight.load());
}

// ---- Clients, for the server ----

FileDescriptor ConnectTo(std::uint16_t uPort) {
    FileDescriptor connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(uPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return connection;
}

std::string RandomRequest(Random& random) {
    const std::uint64_t uId = random() % 4;
    switch (random() % 8) {
        case 0:
            return OpenRequest(RandomBytes(random, 40));
        case 1:
            return FileRequest(random() % 16, RandomBytes(random, 64));
        case 2:
            return ReadRequest(uId, RandomLength(random));
        case 3:
            return SeekToRequest(uId, RandomLength(random));
        case 4:
            return Number(10) + Number(0) + Number(RandomLength(random)) + Number(uId) + Number(RandomLength(random)) +
                   RandomBytes(random, 64);
        case 5:
            return FileRequest(1, Number(RandomLength(random)) + RandomBytes(random, 16));
        case 6:
            return RandomBytes(random, 4096);
        default:
            return WriteRequest(uId, RandomBytes(random, 200));
    }
}

void RunClient(Random& random, std::uint16_t uPort) {
    FileDescriptor connection = ConnectTo(uPort);
    if (random() % 8 != 0) {
        SendSomehow(random, connection.Get(), RandomBytes(random, 0) + std::string(5, 'r'));
        ReceiveSome(connection.Get(), 1, 50);
    }
    for (std::uint64_t n = random() % 4; n > 0; --n) {
        const std::string strPayload = RandomRequest(random);
        std::string strHeader =
            MessageHeader(uPort, random() % 2 == 0 ? strPayload.size() : RandomLength(random)).Bytes();
        TurnOverSomeBits(random, strHeader);
        SendSomehow(random, connection.Get(), random() % 8 == 0 ? RandomBytes(random, 8192) : strHeader + strPayload);
        if (random() % 2 == 0) {
            ReceiveSome(connection.Get(), 4096, 20);
        }
    }
    EndSomehow(random, connection);
}

using PeersFileServer = FileServerFixture;

TEST_F(PeersFileServer, ClientsForTheServer) {
    const long nClients = AmountOf("VEX_TEST_PEERS", 500) / 2;
    const std::uint64_t uSeed = SeedOfRun();
    Start({"--idle-seconds", "3", "--allow-any"});
    const pid_t nServer = m_server->Process();
    const std::size_t cDescriptors = DescriptorsOf(nServer);
    const std::uint64_t uId = Open("good");
    const auto client = [&](long n) {
        Random random(uSeed * 1'000'003 + static_cast<std::uint64_t>(n));
        RunClient(random, m_uPort);
    };
    InParallel(kParallel * 2, client);
    const long nBefore = MemoryOf(nServer, "VmRSS");
    ForgetMostMemory(nServer);
    std::atomic<bool> bOver{false};
    std::string strWritten;
    // A well-behaved client is served all the time.
    std::thread good([&] {
        do {
            const std::string strLine = "line " + std::to_string(strWritten.size()) + "\n";
            if (NumberAt(Ask(WriteRequest(uId, strLine)), 0, 4) != 1) {
                ADD_FAILURE() << "the server refused a correct request";
                return;
            }
            strWritten += strLine;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        } while (!bOver);
    });
    InParallel(nClients, client);
    bOver = true;
    good.join();
    EXPECT_EQ(Ask(FlushRequest(uId)), kDoneReply);
    EXPECT_EQ(Content("good"), strWritten);
    // The server closes the files of random requests when they have been idle for a while.
    ExpectDescriptors(nServer, cDescriptors);
    ExpectLittleMemory(nServer, nBefore, "The file server");
    m_server->Signal(SIGTERM);
    const ServerEnd end = m_server->Wait();
    EXPECT_EQ(end.nStatus, 0) << "signal " << end.nSignal;
    std::printf("%ld clients; %zu bytes written rightly meanwhile\n", nClients, strWritten.size());
}

}  // namespace
