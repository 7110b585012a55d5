// What the IPC client asks of its platform, as this program's tests want it: the identity that is drawn by lot, the
// time, the port of the file server, and calls that fail.
//
// The program defines rand, gettimeofday, popen, socket, connect, send, recv, pthread_create and HeapAlloc itself;
// unless told otherwise they do what those of libc and of the toolkit do.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <string_view>

namespace socket_calls {

// For the calling thread, until its object's end.

// Exchanges identify themselves as that object: rand gives the number and the time has no microseconds.
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

// In place of "id -u".
class UserCommand {
public:
    // Null: popen fails.
    explicit UserCommand(const char* pszCommand);
    UserCommand(const UserCommand&) = delete;
    UserCommand& operator=(const UserCommand&) = delete;
    ~UserCommand();
};

// The end of connections as other threads receive it: before recv tells one of them of it, function runs there. errno
// is then a number that means nothing, as a success may leave it.
class AtEndOfConnection {
public:
    explicit AtEndOfConnection(std::function<void()> function);
    AtEndOfConnection(const AtEndOfConnection&) = delete;
    AtEndOfConnection& operator=(const AtEndOfConnection&) = delete;
    ~AtEndOfConnection();
};

// The descriptor of the thread's last call of socket.
int LastSocket();

// For the whole program, until its object's end: connections to the file server's port go to this one.
class FileServerPort {
public:
    explicit FileServerPort(std::uint16_t uPort);
    FileServerPort(const FileServerPort&) = delete;
    FileServerPort& operator=(const FileServerPort&) = delete;
    ~FileServerPort();
};

}  // namespace socket_calls
