#include "timestamp/Http.h"

#include <array>

#include "timestamp/Connection.h"
#include "timestamp/HttpMessage.h"

namespace vextimestamp {

Bytes Exchange(const std::string& strUrl, std::span<const unsigned char> request, Deadline deadline) {
    const HttpAddress address = ReadUrl(strUrl);
    HttpMessage message(address, request);
    const Connection connection(address.strHost, address.strPort, deadline);
    connection.Send(message.RequestBytes(), deadline);
    std::array<char, 4096> buffer{};
    for (bool bComplete = false; !bComplete;) {
        bComplete = message.Take({buffer.data(), connection.Receive(buffer, deadline)});
    }
    return message.TakeBody();
}

}  // namespace vextimestamp
