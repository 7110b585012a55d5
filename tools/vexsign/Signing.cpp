#include "Signing.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "AttachedContent.h"
#include "Base64.h"
#include "DigestName.h"
#include "Hash.h"
#include "Input.h"
#include "SignerKey.h"

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

struct Limit {
    std::uint64_t cb = std::numeric_limits<std::uint64_t>::max();
    const char* pszMeaning = "";
};

// How the input is signed.
struct Plan {
    std::optional<Hash> hash;  // set: by its digest
    Limit limit;
};

void Refuse(std::uint64_t cb, const Limit& limit, const Input& input) {
    if (cb > limit.cb) {
        throw std::runtime_error(input.Name() + ": larger than " + std::to_string(limit.cb) + " bytes, the most that " +
                                 limit.pszMeaning);
    }
}

bool KeySignsWholeDataOnly(SigningObject& object) {
    return SignsWholeDataOnly(DecodeBase64(object.Certificate()).value_or(""));
}

// Standard input can be read only once, so everything is decided before.
Plan MakePlan(SigningObject& object, const Options& options) {
    const std::string strDigest = options.strDigest.empty() ? kDefaultDigest : options.strDigest;
    bool bSet = !options.strDigest.empty();
    const char* pszMeaning = "can be signed with this toolkit";
    std::optional<Hash> hash;
    if (!options.bText && !DigestName(strDigest).IsPrehashed()) {
        hash = Hash::Find(strDigest);
    }
    // A toolkit that accepts any name would sign the digest as if it were the data.
    const bool bAcceptsAny = hash && object.TrySetDigest(kPrehashed);
    if (hash && !bAcceptsAny && object.TrySetDigest(kPrehashed + strDigest)) {
        if (!KeySignsWholeDataOnly(object)) {
            constexpr Limit kAttached = {kMostContent, "fit into an attached signature; make a detached one"};
            return {std::move(hash), options.bDetached ? Limit() : kAttached};
        }
        pszMeaning = "can be signed with an Ed25519 or Ed448 key; use another key";
        bSet = true;
    }
    if (bSet || bAcceptsAny) {
        object.SetDigest(strDigest);
    }
    if (options.bText) {
        constexpr Limit kText = {kMostText, "can be signed with --text; omit it"};
        return {std::nullopt, options.command == Command::kP7 ? kText : Limit()};
    }
    return {std::nullopt, {kMostInBase64, pszMeaning}};
}

std::string Sign(SigningObject& object, const Options& options, const std::string& strText, int nInputForm) {
    return options.command == Command::kP1
               ? object.SignP1(strText, nInputForm)
               : object.SignP7(strText, nInputForm, options.bDetached, options.bCertificate);
}

Signature Answer(const std::string& strBase64, const Options& options) {
    return {{options.bDer ? DecodeAnswer(strBase64, "signature") : strBase64 + "\n"}};
}

Signature SignWhole(SigningObject& object, const Options& options, Input& input, const Limit& limit) {
    std::string strText;
    strText.reserve(std::min(input.BytesLeft() / kBytesPerGroup * kDigitsPerGroup, kMostText));
    Base64Encoder encoder;
    std::string strPiece(kPiece, '\0');
    std::uint64_t cbRead = 0;
    while (const std::size_t cb = input.Read(strPiece.data(), strPiece.size())) {
        const std::string_view piece(strPiece.data(), cb);
        cbRead += cb;
        Refuse(cbRead, limit, input);
        if (!options.bText) {
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
    return Answer(Sign(object, options, strText, options.bText ? kInputText : kInputBase64), options);
}

// A toolkit refuses data without bytes. It cannot know that a digest is the digest of such data.
Signature SignNothing(SigningObject& object, const Options& options) {
    object.SetDigest(options.strDigest.empty() ? kDefaultDigest : options.strDigest);
    return Answer(Sign(object, options, "", kInputBase64), options);
}

Signature SignDetached(SigningObject& object, const Options& options, Input& input, Hash& hash) {
    std::string strPiece(kPiece, '\0');
    bool bEmpty = true;
    while (const std::size_t cb = input.Read(strPiece.data(), strPiece.size())) {
        hash.Add({strPiece.data(), cb});
        bEmpty = false;
    }
    return bEmpty ? SignNothing(object, options)
                  : Answer(Sign(object, options, EncodeBase64(hash.Finish()), kInputBase64), options);
}

// The content is kept as it was hashed: the file may change meanwhile.
Signature SignAttached(SigningObject& object, const Options& options, Input& input, Plan& plan) {
    Signature signature{{""}, !options.bDer};
    std::uint64_t cbContent = 0;
    for (;;) {
        std::string strBlock(kBlock, '\0');
        strBlock.resize(input.Read(strBlock.data(), strBlock.size()));
        if (strBlock.empty()) {
            break;
        }
        cbContent += strBlock.size();
        Refuse(cbContent, plan.limit, input);
        plan.hash->Add(strBlock);
        signature.pieces.push_back(std::move(strBlock));
    }
    if (cbContent == 0) {
        return SignNothing(object, options);
    }
    const std::string strDetached =
        object.SignP7(EncodeBase64(plan.hash->Finish()), kInputBase64, true, options.bCertificate);
    ContentFrame frame = FrameContent(DecodeAnswer(strDetached, "signature"), cbContent);
    signature.pieces.front() = std::move(frame.strBefore);
    signature.pieces.push_back(std::move(frame.strAfter));
    return signature;
}

}  // namespace

Signature SignInput(SigningObject& object, const Options& options) {
    Input input(options.strInput);
    Plan plan = MakePlan(object, options);
    Refuse(input.BytesLeft(), plan.limit, input);
    if (!plan.hash) {
        return SignWhole(object, options, input, plan.limit);
    }
    return options.bDetached ? SignDetached(object, options, input, *plan.hash)
                             : SignAttached(object, options, input, plan);
}

}  // namespace vexsign
