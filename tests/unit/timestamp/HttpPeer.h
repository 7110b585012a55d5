// An authority for the tests that speaks HTTP on the loopback interface.
#pragma once

#include <string>
#include <string_view>

#include "ScriptedPeer.h"
#include "TimeStampWorld.h"

namespace vextimestamp {

inline std::string UrlOf(std::uint16_t uPort) {
    return "http://127.0.0.1:" + std::to_string(uPort) + "/tsa";
}

// Receives a request; returns its body.
inline std::string ReceiveRequest(PeerConnection& connection) {
    std::string strHeader;
    while (!strHeader.ends_with("\r\n\r\n")) {
        const std::string strByte = connection.Receive(1);
        if (strByte.empty()) {
            return "";
        }
        strHeader += strByte;
    }
    constexpr std::string_view kLength = "\r\nContent-Length: ";
    const std::size_t nAt = strHeader.find(kLength);
    return nAt == std::string::npos ? "" : connection.Receive(std::stoul(strHeader.substr(nAt + kLength.size())));
}

inline std::string AnswerOf(std::string_view body) {
    return "HTTP/1.0 200 OK\r\nContent-Type: application/timestamp-reply\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + std::string(body);
}

// Answers every request with what the openssl command replies.
inline void ServeTimeStamps(PeerConnection& connection) {
    connection.Send(AnswerOf(TextOf(World::Get().Reply(BytesOf(ReceiveRequest(connection))))));
}

}  // namespace vextimestamp
