// The packet reader: compares a sequence of reads with a plain copy of the bytes.
//
// The first byte of the input is the number of reads. Then comes a byte for each read. The rest is the packet.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "ParsePacket.h"
#include "Require.h"

namespace {

// Reads a number. It must equal the next bytes of the rest. If they are too few, nothing may change.
template <typename TNumber>
void ReadNumber(CCommUnPacket& packet, DWORD (CCommUnPacket::*pfnRead)(TNumber&), std::string_view& rest) {
    TNumber value = static_cast<TNumber>(0x5A5A5A5A5A5A5A5A);
    TNumber expected = value;
    DWORD dwResult = 0xFFFFFFFF;
    if (rest.size() >= sizeof value) {
        std::memcpy(&expected, rest.data(), sizeof value);
        rest.remove_prefix(sizeof value);
        dwResult = sizeof value;
    }
    Require((packet.*pfnRead)(value) == dwResult);
    Require(value == expected);
}

void ReadBytes(CCommUnPacket& packet, DWORD dwCount, std::string_view& rest) {
    std::vector<char> target(std::min<std::size_t>(dwCount, rest.size()) + 1, 'Z');
    const bool bFits = dwCount <= rest.size();
    Require(packet.ReadBuffer(target.data(), dwCount) == (bFits ? dwCount : 0xFFFFFFFF));
    const std::size_t cbRead = bFits ? dwCount : 0;
    Require(std::memcmp(target.data(), rest.data(), cbRead) == 0);
    Require(std::all_of(target.begin() + static_cast<std::ptrdiff_t>(cbRead), target.end(),
                        [](char ch) { return ch == 'Z'; }));
    rest.remove_prefix(cbRead);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pbData, std::size_t cbData) {
    std::string_view input(reinterpret_cast<const char*>(pbData), cbData);
    if (input.empty()) {
        return 0;
    }
    const std::size_t cReads = std::min<std::size_t>(static_cast<unsigned char>(input[0]), input.size() - 1);
    const std::string_view reads = input.substr(1, cReads);
    std::string_view rest = input.substr(1 + cReads);

    const CSmartBuffer source(rest.data(), rest.size());
    CCommUnPacket packet(source);
    for (const char chRead : reads) {
        const auto uRead = static_cast<unsigned char>(chRead);
        switch (uRead % 10) {
            case 0:
                ReadNumber(packet, &CCommUnPacket::ReadBOOL, rest);
                break;
            case 1:
                ReadNumber(packet, &CCommUnPacket::ReadDWORD, rest);
                break;
            case 2:
                ReadNumber(packet, &CCommUnPacket::ReadULONG, rest);
                break;
            case 3:
                ReadNumber(packet, &CCommUnPacket::ReadULONGLONG, rest);
                break;
            case 4:
                ReadNumber(packet, &CCommUnPacket::ReadLONG, rest);
                break;
            case 5:
                ReadNumber(packet, &CCommUnPacket::ReadInt, rest);
                break;
            case 6:
                ReadNumber(packet, &CCommUnPacket::ReadShort, rest);
                break;
            case 7:
                ReadNumber(packet, &CCommUnPacket::ReadUShort, rest);
                break;
            case 8:
                ReadBytes(packet, uRead / 10U, rest);
                break;
            default:
                // A count from the packet itself, of any size.
                if (rest.size() >= sizeof(DWORD)) {
                    DWORD dwCount = 0;
                    std::memcpy(&dwCount, rest.data(), sizeof dwCount);
                    ReadNumber(packet, &CCommUnPacket::ReadDWORD, rest);
                    ReadBytes(packet, dwCount, rest);
                }
                break;
        }
    }
    Require(source.GetSize() == input.size() - 1 - cReads);
    return 0;
}
