// The client's way to read a reply: receive it, check its header, read its packet. Exactly the messages that the peer
// sent arrive, except messages that are cut off or too long.
//
// The input is all that the peer sends before it ends the connection. The request went to object 101 of session 0.
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "ParsePacket.h"
#include "PipeSocket.h"
#include "Require.h"
#include "RouteMessage.h"

// The linker redirects HeapAlloc to here, so that a large claimed length takes no memory.
extern "C" LPVOID __real_HeapAlloc(HANDLE hHeap, DWORD dwFlags, DWORD dwBytes);
extern "C" LPVOID __wrap_HeapAlloc(HANDLE hHeap, DWORD dwFlags, DWORD dwBytes);

namespace {

constexpr DWORD kHeapLimit = 1 << 20;
constexpr std::size_t kHeader = 34;

std::uint64_t NumberAt(std::string_view bytes, std::size_t nOffset, std::size_t cb) {
    std::uint64_t n = 0;
    for (std::size_t i = cb; i > 0; --i) {
        n = n << 8 | static_cast<unsigned char>(bytes[nOffset + i - 1]);
    }
    return n;
}

// The rule of checkPipeRspHeader, written with offsets.
bool IsReply(std::string_view header, std::uint64_t uSequence) {
    return NumberAt(header, 18, 8) <= 15 && NumberAt(header, 26, 8) != 0 && NumberAt(header, 2, 2) == 101 &&
           NumberAt(header, 0, 2) == 0 && NumberAt(header, 10, 8) == uSequence + 1;
}

void ReadPacket(std::string_view payload) {
    CCommUnPacket packet(CSmartBuffer(payload.data(), payload.size()));
    BOOL bResult = 0;
    DWORD dwCount = 0;
    const bool bHasResult = packet.ReadBOOL(bResult) == 4;
    Require(bHasResult == (payload.size() >= 4));
    const bool bHasCount = packet.ReadDWORD(dwCount) == 8;
    Require(bHasCount == (payload.size() >= (bHasResult ? 12U : 8U)));
}

}  // namespace

LPVOID __wrap_HeapAlloc(HANDLE hHeap, DWORD dwFlags, DWORD dwBytes) {
    return dwBytes <= kHeapLimit ? __real_HeapAlloc(hHeap, dwFlags, dwBytes) : nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pbData, std::size_t cbData) {
    std::string_view sent(reinterpret_cast<const char*>(pbData), std::min<std::size_t>(cbData, 65536));
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    const CPipeSocket peer(ends[0]);
    const CPipeSocket client(ends[1]);
    const CPipeDeadline deadline(10000);
    Require(sent.empty() || peer.Send(sent.data(), sent.size(), deadline) == static_cast<ssize_t>(sent.size()));
    Require(shutdown(peer.Get(), SHUT_WR) == 0);

    const RouteMessageHeader request = CRouteRules::BuildRequestHeader({1, 2, 0}, 3, 0, 101, 77, 0);
    for (;;) {
        CSmartBuffer message;
        const int nResult = RecvDataFunc(
            client, [&] { return deadline; }, message);
        const bool bHeader = sent.size() >= kHeader;
        const std::uint64_t uLength = bHeader ? NumberAt(sent, 26, 8) : 0;
        if (!bHeader) {
            Require(nResult == 0);
        } else if (uLength > kHeapLimit - kHeader) {
            Require(nResult == -1);
        } else if (sent.size() - kHeader < uLength) {
            Require(nResult == 0);
        } else {
            const std::string_view expected = sent.substr(0, kHeader + uLength);
            Require(nResult == static_cast<int>(expected.size()) && message.GetSize() == expected.size() &&
                    std::memcmp(message.GetAddress(), expected.data(), expected.size()) == 0);
            const RouteMessageHeader header = PipeMessageHeader(message);
            Require(CRouteRules::checkPipeRspHeader(header, request) == IsReply(expected, 77));
            CRouteRules::checkPipeRequestHeader(header);
            ReadPacket(expected.substr(kHeader));
            sent.remove_prefix(expected.size());
            continue;
        }
        Require(message.GetSize() == 0);
        return 0;
    }
}
