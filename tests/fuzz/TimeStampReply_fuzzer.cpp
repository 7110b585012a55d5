// What a time-stamp authority sends, and signatures with time stamps: whatever the bytes are, a token is only accepted
// for the signature that it belongs to, nothing is accepted of an authority that nobody trusts, and each fault is one
// line of text. The first byte of the input chooses how the rest is read.
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "Require.h"
#include "posix/Utf8.h"
#include "timestamp/Cms.h"
#include "timestamp/HttpMessage.h"
#include "timestamp/OpenSsl.h"
#include "timestamp/Reply.h"
#include "timestamp/Token.h"

namespace {

using namespace vextimestamp;

// The seeds are stamps of this value.
constexpr std::string_view kValue = "signature value";

Bytes BytesOf(std::string_view text) {
    return {text.begin(), text.end()};
}

// Runs the call; FALSE: it threw a Fault.
template <typename Call>
bool Holds(const Call& call) {
    try {
        call();
        return true;
    } catch (const Fault& fault) {
        const std::string strText = fault.what();
        Require(!strText.empty() && vexposix::IsPlainUtf8(strText));
        for (const char ch : strText) {
            Require(static_cast<unsigned char>(ch) >= ' ' && ch != '\x7F');
        }
        return false;
    }
}

void CheckOne(const Bytes& token) {
    static X509_STORE* const s_pNobody = X509_STORE_new();
    static const Request s_request = MakeRequest(BytesOf(kValue), {});
    Holds([&] {
        const TokenFacts facts = CheckToken(token, BytesOf(kValue), nullptr, nullptr);
        Require(!facts.strDigest.empty());
    });
    Require(!Holds([&] { CheckToken(token, BytesOf("another value"), nullptr, nullptr); }));
    Require(!Holds([&] { CheckToken(token, BytesOf(kValue), s_pNobody, nullptr); }));
    // No input has the random nonce.
    Require(!Holds([&] { CheckToken(token, BytesOf(kValue), nullptr, &s_request); }));
}

void CheckCms(const Bytes& cms) {
    const Bytes token = BytesOf(std::string_view("\x30\x00", 2));
    Holds([&] {
        const std::size_t cBefore = TokensOf(cms).size();
        const Bytes stamped = WithToken(cms, token);
        Require(TokensOf(stamped).size() == cBefore + 1);
        Require(SignatureValueOf(stamped) == SignatureValueOf(cms));
    });
}

// The size of the pieces that the answer comes in changes nothing.
void CheckHttp(std::string_view answer, std::size_t cbPiece) {
    static const HttpAddress s_address = ReadUrl("http://127.0.0.1/");
    static const Bytes s_request = MakeRequest(BytesOf(kValue), {}).der;
    const auto read = [&](std::size_t cbOne) {
        Bytes body;
        const bool bHolds = Holds([&] {
            HttpMessage message(s_address, s_request);
            bool bComplete = false;
            for (std::string_view rest = answer; !bComplete && !rest.empty();) {
                const std::string_view piece = rest.substr(0, cbOne);
                rest.remove_prefix(piece.size());
                bComplete = message.Take(piece);
            }
            Require(bComplete || message.Take({}));
            body = message.TakeBody();
            Require(body.size() <= kMostReply);
        });
        return std::pair(bHolds, body);
    };
    Require(read(answer.size()) == read(cbPiece));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pbData, std::size_t cbData) {
    if (cbData == 0) {
        return 0;
    }
    const Bytes bytes(pbData + 1, pbData + cbData);
    switch (pbData[0] % 8) {
        case 0:
            Holds([&] { CheckOne(TokenOf(bytes)); });
            break;
        case 1:
            CheckOne(bytes);
            break;
        case 2:
            CheckCms(bytes);
            break;
        case 3:
            Holds([&] { Require(ReadRequest(bytes).der == bytes); });
            break;
        default:
            CheckHttp({reinterpret_cast<const char*>(pbData) + 1, cbData - 1}, std::size_t{1} + pbData[0] / 8);
            break;
    }
    Require(ERR_peek_error() == 0);
    return 0;
}
