#include "Session.h"

#include <algorithm>
#include <array>
#include <asio/buffer.hpp>
#include <asio/error.hpp>
#include <asio/read.hpp>
#include <asio/write.hpp>
#include <exception>
#include <new>
#include <utility>

#include "RequestHeader.h"
#include "Text.h"

namespace vexfiled {

template <typename Step>
auto Session::Then(Step step) {
    // async_wait has no count.
    return [self = shared_from_this(), step](const asio::error_code& error, std::size_t cbDone = 0) {
        if (self->m_bEnded) {
            return;
        }
        if (error) {
            self->OnError(error, cbDone);
            return;
        }
        try {
            (self.get()->*step)();
        } catch (const std::bad_alloc&) {  // only this client is dropped
            self->Drop("out of memory");
        } catch (const std::exception& exception) {  // no random numbers: likewise
            self->Drop(exception.what());
        }
    };
}

Session::Session(asio::ip::tcp::socket socket, std::uint64_t uNumber, Admission admission,
                 const SessionSetting& setting, std::function<void(Session&)> fnEnded)
    : m_socket(std::move(socket)),
      m_deadline(m_socket.get_executor()),
      m_uNumber(uNumber),
      m_admission(admission),
      m_setting(setting),
      m_fnEnded(std::move(fnEnded)) {}

void Session::Start() {
    // Replies are sent whole, so the kernel need not wait for more bytes.
    asio::error_code ignored;
    m_socket.set_option(asio::ip::tcp::no_delay(true), ignored);
    Enter(Stage::kRegistration);
    asio::async_read(m_socket, asio::buffer(&m_registration, sizeof m_registration),
                     Then(&Session::AnswerRegistration));
}

void Session::AnswerRegistration() {
    constexpr BYTE kRefused = 1;
    m_bRegistrationStatus = IsServed() ? CRouteRules::REGISTER_ACCEPTED : kRefused;
    asio::async_write(m_socket, asio::buffer(&m_bRegistrationStatus, 1), Then(&Session::WaitForMessage));
}

void Session::WaitForMessage() {
    m_reply = {};
    if (m_bFinishing || !IsServed()) {
        End();
        return;
    }
    Enter(Stage::kIdle);
    m_socket.async_wait(asio::ip::tcp::socket::wait_read, Then(&Session::ReadHeader));
}

void Session::ReadHeader() {
    Enter(Stage::kHeader);
    asio::async_read(m_socket, asio::buffer(&m_requestHeader, sizeof m_requestHeader), Then(&Session::CheckHeader));
}

void Session::CheckHeader() {
    const std::string strFault = FaultOf(m_requestHeader, m_setting.usPort, m_setting.cbMaxMessage);
    if (!strFault.empty()) {
        Drop(strFault);
        return;
    }
    m_stage = Stage::kPayload;
    ReadPayload();
}

// Reads step by step, so that memory grows with the bytes that arrive and not with the length that a header announces.
void Session::ReadPayload() {
    constexpr std::size_t kStep = 0x10000;
    const std::size_t cbThere = m_payload.size();
    const std::size_t cbMissing = m_requestHeader.MessageLen - cbThere;
    if (cbMissing == 0) {
        Answer();
        return;
    }
    m_payload.resize(cbThere + std::min(kStep, cbMissing));
    asio::async_read(m_socket, asio::buffer(m_payload) + cbThere, Then(&Session::ReadPayload));
}

void Session::Answer() {
    m_setting.totals.uBytesReceived += sizeof m_requestHeader + m_payload.size();
    ++m_setting.totals.uRequests;
    Reply reply = m_setting.handler.Handle(std::exchange(m_payload, {}));
    if (!reply.bDone) {
        ++m_setting.totals.uFailedRequests;
        m_setting.log.Refused(Text("client ", m_uNumber, ": ", reply.strAccount));
    } else if (m_setting.log.IsVerbose()) {
        m_setting.log.Detail(Text("client ", m_uNumber, ": ", reply.strAccount));
    }
    m_reply = std::move(reply.bytes);
    m_replyHeader = CRouteRules::BuildReplyHeader(m_requestHeader, m_reply.size());
    Enter(Stage::kReply);
    const std::array<asio::const_buffer, 2> buffers = {asio::buffer(&m_replyHeader, sizeof m_replyHeader),
                                                       asio::buffer(m_reply)};
    asio::async_write(m_socket, buffers, Then(&Session::CountReply));
}

void Session::CountReply() {
    m_setting.totals.uBytesSent += sizeof m_replyHeader + m_reply.size();
    WaitForMessage();
}

void Session::Finish() {
    m_bFinishing = true;
    if (m_stage != Stage::kReply) {
        End();
    }
}

void Session::End() {
    if (m_bEnded) {
        return;
    }
    m_bEnded = true;
    asio::error_code ignored;
    m_deadline.cancel();
    m_socket.close(ignored);
    m_fnEnded(*this);
}

void Session::Enter(Stage stage) {
    m_stage = stage;
    m_deadline.expires_after(m_setting.timeout);
    m_deadline.async_wait([self = shared_from_this()](const asio::error_code& error) {
        // Another stage may have begun, with a new deadline, just when the timer expired.
        if (!error && !self->m_bEnded && self->m_deadline.expiry() <= asio::steady_timer::clock_type::now()) {
            self->OnTimeout();
        }
    });
}

void Session::OnTimeout() {
    switch (m_stage) {
        case Stage::kRegistration:
            return Drop("no registration arrived in time");
        case Stage::kIdle:
            return Drop("no request arrived in time");
        case Stage::kHeader:
        case Stage::kPayload:
            return Drop("the rest of a message did not arrive in time");
        case Stage::kReply:
            return Drop("the client did not read its reply in time");
    }
}

void Session::OnError(const asio::error_code& error, std::size_t cbDone) {
    if (error == asio::error::eof && m_stage == Stage::kHeader && cbDone == 0) {
        m_setting.log.Detail(Text("client ", m_uNumber, ": disconnected"));
        End();
    } else if (error == asio::error::eof) {
        Drop(m_stage == Stage::kRegistration ? "disconnected before its registration"
                                             : "disconnected in the middle of a message");
    } else {
        Drop(error.message());
    }
}

void Session::Drop(std::string_view strReason) {
    // The log has a line about a refused client already.
    if (IsServed()) {
        m_setting.log.Refused(Text("client ", m_uNumber, " dropped: ", strReason));
    }
    End();
}

}  // namespace vexfiled
