// One client's connection: its registration, then requests and replies in turn until either side ends it.
//
// For the thread of the socket's executor. A session lives as long as something of its is under way.
#pragma once

#include <array>
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

namespace vexfiled {

// What all sessions share; it outlives them.
struct SessionSetting {
    RequestHandler& handler;
    Log& log;
    USHORT usPort;                 // the server's
    std::size_t cbMaxMessage;      // payload
    std::chrono::seconds timeout;  // for each thing that a client is waited for
};

class Session : public std::enable_shared_from_this<Session> {
public:
    enum class Admission { kServed, kRefused };

    // fnEnded is called once, when the session takes part in nothing any more.
    Session(asio::ip::tcp::socket socket, std::uint64_t uNumber, Admission admission, const SessionSetting& setting,
            std::function<void(Session&)> fnEnded);

    bool IsServed() const { return m_admission == Admission::kServed; }

    void Start();

    // Ends it: at once, or after the reply that is on its way.
    void Finish();

    // Ends it at once.
    void End();

private:
    enum class Stage { kRegistration, kIdle, kHeader, kPayload, kReply };

    void AnswerRegistration();
    void WaitForMessage();
    void ReadHeader();
    void CheckHeader();
    void ReadPayload();
    void Answer();

    void Enter(Stage stage);
    void OnTimeout();
    void OnError(const asio::error_code& error, std::size_t cbDone);
    void Drop(std::string_view strReason);

    // A completion handler: the next step, unless there was an error or the session has ended meanwhile.
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
