// One client's connection: its registration, then requests and replies in turn until either side ends it.
//
// For the thread of the socket's executor. A session lives as long as one of its operations is pending.
#pragma once

#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Log.h"
#include "RequestHandler.h"
#include "RouteMessage.h"
#include "Totals.h"

namespace vexfiled {

// What all sessions share. It must outlive them.
struct SessionSetting {
    RequestHandler& handler;
    Log& log;
    Totals& totals;
    USHORT usPort;                 // the server's
    std::size_t cbMaxMessage;      // payload
    std::chrono::seconds timeout;  // for each wait for a client
};

class Session : public std::enable_shared_from_this<Session> {
public:
    enum class Admission { kServed, kRefused };

    // Calls fnEnded once, when the session has ended.
    Session(asio::ip::tcp::socket socket, std::uint64_t uNumber, Admission admission, const SessionSetting& setting,
            std::function<void(Session&)> fnEnded);

    bool IsServed() const { return m_admission == Admission::kServed; }

    int Descriptor() { return m_socket.native_handle(); }

    void Start();

    // Ends the session: after the reply that is being sent, otherwise at once.
    void Finish();

    // Ends the session at once.
    void End();

private:
    enum class Stage { kRegistration, kIdle, kHeader, kPayload, kReply };

    void AnswerRegistration();
    void WaitForMessage();
    void ReadHeader();
    void CheckHeader();
    void ReadPayload();
    void Answer();
    void CountReply();

    void Enter(Stage stage);
    void OnTimeout();
    void OnError(const asio::error_code& error, std::size_t cbDone);
    void Drop(std::string_view strReason);

    // A completion handler that does the next step, unless there was an error or the session has ended.
    template <typename Step>
    auto Then(Step step);

    asio::ip::tcp::socket m_socket;
    asio::steady_timer m_deadline;
    const std::uint64_t m_uNumber;
    const Admission m_admission;
    const SessionSetting& m_setting;
    std::function<void(Session&)> m_fnEnded;

    Stage m_stage = Stage::kRegistration;
    bool m_bFinishing = false;
    bool m_bEnded = false;

    RegClient m_registration{};
    BYTE m_bRegistrationStatus = 0;
    RouteMessageHeader m_requestHeader{};
    std::vector<BYTE> m_payload;
    RouteMessageHeader m_replyHeader{};
    std::vector<BYTE> m_reply;
};

}  // namespace vexfiled
