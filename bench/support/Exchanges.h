// The exchanges that are compared, both in their own program and inside a JVM.
#pragma once

#include <string>

#include "AnsweringServer.h"
#include "Bench.h"
#include "ExchangeFloor.h"
#include "PipeIPC.h"

namespace bench {

class Exchanges {
public:
    double Product(int nExchanges) {
        CPipeIPC client;
        return Microseconds(nExchanges, [&] {
            CSmartBuffer objReply;
            const long lResult =
                client.SendMessageAndWait(0, m_server.Object(), reinterpret_cast<BYTE*>(m_strPayload.data()),
                                          m_strPayload.size(), objReply, 10000);
            return lResult == 0 ? objReply.GetSize() : 0;
        });
    }
    double Floor(int nExchanges) {
        return Microseconds(nExchanges,
                            [&] { return FloorExchange::Run(0, m_server.Object(), m_strPayload, 10).size(); });
    }

private:
    template <typename Exchange>
    double Microseconds(int nExchanges, Exchange exchange) {
        const double dBegin = WallSeconds();
        for (int i = 0; i < nExchanges; ++i) {
            Require(exchange() == m_strPayload.size(), "a reply of the request's length");
        }
        return (WallSeconds() - dBegin) / nExchanges * 1e6;
    }

    AnsweringServer m_server;
    std::string m_strPayload = std::string(200, 'x');
};

}  // namespace bench
