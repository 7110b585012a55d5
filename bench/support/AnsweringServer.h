// A server in its own process. It answers every request with that request's payload, one client at a time.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>

#include "Bench.h"
#include "RouteMessage.h"

namespace bench {

class AnsweringServer {
public:
    AnsweringServer() {
        const int nListener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t cbAddress = sizeof address;
        Require(bind(nListener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                    listen(nListener, 16) == 0 &&
                    getsockname(nListener, reinterpret_cast<sockaddr*>(&address), &cbAddress) == 0,
                "a socket to listen on");
        m_uPort = ntohs(address.sin_port);
        const pid_t nParent = getpid();
        m_nServer = fork();
        Require(m_nServer >= 0, "a process for the server");
        if (m_nServer == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() == nParent) {
                Serve(nListener);
            }
            _exit(0);
        }
        close(nListener);
    }
    AnsweringServer(const AnsweringServer&) = delete;
    AnsweringServer& operator=(const AnsweringServer&) = delete;
    ~AnsweringServer() { kill(m_nServer, SIGKILL); }

    // It listens for this object of session 0.
    USHORT Object() const { return static_cast<USHORT>(m_uPort - 8665); }

private:
    static bool Receive(int nSocket, void* pData, std::size_t cbData) {
        return cbData == 0 || recv(nSocket, pData, cbData, MSG_WAITALL) == static_cast<ssize_t>(cbData);
    }

    static void Serve(int nListener) {
        for (;;) {
            const int nSocket = accept(nListener, nullptr, nullptr);
            RegClient client = {};
            RouteMessageHeader header = {};
            if (Receive(nSocket, &client, sizeof client) && send(nSocket, "", 1, MSG_NOSIGNAL) == 1 &&
                Receive(nSocket, &header, sizeof header)) {
                std::string strReply(sizeof header + header.MessageLen, 0);
                if (Receive(nSocket, strReply.data() + sizeof header, header.MessageLen)) {
                    const RegClient source = header.Source;
                    header.Source = header.Destination;
                    header.Destination = source;
                    header.SequenceNum = header.SequenceNum + 1;
                    header.Paramter = 0;
                    strReply.replace(0, sizeof header, reinterpret_cast<const char*>(&header), sizeof header);
                    send(nSocket, strReply.data(), strReply.size(), MSG_NOSIGNAL);
                }
            }
            close(nSocket);
        }
    }

    std::uint16_t m_uPort = 0;
    pid_t m_nServer = -1;
};

}  // namespace bench
