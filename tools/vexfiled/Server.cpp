#include "Server.h"

#include <asio/error.hpp>
#include <asio/ip/address_v4.hpp>
#include <chrono>
#include <csignal>
#include <new>
#include <system_error>
#include <utility>
#include <vector>

#include "Text.h"

namespace vexfiled {

using namespace std::chrono_literals;
using asio::ip::tcp;

namespace {

// A client beyond --max-connections is refused in the reply to its registration. At most this many clients are being
// refused at a time; the server closes further connections without a reply.
constexpr std::size_t kMaxRefusals = 64;

tcp::acceptor Listen(asio::io_context& context, std::uint16_t uPort) {
    try {
        // Reuses the port of a server that has just ended. Fails if another server listens on it.
        return tcp::acceptor(context, tcp::endpoint(asio::ip::address_v4::loopback(), uPort));
    } catch (const std::system_error& error) {
        throw std::system_error(error.code(), Text("port ", uPort, " of 127.0.0.1"));
    }
}

}  // namespace

Server::Server(const Options& options, const Root& root, Log& log)
    : m_options(options),
      m_log(log),
      m_context(1),
      m_acceptor(Listen(m_context, options.uPort)),
      m_signals(m_context, SIGTERM, SIGINT, SIGHUP),
      m_acceptTimer(m_context),
      m_housekeepingTimer(m_context),
      m_stopTimer(m_context),
      m_files(options.files),
      m_handler(root, m_files, options.cbMaxMessage),
      m_setting{m_handler, log, m_acceptor.local_endpoint().port(), options.cbMaxMessage, options.clientTimeout} {}

std::size_t Server::MaxDescriptors(const Options& options) {
    constexpr std::size_t kOwn =
        16;  // standard streams, listening and waiting, directories on the way to a file; and a reserve
    return options.files.cMaxFiles + options.cMaxConnections + kMaxRefusals + kOwn;
}

void Server::Run() {
    m_log.Event(Text("listening on 127.0.0.1:", m_setting.usPort, ", files below ", m_options.strRoot));
    WaitForSignal();
    WaitForHousekeeping();
    Accept();
    m_context.run();
    m_log.Event("stopped");
}

void Server::WaitForSignal() {
    m_signals.async_wait([this](const asio::error_code& error, int nSignal) {
        if (error) {
            return;
        }
        if (nSignal == SIGHUP) {
            m_log.Event("SIGHUP ignored: there is nothing to reopen");
            if (!m_bStopping || !m_sessions.empty()) {
                WaitForSignal();
            }
            return;
        }
        if (m_bStopping) {
            EndAllSessions();
            return;
        }
        Stop();
        m_log.Event(Text("stopping on ", nSignal == SIGTERM ? "SIGTERM" : "SIGINT"));
    });
}

void Server::Accept() {
    m_acceptor.async_accept([this](const asio::error_code& error, tcp::socket socket) {
        if (m_bStopping) {
            return;
        }
        if (!error) {
            try {
                OnAccepted(std::move(socket));
            } catch (const std::bad_alloc&) {
                m_log.Refused("a client dropped: out of memory");
            }
        }
        if (!error || error == asio::error::connection_aborted) {
            Accept();
            return;
        }
        // Descriptors or memory have run out. The client stays in the queue, so trying again at once would only use up
        // the processor.
        m_log.Refused(Text("cannot accept a connection, trying again: ", error.message()));
        m_acceptTimer.expires_after(200ms);
        m_acceptTimer.async_wait([this](const asio::error_code& cancelled) {
            if (!cancelled && !m_bStopping) {
                Accept();
            }
        });
    });
}

void Server::OnAccepted(tcp::socket socket) {
    const std::uint64_t uNumber = ++m_uLastNumber;
    const bool bServed = m_cServed < m_options.cMaxConnections;
    if (!bServed && m_sessions.size() - m_cServed >= kMaxRefusals) {
        m_log.Refused(Text("client ", uNumber, " dropped: too many connections wait for their refusal"));
        return;
    }
    m_log.Detail(Text("client ", uNumber, ": connected"));
    const auto session = std::make_shared<Session>(std::move(socket), uNumber,
                                                   bServed ? Session::Admission::kServed : Session::Admission::kRefused,
                                                   m_setting, [this](Session& ended) { OnSessionEnded(ended); });
    m_sessions.emplace(session.get(), session);
    m_cServed += bServed ? 1 : 0;
    session->Start();
}

void Server::OnSessionEnded(Session& session) {
    m_cServed -= session.IsServed() ? 1 : 0;
    m_sessions.erase(&session);
    if (m_bStopping && m_sessions.empty()) {
        m_signals.cancel();
        m_stopTimer.cancel();
    }
}

void Server::WaitForHousekeeping() {
    m_housekeepingTimer.expires_after(1s);
    m_housekeepingTimer.async_wait([this](const asio::error_code& error) {
        // Cancelling has no effect on a timer that has just expired. Waiting again would keep the server running.
        if (error || m_bStopping) {
            return;
        }
        const std::size_t cClosed = m_files.CloseExpired();
        if (cClosed > 0) {
            m_log.Detail(Text("unused files closed: ", cClosed));
        }
        m_log.ReportMissing();
        WaitForHousekeeping();
    });
}

void Server::Stop() {
    m_bStopping = true;
    asio::error_code ignored;
    m_acceptor.close(ignored);
    m_acceptTimer.cancel();
    m_housekeepingTimer.cancel();

    WaitForSignal();
    m_stopTimer.expires_after(5s);
    m_stopTimer.async_wait([this](const asio::error_code& error) {
        if (!error) {
            EndAllSessions();
        }
    });
    const auto sessions = m_sessions;  // a copy: sessions leave the table when they end
    for (const auto& [pSession, session] : sessions) {
        session->Finish();
    }
    if (m_sessions.empty()) {
        m_signals.cancel();
        m_stopTimer.cancel();
    }
}

void Server::EndAllSessions() {
    const auto sessions = m_sessions;
    for (const auto& [pSession, session] : sessions) {
        session->End();
    }
}

}  // namespace vexfiled
