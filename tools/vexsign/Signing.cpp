#include "Signing.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "AsBytes.h"
#include "AttachedContent.h"
#include "Base64.h"
#include "DigestName.h"
#include "SignerCertificate.h"
#include "timestamp/Cms.h"

namespace vexsign {
namespace {

// The input forms of VCTK.h.
constexpr int kInputText = 0;
constexpr int kInputBase64 = 1;

constexpr std::size_t kPiece = std::size_t{256} * 1024;
constexpr std::size_t kBlock = std::size_t{1024} * 1024;  // of content that is kept

// The substitute toolkit takes texts of this many bytes, and data whose Base64 is no longer.
constexpr std::uint64_t kMostText = std::numeric_limits<std::int32_t>::max();
constexpr std::uint64_t kDigitsPerGroup = 4;
constexpr std::uint64_t kBytesPerGroup = 3;
constexpr std::uint64_t kMostInBase64 = kMostText / kDigitsPerGroup * kBytesPerGroup;

constexpr const char* kPrehashed = "prehashed:";
// What a toolkit that knows "prehashed:" uses if no digest is set.
constexpr const char* kDefaultDigest = "SHA-256";

bool KeySignsWholeDataOnly(SigningObject& object) {
    return SignsWholeDataOnly(DecodeBase64(object.Certificate()).value_or(""));
}

bool IsStamped(const std::string& strSignature) {
    try {
        return !vextimestamp::TokensOf(AsBytes(strSignature)).empty();
    } catch (const vextimestamp::Fault&) {
        return false;  // no CMS signature at all
    }
}

}  // namespace

FileSigner::FileSigner(SigningObject& object, const Options& options)
    : m_object(object),
      m_options(options),
      m_strDigest(options.strDigest.empty() ? kDefaultDigest : options.strDigest) {
    bool bSet = !options.strDigest.empty();
    const char* pszMeaning = "can be signed with this toolkit";
    const bool bCanHash =
        !options.bText && !DigestName(m_strDigest).IsPrehashed() && Hash::Find(m_strDigest).has_value();
    // A toolkit that accepts any name would sign the digest as if it were the data.
    const bool bAcceptsAny = bCanHash && object.TrySetDigest(kPrehashed);
    if (bCanHash && !bAcceptsAny && object.TrySetDigest(kPrehashed + m_strDigest)) {
        m_strUsed = kPrehashed + m_strDigest;
        if (!KeySignsWholeDataOnly(object)) {
            constexpr Limit kAttached = {kMostContent, "fit into an attached signature; make a detached one"};
            m_bByDigest = true;
            m_limit = options.bDetached ? Limit() : kAttached;
            return;
        }
        pszMeaning = "can be signed with an Ed25519 or Ed448 key; use another key";
        bSet = true;
    }
    if (bSet || bAcceptsAny) {
        UseDigest(m_strDigest);
    }
    if (options.bText) {
        constexpr Limit kText = {kMostText, "can be signed with --text; omit it"};
        m_limit = options.command == Command::kP7 ? kText : Limit();
    } else {
        m_limit = {kMostInBase64, pszMeaning};
    }
}

Signature FileSigner::Sign(const std::string& strInput) {
    Input input(strInput);
    Refuse(input.BytesLeft(), m_limit, input);
    if (!m_bByDigest) {
        return SignWhole(input);
    }
    return m_options.bDetached ? SignDetached(input) : SignAttached(input);
}

void FileSigner::UseDigest(const std::string& strName) {
    if (m_strUsed != strName) {
        m_object.SetDigest(strName);
        m_strUsed = strName;
    }
}

void FileSigner::Refuse(std::uint64_t cb, const Limit& limit, const Input& input) {
    if (cb > limit.cb) {
        throw std::runtime_error(input.Name() + ": larger than " + std::to_string(limit.cb) + " bytes, the most that " +
                                 limit.pszMeaning);
    }
}

// A toolkit that ignores the store's attributes would return a signature without the time stamp.
std::string FileSigner::SignP7(const std::string& strText, int nInputForm, bool bDetached) {
    std::string strBase64 = m_object.SignP7(strText, nInputForm, bDetached, m_options.bCertificate);
    if (!m_options.timeStamps.authorities.empty() && !IsStamped(DecodeAnswer(strBase64, "signature"))) {
        throw std::runtime_error("the toolkit ignored --tsa: the signature has no time stamp; use \"vexsign stamp\"");
    }
    return strBase64;
}

std::string FileSigner::SignText(const std::string& strText, int nInputForm) {
    return m_options.command == Command::kP1 ? m_object.SignP1(strText, nInputForm)
                                             : SignP7(strText, nInputForm, m_options.bDetached);
}

Signature FileSigner::Answer(const std::string& strBase64) const {
    return {{m_options.bDer ? DecodeAnswer(strBase64, "signature") : strBase64 + "\n"}};
}

Signature FileSigner::SignWhole(Input& input) {
    std::string strText;
    strText.reserve(std::min(input.BytesLeft() / kBytesPerGroup * kDigitsPerGroup, kMostText));
    Base64Encoder encoder;
    std::string strPiece(input.GoodBuffer(kPiece), '\0');
    std::uint64_t cbRead = 0;
    while (const std::size_t cb = input.Read(strPiece.data(), strPiece.size())) {
        const std::string_view piece(strPiece.data(), cb);
        cbRead += cb;
        Refuse(cbRead, m_limit, input);
        if (!m_options.bText) {
            encoder.Append(piece, strText);
            continue;
        }
        if (piece.find('\0') != std::string_view::npos) {
            throw std::runtime_error(input.Name() +
                                     ": only the text before its zero bytes would be signed; omit --text");
        }
        strText.append(piece);
    }
    encoder.Finish(strText);
    return Answer(SignText(strText, m_options.bText ? kInputText : kInputBase64));
}

// A toolkit refuses data without bytes. It cannot know that a digest is the digest of such data.
Signature FileSigner::SignNothing() {
    UseDigest(m_strDigest);
    return Answer(SignText("", kInputBase64));
}

Signature FileSigner::SignDetached(Input& input) {
    Hash hash = FindHash();
    std::string strPiece(input.GoodBuffer(kPiece), '\0');
    bool bEmpty = true;
    while (const std::size_t cb = input.Read(strPiece.data(), strPiece.size())) {
        hash.Add({strPiece.data(), cb});
        bEmpty = false;
    }
    if (bEmpty) {
        return SignNothing();
    }
    UseDigest(kPrehashed + m_strDigest);
    return Answer(SignText(EncodeBase64(hash.Finish()), kInputBase64));
}

// The content is kept as it was hashed: the file may change meanwhile.
Signature FileSigner::SignAttached(Input& input) {
    Hash hash = FindHash();
    Signature signature{{""}, !m_options.bDer};
    std::uint64_t cbContent = 0;
    for (;;) {
        std::string strBlock(input.GoodBuffer(kBlock), '\0');
        strBlock.resize(input.Read(strBlock.data(), strBlock.size()));
        if (strBlock.empty()) {
            break;
        }
        cbContent += strBlock.size();
        Refuse(cbContent, m_limit, input);
        hash.Add(strBlock);
        signature.pieces.push_back(std::move(strBlock));
    }
    if (cbContent == 0) {
        return SignNothing();
    }
    UseDigest(kPrehashed + m_strDigest);
    const std::string strDetached = SignP7(EncodeBase64(hash.Finish()), kInputBase64, true);
    ContentFrame frame = FrameContent(DecodeAnswer(strDetached, "signature"), cbContent);
    signature.pieces.front() = std::move(frame.strBefore);
    signature.pieces.push_back(std::move(frame.strAfter));
    return signature;
}

Hash FileSigner::FindHash() const {
    std::optional<Hash> hash = Hash::Find(m_strDigest);
    if (!hash) {
        throw std::runtime_error("OpenSSL no longer offers the digest " + m_strDigest);
    }
    return std::move(*hash);
}

}  // namespace vexsign
