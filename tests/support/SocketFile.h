// A socket as a file, which the products must not open.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <string>

// Returns the socket, which listens without blocking.
inline int MakeSocket(const std::string& strPath) {
    const int nSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strPath.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(nSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0) << strPath;
    EXPECT_EQ(listen(nSocket, 1), 0);
    return nSocket;
}
