#include "Server.h"

#include <asio/error.hpp>
#include <chrono>
#include <csignal>
#include <exception>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "Listener.h"
#include "ServiceManager.h"
#include "SocketUsers.h"
#include "Text.h"

namespace vexfiled {

using namespace std::chrono_literals;
using asio::ip::tcp;

namespace {

// A client that is not served is refused in the reply to its registration. At most this many clients are being refused
// at a time; the server closes further connections without a reply.
constexpr std::size_t kMaxRefusals = 64;

std::optional<SocketOwners> OwnersFor(const Options& options) {
    try {
        return SocketOwners();
    } catch (const std::system_error&) {
        if (options.bAllowAny) {
            return std::nullopt;
        }
        throw;
    }
}

}  // namespace

Server::Server(const Options& options, const Root& root, Log& log)
    : m_options(options),
      m_log(log),
      m_context(1),
      m_acceptor(Listen(m_context, options)),
      m_signals(m_context, SIGTERM, SIGINT, SIGHUP),
      m_acceptTimer(m_context),
      m_housekeepingTimer(m_context),
      m_totalsTimer(m_context),
      m_stopTimer(m_context),
      m_allowedUsers(options.allowedUsers),
      m_owners(OwnersFor(options)),
      m_files(options.files),
      m_handler(root, m_files, options.cbMaxMessage),
      m_setting{
          m_handler, log, m_totals, m_acceptor.local_endpoint().port(), options.cbMaxMessage, options.clientTimeout} {
    if (!options.bAllowAny && !m_owners->OfListener(m_setting.usPort)) {
        throw std::runtime_error(
            "the kernel does not tell users apart: its socket diagnosis for TCP is missing (modprobe tcp_diag), or the "
            "socket is from another network namespace; --allow-any serves every user");
    }
}

std::size_t Server::MaxDescriptors(const Options& options) {
    constexpr std::size_t kOwn =
        16;  // standard streams, listening and waiting, directories on the way to a file; and a reserve
    return options.files.cMaxFiles + options.cMaxConnections + kMaxRefusals + kOwn;
}

void Server::Run() {
    m_log.Event(Text("listening on 127.0.0.1:", m_setting.usPort, ", files below ", m_options.strRoot));
    m_log.Event(m_options.bAllowAny ? "serves every user of the machine" : "serves " + m_allowedUsers.Text());
    WaitForSignal();
    WaitForHousekeeping();
    WaitForTotals();
    Accept();
    Tell("READY=1");
    m_context.run();
    m_log.Event(m_totals.AsText());
    m_log.Event("stopped");
}

void Server::WaitForSignal() {
    m_signals.async_wait([this](const asio::error_code& error, int nSignal) {
        if (error) {
            return;
        }
        if (nSignal == SIGHUP) {
            LookUpUsers();
            m_log.Event(m_totals.AsText());
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
    const std::string strReason = ReasonToRefuse(socket);
    const bool bServed = strReason.empty();
    if (!bServed) {
        m_log.Refused(Text("client ", uNumber, " refused: ", strReason));
        if (m_sessions.size() - m_cServed >= kMaxRefusals) {
            return;
        }
    }
    m_log.Detail(Text("client ", uNumber, ": connected"));
    const auto session = std::make_shared<Session>(std::move(socket), uNumber,
                                                   bServed ? Session::Admission::kServed : Session::Admission::kRefused,
                                                   m_setting, [this](Session& ended) { OnSessionEnded(ended); });
    m_sessions.emplace(session.get(), session);
    m_cServed += bServed ? 1 : 0;
    m_totals.uClients += bServed ? 1 : 0;
    try {
        session->Start();
    } catch (const std::bad_alloc&) {
        session->End();  // it may wait for nothing, and would keep its place for ever
        throw;
    }
}

// Empty: the client is served.
std::string Server::ReasonToRefuse(tcp::socket& socket) {
    if (!m_options.bAllowAny) {
        const auto owner = m_owners->OfPeer(socket.native_handle());
        if (!owner) {
            ++m_totals.uRefusedUsers;
            return "its user is unknown, because it has closed the connection or is in another network namespace";
        }
        if (m_allowedUsers.IsHidden(owner->user)) {
            ++m_totals.uRefusedUsers;
            return "its user is missing in the server's user namespace; start the server outside of this namespace";
        }
        if (!m_allowedUsers.Contains(owner->user)) {
            ++m_totals.uRefusedUsers;
            return Text("user ", owner->user, " is not served; to serve it, add --allow-user ", owner->user);
        }
    }
    if (m_cServed >= m_options.cMaxConnections) {
        ++m_totals.uRefusedClients;
        LogHolders();
        return Text("too many connections (", m_options.cMaxConnections, "); raise --max-connections");
    }
    return "";
}

// At most once a minute, because it looks at every process.
void Server::LogHolders() {
    const auto now = std::chrono::steady_clock::now();
    if (!m_owners || now < m_nextHolders) {
        return;
    }
    m_nextHolders = now + 1min;
    std::vector<SocketOwner> holders;
    for (const auto& [pSession, session] : m_sessions) {
        if (const auto owner = session->IsServed() ? m_owners->OfPeer(session->Descriptor()) : std::nullopt) {
            holders.push_back(*owner);
        }
    }
    m_log.Event(Text("all ", m_options.cMaxConnections, " connections are in use: ", HoldersText(holders),
                     " (as root, \"ss -tnp dport = :", m_setting.usPort, "\" shows the processes)"));
}

void Server::LookUpUsers() {
    if (m_options.bAllowAny) {
        return;
    }
    try {
        m_allowedUsers.LookUp();
        m_log.Event("serves " + m_allowedUsers.Text());
    } catch (const std::exception& error) {
        m_log.Event(Text("serves the same users as before: ", error.what()));
    }
}

// Tells the service manager, if there is one.
void Server::Tell(const char* pszLine) {
    if (const int nErrno = TellServiceManager(pszLine); nErrno != 0) {
        m_log.Event(Text("cannot tell the service manager ", pszLine, ": ", std::generic_category().message(nErrno)));
    }
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

void Server::WaitForTotals() {
    m_totalsTimer.expires_after(m_options.totalsPeriod);
    m_totalsTimer.async_wait([this](const asio::error_code& error) {
        if (!error && !m_bStopping) {
            m_log.Event(m_totals.AsText());
            WaitForTotals();
        }
    });
}

void Server::Stop() {
    m_bStopping = true;
    Tell("STOPPING=1");
    asio::error_code ignored;
    m_acceptor.close(ignored);
    m_acceptTimer.cancel();
    m_housekeepingTimer.cancel();
    m_totalsTimer.cancel();

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
