#include "DerMutation.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string_view>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* pbData, std::size_t cbData, std::size_t cbMost);

namespace {

using namespace std::string_view_literals;

constexpr unsigned char kInteger = 0x02;
constexpr auto kTags =
    std::to_array<unsigned char>({0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x0A, 0x0C, 0x13, 0x14, 0x16, 0x17, 0x18, 0x1A,
                                  0x1C, 0x1E, 0x30, 0x31, 0x80, 0x81, 0x82, 0x86, 0x87, 0xA0, 0xA1, 0xA2, 0xA3, 0xA4});

// Contents that have a meaning somewhere, or nearly one.
constexpr std::array kBodies = {
    ""sv,
    "\x00"sv,
    "\xFF"sv,
    "\x01"sv,
    "\x7F\xFF\xFF\xFF"sv,
    "\x80\x00\x00\x00\x00\x00\x00\x00"sv,
    "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"sv,
    "\x00\x80"sv,
    "a\x00z"sv,
    "\xC3\xA4\xE2\x80\xAE\xF0\x9F\xA6\x8A"sv,  // UTF-8, with a mark that turns the direction of text
    "\xED\xA0\x80\xC0\x80\xFF"sv,              // nearly UTF-8
    "\x00\x41\xD8\x00\x00\x42"sv,              // UTF-16 with half a pair
    "\x00\x00\x00\x41\x00\x11\x00\x00"sv,      // UTF-32 beyond the last character
    " \t\r\n\x1B[2J\x7F"sv,
    "+,;=<>#\\\" "sv,
    "20500101000000Z"sv,
    "99991231235959Z"sv,
    "00000101000000Z"sv,
    "500101000000Z"sv,
    "491231235960Z"sv,
    "2026112105+0100"sv,
    "\x55\x04\x03"sv,                                  // commonName
    "\x55\x1D\x0F"sv,                                  // keyUsage
    "\x55\x1D\x13"sv,                                  // basicConstraints
    "\x55\x1D\x1E"sv,                                  // nameConstraints
    "\x55\x1D\x20"sv,                                  // certificatePolicies
    "\x55\x1D\x25"sv,                                  // extKeyUsage
    "\x55\x1D\x23"sv,                                  // authorityKeyIdentifier
    "\x2A\x86\x48\x86\xF7\x0D\x01\x01\x01"sv,          // rsaEncryption
    "\x2A\x86\x48\x86\xF7\x0D\x01\x01\x0A"sv,          // id-RSASSA-PSS
    "\x2A\x86\x48\xCE\x3D\x02\x01"sv,                  // id-ecPublicKey
    "\x2A\x86\x48\xCE\x3D\x03\x01\x07"sv,              // P-256
    "\x2B\x65\x70"sv,                                  // Ed25519
    "\x2A\x86\x48\x86\xF7\x0D\x01\x07\x01"sv,          // pkcs7-data
    "\x2A\x86\x48\x86\xF7\x0D\x01\x07\x06"sv,          // pkcs7-encryptedData
    "\x2A\x86\x48\x86\xF7\x0D\x01\x0C\x0A\x01\x01"sv,  // keyBag
    "\x2A\x86\x48\x86\xF7\x0D\x01\x0C\x0A\x01\x02"sv,  // pkcs8ShroudedKeyBag
    "\x2A\x86\x48\x86\xF7\x0D\x01\x0C\x0A\x01\x03"sv,  // certBag
    "\x2A\x86\x48\x86\xF7\x0D\x01\x0C\x0A\x01\x06"sv,  // safeContentsBag
    "\x2A\x86\x48\x86\xF7\x0D\x01\x09\x14"sv,          // friendlyName
    "\x2A\x86\x48\x86\xF7\x0D\x01\x05\x0D"sv,          // PBES2
    "\x2A\x86\x48\x86\xF7\x0D\x01\x05\x0C"sv,          // PBKDF2
    "\x2B\x06\x01\x04\x01\xDA\x47\x04\x0B"sv,          // scrypt
    "\x2A\x86\x48\x86\xF7\x0D\x01\x0C\x01\x03"sv,      // PKCS #12 with triple DES
};

struct Place {
    DerNodes* pSiblings;
    std::size_t nAt;

    DerNode& Node() const { return (*pSiblings)[nAt]; }
    DerNodes::iterator Iterator() const { return pSiblings->begin() + static_cast<std::ptrdiff_t>(nAt); }
};

void AddPlaces(DerNodes& nodes, std::vector<Place>& places) {
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        places.push_back({&nodes, i});
        AddPlaces(nodes[i].children, places);
    }
}

Place PickPlace(DerNodes& nodes, Random& random) {
    std::vector<Place> places;
    AddPlaces(nodes, places);
    return places[Pick(random, places.size())];
}

DerNode NewNode(Random& random) {
    return {kTags[Pick(random, kTags.size())], std::string(kBodies[Pick(random, kBodies.size())]), {}};
}

void ChangeBody(DerNode& node, Random& random) {
    if (!node.children.empty()) {
        std::shuffle(node.children.begin(), node.children.end(), random);
    } else if (Pick(random, 2) == 0) {
        node.strBody = kBodies[Pick(random, kBodies.size())];
    } else {
        node.strBody = MutateBytes(std::move(node.strBody), static_cast<unsigned>(random()));
    }
}

void ChangeOnePlace(DerNodes& nodes, Random& random) {
    if (nodes.empty()) {
        nodes.push_back(NewNode(random));
    }
    const Place place = PickPlace(nodes, random);
    DerNode& node = place.Node();
    switch (Pick(random, 9)) {
        case 0:
            node.uTag = kTags[Pick(random, kTags.size())];
            break;
        case 1: {  // copied to the place beside it
            DerNode copy = node;
            place.pSiblings->insert(place.Iterator(), std::move(copy));
            break;
        }
        case 2:
            place.pSiblings->erase(place.Iterator());
            break;
        case 3: {  // replaced by another element
            DerNode other = PickPlace(nodes, random).Node();
            node = std::move(other);
            break;
        }
        case 4:
            place.pSiblings->insert(place.Iterator(), NewNode(random));
            break;
        case 5: {  // wrapped
            DerNode inner = std::move(node);
            node = {kTags[Pick(random, kTags.size())], {}, {}};
            node.children.push_back(std::move(inner));
            break;
        }
        case 6:  // unwrapped
            if (!node.children.empty()) {
                DerNode inner = std::move(node.children.front());
                node = std::move(inner);
                break;
            }
            [[fallthrough]];
        default:
            ChangeBody(node, random);
            break;
    }
}

}  // namespace

std::size_t Pick(Random& random, std::size_t n) {
    return std::uniform_int_distribution<std::size_t>(0, n - 1)(random);
}

std::string MutateBytes(std::string strBytes, unsigned nSeed) {
    constexpr std::size_t kGrowth = 32;
    const std::size_t cb = strBytes.size();
    strBytes.resize(cb + 1 + nSeed % kGrowth);
    strBytes.resize(LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(strBytes.data()), cb, strBytes.size()));
    return strBytes;
}

void MutateDer(DerNodes& nodes, Random& random) {
    for (std::size_t c = 1 + Pick(random, 4); c > 0; --c) {
        ChangeOnePlace(nodes, random);
    }
}

void CrossDer(DerNodes& nodes, const DerNodes& others, Random& random) {
    if (nodes.empty() || others.empty()) {
        return;
    }
    DerNodes from = others;
    DerNode taken = std::move(PickPlace(from, random).Node());
    const Place place = PickPlace(nodes, random);
    if (Pick(random, 2) == 0) {
        place.Node() = std::move(taken);
    } else {
        place.pSiblings->insert(place.Iterator(), std::move(taken));
    }
}

void LimitNumbers(DerNodes& nodes) {
    for (DerNode& node : nodes) {
        if (node.uTag == kInteger && node.strBody.size() >= 2 && node.strBody.size() <= 4 &&
            node.strBody != "\x01\x00\x01"sv) {
            node.strBody = node.strBody.substr(node.strBody.size() - 1);
            node.strBody[0] = static_cast<char>(node.strBody[0] & 0x7F);
        }
        LimitNumbers(node.children);
    }
}

std::size_t CopyOut(const std::string& strBytes, unsigned char* pbData, std::size_t cbMost) {
    if (strBytes.size() > cbMost) {
        return 0;
    }
    std::memcpy(pbData, strBytes.data(), strBytes.size());
    return strBytes.size();
}

std::size_t MutateInput(unsigned char* pbData, std::size_t cbData, std::size_t cbMost, unsigned nSeed,
                        FinishDer finish) {
    Random random(nSeed);
    if (cbData < 2 || Pick(random, 10) == 0) {
        return LLVMFuzzerMutate(pbData, cbData, cbMost);
    }
    if (Pick(random, 10) == 0) {
        pbData[0] = static_cast<unsigned char>(random());
    }
    DerNodes nodes = ParseDer({reinterpret_cast<const char*>(pbData) + 1, cbData - 1});
    MutateDer(nodes, random);
    LimitNumbers(nodes);
    const std::string strDer = finish != nullptr ? finish(WriteDer(nodes), pbData[0], random) : WriteDer(nodes);
    return CopyOut(std::string(1, static_cast<char>(pbData[0])) + strDer, pbData, cbMost);
}

std::size_t CrossInputs(std::string_view first, std::string_view second, unsigned char* pbOut, std::size_t cbMost,
                        unsigned nSeed, FinishDer finish) {
    Random random(nSeed);
    if (first.size() < 2 || second.size() < 2) {
        return 0;
    }
    DerNodes nodes = ParseDer(first.substr(1));
    CrossDer(nodes, ParseDer(second.substr(1)), random);
    LimitNumbers(nodes);
    const auto uChoice = static_cast<unsigned char>(first[0]);
    const std::string strDer = finish != nullptr ? finish(WriteDer(nodes), uChoice, random) : WriteDer(nodes);
    return CopyOut(first[0] + strDer, pbOut, cbMost);
}
