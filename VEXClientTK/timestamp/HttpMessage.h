// What is sent to a time-stamp authority over HTTP, and what is received, without a socket.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "timestamp/Fault.h"
#include "timestamp/OpenSsl.h"

namespace vextimestamp {

struct HttpAddress {
    std::string strHost;       // without the brackets of an IPv6 address
    std::string strPort;       // digits
    std::string strHostField;  // as it is in the URL
    std::string strPath;       // with the query
};

// Throws Fault unless it is http:// with nothing that HTTP does not send.
HttpAddress ReadUrl(const std::string& strUrl);

inline constexpr std::size_t kMostReply = std::size_t{64} * 1024;

// One exchange. OpenSSL writes the request and reads the answer's header.
class HttpMessage {
public:
    // Throws Fault if the request is not DER.
    HttpMessage(const HttpAddress& address, std::span<const unsigned char> request);

    std::string_view RequestBytes() const { return m_strRequest; }

    // Takes the next bytes of the answer; none: its end. TRUE: the answer is complete, and bytes behind it are ignored.
    // Throws Fault if it is an error, a redirect, something else than a time-stamp reply, or too large.
    bool Take(std::string_view bytes);

    // The body of the complete answer.
    Bytes TakeBody() { return {m_strBody.begin(), m_strBody.end()}; }

private:
    void CheckStatus();
    void CheckFields(std::string_view header);
    bool ReadHeader(std::string_view bytes);

    BioPtr m_sent;
    BioPtr m_received;  // a buffer in front of the bytes: OpenSSL reads lines from it
    BIO* m_pSource = nullptr;
    HttpPtr m_exchange;
    std::string m_strRequest;
    std::string m_strHeader;
    bool m_bStatusChecked = false;
    bool m_bHeaderRead = false;
    bool m_bLengthAnnounced = false;
    std::string m_strBody;
};

}  // namespace vextimestamp
