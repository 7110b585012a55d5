// The server: one thread that waits for clients, signals and timers, and does one thing at a time.
#pragma once

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "AllowedUsers.h"
#include "FileTable.h"
#include "Log.h"
#include "Options.h"
#include "RequestHandler.h"
#include "Root.h"
#include "Session.h"
#include "SocketOwners.h"
#include "Totals.h"

namespace vexfiled {

class Server {
public:
    // Starts to listen. The arguments must outlive the server. Throws std::exception if the port is not available, or
    // if the server cannot tell users apart but has to.
    Server(const Options& options, const Root& root, Log& log);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Serves until SIGTERM or SIGINT. Then accepts nothing new, and returns when the pending replies are sent, after
    // five seconds, or on a second such signal. SIGHUP: looks up the allowed users again.
    void Run();

    // The most descriptors that are open at once.
    static std::size_t MaxDescriptors(const Options& options);

private:
    void WaitForSignal();
    void Accept();
    void OnAccepted(asio::ip::tcp::socket socket);
    void OnSessionEnded(Session& session);
    std::string ReasonToRefuse(asio::ip::tcp::socket& socket);
    void LogHolders();
    void LookUpUsers();
    void Tell(const char* pszLine);
    void WaitForHousekeeping();
    void WaitForTotals();
    void Stop();
    void EndAllSessions();

    const Options& m_options;
    Log& m_log;
    asio::io_context m_context;
    asio::ip::tcp::acceptor m_acceptor;
    asio::signal_set m_signals;
    asio::steady_timer m_acceptTimer;        // until accepting is tried again
    asio::steady_timer m_housekeepingTimer;  // until expired files are closed
    asio::steady_timer m_totalsTimer;        // until the totals are logged
    asio::steady_timer m_stopTimer;          // until the server ends without waiting for replies
    AllowedUsers m_allowedUsers;
    std::optional<SocketOwners> m_owners;  // may be missing if every user is served
    Totals m_totals;
    FileTable m_files;
    RequestHandler m_handler;
    SessionSetting m_setting;
    std::unordered_map<Session*, std::shared_ptr<Session>> m_sessions;
    std::size_t m_cServed = 0;  // sessions that are served, not refused
    std::uint64_t m_uLastNumber = 0;
    std::chrono::steady_clock::time_point m_nextHolders;  // when LogHolders may log again
    bool m_bStopping = false;
};

}  // namespace vexfiled
