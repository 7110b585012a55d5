// The least that an exchange with a server on this machine can cost: each step by hand, and nothing else. It has one
// socket option as time-out for each direction. It does not handle signals or requests from the server. Its trace only
// checks whether it is on.
//
// One thread.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "RouteMessage.h"

namespace bench {

class FloorExchange {
public:
    // The reply's payload; empty if there is no reply.
    static std::string Run(USHORT usSession, USHORT usObject, const std::string& strPayload, int nSeconds) {
        RegClient owner = {};
        timeval now = {};
        gettimeofday(&now, nullptr);
        owner.ObjID = static_cast<USHORT>(std::rand() % 65535 + now.tv_usec);  // NOLINT(cert-msc30-c,cert-msc50-cpp)
        owner.SessionID = Account();
        timespec ticks = {};
        clock_gettime(CLOCK_MONOTONIC, &ticks);

        Trace(2);  // send start, connect
        const int nSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(8665 + usSession + usObject));
        if (connect(nSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            close(nSocket);
            return {};
        }
        SetTimeout(nSocket, SO_RCVTIMEO, 10);
        SetTimeout(nSocket, SO_SNDTIMEO, 10);
        Trace(1);
        owner.SessionID = static_cast<USHORT>(nSocket);
        bool bDone = send(nSocket, &owner, sizeof owner, MSG_NOSIGNAL) == sizeof owner;
        Trace(2);
        char chStatus = 0;
        bDone = bDone && recv(nSocket, &chStatus, 1, 0) == 1 && chStatus == 0;
        Trace(1);

        RouteMessageHeader header = {};
        header.Source = owner;
        header.Destination.SessionID = usSession;
        header.Destination.ObjID = usObject;
        header.SequenceNum = static_cast<DWORD>(ticks.tv_sec * 1000 + ticks.tv_nsec / 1000000);
        header.Paramter = 4;
        header.MessageLen = strPayload.size();
        std::string strMessage(reinterpret_cast<const char*>(&header), sizeof header);
        strMessage += strPayload;
        Trace(1);
        bDone = bDone && send(nSocket, strMessage.data(), strMessage.size(), MSG_NOSIGNAL) ==
                             static_cast<ssize_t>(strMessage.size());
        Trace(2);
        SetTimeout(nSocket, SO_RCVTIMEO, nSeconds);
        Trace(1);
        RouteMessageHeader reply = {};
        std::string strReply;
        if (bDone && ReceiveAll(nSocket, &reply, sizeof reply) && reply.SequenceNum == header.SequenceNum + 1) {
            strReply.resize(reply.MessageLen);
            if (!ReceiveAll(nSocket, strReply.data(), strReply.size())) {
                strReply.clear();
            }
        }
        close(nSocket);
        Trace(1);
        return strReply;
    }

private:
    static USHORT Account() {
        char szOutput[33] = {};
        std::FILE* const pPipe = popen("id -u", "re");  // NOLINT(cert-env33-c): a constant command
        if (pPipe == nullptr || read(fileno(pPipe), szOutput, 32) <= 0) {
            std::abort();
        }
        pclose(pPipe);
        return static_cast<USHORT>(std::strtol(szOutput, nullptr, 10));
    }

    // Checks for each of these trace lines whether the trace is on.
    static void Trace(int nLines) {
        for (int i = 0; i < nLines; ++i) {
            if (access("/tmp/testPipe", F_OK) == 0) {
                std::abort();  // the trace must be off for a measurement
            }
        }
    }

    static void SetTimeout(int nSocket, int nOption, int nSeconds) {
        const timeval time = {nSeconds, 0};
        setsockopt(nSocket, SOL_SOCKET, nOption, &time, sizeof time);
    }

    static bool ReceiveAll(int nSocket, void* pData, std::size_t cbData) {
        char* pch = static_cast<char*>(pData);
        while (cbData > 0) {
            const ssize_t cb = recv(nSocket, pch, cbData, 0);
            if (cb <= 0) {
                return false;
            }
            pch += cb;
            cbData -= static_cast<std::size_t>(cb);
        }
        return true;
    }
};

}  // namespace bench
