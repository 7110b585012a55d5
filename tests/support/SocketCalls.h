// Lets tests set what the IPC client gets from the platform: its random identity, the time, the file server's port, and
// failing calls.
//
// SocketCalls.cpp defines rand, gettimeofday, popen, socket, connect, send, recv, pthread_create and HeapAlloc. By
// default they do what those of libc and of the toolkit do.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <string_view>

namespace socket_calls {

// Each works for the calling thread, as long as the object exists.

// Exchanges identify themselves as that object: rand returns its number, and the time has no microseconds.
class Identity {
public:
    explicit Identity(std::uint16_t uObject);
    Identity(const Identity&) = delete;
    Identity& operator=(const Identity&) = delete;
    ~Identity();
};

// The time stands still.
class FixedTime {
public:
    FixedTime(std::time_t seconds, int nMicroseconds);
    FixedTime(const FixedTime&) = delete;
    FixedTime& operator=(const FixedTime&) = delete;
    ~FixedTime();
};

// The nth call of that function from now on fails with that errno (pthread_create: returns it; HeapAlloc: null).
class Failure {
public:
    Failure(std::string_view function, int nErrno, int nCall = 1);
    Failure(const Failure&) = delete;
    Failure& operator=(const Failure&) = delete;
    ~Failure();

    // Whether there was an nth call.
    static bool Happened();
};

// Replaces the command "id -u".
class UserCommand {
public:
    // Null: popen fails.
    explicit UserCommand(const char* pszCommand);
    UserCommand(const UserCommand&) = delete;
    UserCommand& operator=(const UserCommand&) = delete;
    ~UserCommand();
};

// Runs the function when recv on another thread meets the end of a connection, on that thread, before recv returns.
// errno is then a meaningless number, as after any successful call.
class AtEndOfConnection {
public:
    explicit AtEndOfConnection(std::function<void()> function);
    AtEndOfConnection(const AtEndOfConnection&) = delete;
    AtEndOfConnection& operator=(const AtEndOfConnection&) = delete;
    ~AtEndOfConnection();
};

// The descriptor of the thread's last call of socket.
int LastSocket();

// For the whole program, as long as the object exists: connections to the file server's port go to this port.
class FileServerPort {
public:
    explicit FileServerPort(std::uint16_t uPort);
    FileServerPort(const FileServerPort&) = delete;
    FileServerPort& operator=(const FileServerPort&) = delete;
    ~FileServerPort();
};

}  // namespace socket_calls
