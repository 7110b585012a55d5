// A server on the loopback interface that follows a test's script, byte by byte, also when the script breaks the
// protocol.
//
// It shares only the layout of the records with the client, written as plain bytes. It reports failures with
// GoogleTest's macros. Nothing waits longer than a minute.
#pragma once

#include <cstdint>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

// Little-endian numbers as bytes, and back.
std::string Bytes16(std::uint16_t n);
std::string Bytes32(std::uint32_t n);
std::string Bytes64(std::uint64_t n);
std::uint64_t NumberAt(std::string_view bytes, std::size_t nOffset, std::size_t cbNumber);

// A route message as the tests see it.
struct PeerMessage {
    std::uint16_t uSourceSession = 0;
    std::uint16_t uSourceObject = 0;
    std::uint8_t uSourceCallBack = 0;
    std::uint16_t uDestinationSession = 0;
    std::uint16_t uDestinationObject = 0;
    std::uint8_t uDestinationCallBack = 0;
    std::uint64_t uSequence = 0;
    std::uint64_t uParamter = 0;
    std::optional<std::uint64_t> uLength;  // in the header; default: the payload's length
    std::string strPayload;

    std::string Header() const;
    std::string Bytes() const { return Header() + strPayload; }
};

// One accepted connection.
class PeerConnection {
public:
    explicit PeerConnection(int nSocket);
    PeerConnection(const PeerConnection&) = delete;
    PeerConnection& operator=(const PeerConnection&) = delete;
    ~PeerConnection() { Close(); }

    // Receives exactly cb bytes. If fewer come, returns those and fails the test.
    std::string Receive(std::size_t cb);
    // Receives until the other end is closed.
    std::string ReceiveToEnd();
    // Receives a whole message.
    PeerMessage ReceiveMessage();
    // Waits for the next byte without receiving it. FALSE: the other end is closed.
    bool HasMore();

    // FALSE: the other end does not accept the bytes.
    bool Send(std::string_view bytes);
    // Sends the bytes so that no two are in one segment.
    void SendByteByByte(std::string_view bytes);

    // Receives the registration, accepts it and receives the request.
    PeerMessage AcceptRequest();
    // The same for a client that may give up before its request.
    std::optional<PeerMessage> AcceptRequestIfAny();
    // Builds the correct answer to a request.
    static PeerMessage ReplyTo(const PeerMessage& request, std::string strPayload);
    void Reply(const PeerMessage& request, std::string strPayload);

    void ShutdownSending();
    void Close();
    // Closes the connection with a reset.
    void Reset();

    int Socket() const { return m_nSocket; }

private:
    int m_nSocket;
};

// Listens on a free port and runs the script for each connection, one after the other, until it is destroyed.
class ScriptedPeer {
public:
    using Script = std::function<void(PeerConnection&)>;

    explicit ScriptedPeer(Script script);
    ScriptedPeer(const ScriptedPeer&) = delete;
    ScriptedPeer& operator=(const ScriptedPeer&) = delete;
    ~ScriptedPeer() { Finish(); }

    // Accepts no further connections, and waits for the running script.
    void Finish();

    std::uint16_t Port() const { return m_uPort; }
    // The object of session 0 that has this port.
    std::uint16_t Object() const { return static_cast<std::uint16_t>(m_uPort - 8665); }

private:
    void Run();

    Script m_script;
    int m_nListener = -1;
    std::uint16_t m_uPort = 0;
    std::promise<void> m_running;
    std::thread m_thread;
};

// A port of the loopback interface. As long as the object exists, nobody listens on it or nobody answers.
class SilentPort {
public:
    enum class Kind {
        kRefusing,  // connecting fails at once
        kFull,      // connecting waits: the queue of connections is full
    };
    explicit SilentPort(Kind kind);
    SilentPort(const SilentPort&) = delete;
    SilentPort& operator=(const SilentPort&) = delete;
    ~SilentPort();

    std::uint16_t Port() const { return m_uPort; }
    std::uint16_t Object() const { return static_cast<std::uint16_t>(m_uPort - 8665); }

private:
    int m_nListener = -1;
    int m_waiting[8] = {-1, -1, -1, -1, -1, -1, -1, -1};
    std::uint16_t m_uPort = 0;
};
