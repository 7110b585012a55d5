// The server: one thread that waits for clients, signals and timers, and does one thing at a time.
#pragma once

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <cstdint>
#include <memory>
#include <unordered_map>

#include "FileTable.h"
#include "Log.h"
#include "Options.h"
#include "RequestHandler.h"
#include "Root.h"
#include "Session.h"

namespace vexfiled {

class Server {
public:
    // Starts to listen. The arguments must outlive the server. Throws std::system_error if the port is not available.
    Server(const Options& options, const Root& root, Log& log);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Serves until SIGTERM or SIGINT; ignores SIGHUP. Then accepts nothing new, and returns when the pending replies
    // are sent, after five seconds, or on a second such signal.
    void Run();

    // The most descriptors that are open at once.
    static std::size_t MaxDescriptors(const Options& options);

private:
    void WaitForSignal();
    void Accept();
    void OnAccepted(asio::ip::tcp::socket socket);
    void OnSessionEnded(Session& session);
    void WaitForHousekeeping();
    void Stop();
    void EndAllSessions();

    const Options& m_options;
    Log& m_log;
    asio::io_context m_context;
    asio::ip::tcp::acceptor m_acceptor;
    asio::signal_set m_signals;
    asio::steady_timer m_acceptTimer;        // until accepting is tried again
    asio::steady_timer m_housekeepingTimer;  // until expired files are closed
    asio::steady_timer m_stopTimer;          // until the server ends without waiting for replies
    FileTable m_files;
    RequestHandler m_handler;
    SessionSetting m_setting;
    std::unordered_map<Session*, std::shared_ptr<Session>> m_sessions;
    std::size_t m_cServed = 0;  // sessions that are served, not refused
    std::uint64_t m_uLastNumber = 0;
    bool m_bStopping = false;
};

}  // namespace vexfiled
