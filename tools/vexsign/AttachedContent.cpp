#include "AttachedContent.h"

#include <openssl/asn1.h>

#include <stdexcept>

namespace vexsign {
namespace {

constexpr int kContextTag0 = 0;

// One element of DER.
struct Element {
    std::string_view whole;
    std::string_view body;
};

[[noreturn]] void RefuseSignature() {
    throw std::runtime_error("the toolkit's detached signature is no CMS SignedData in DER; try another toolkit");
}

// Removes the first element, which must have this tag, from the text.
Element Take(std::string_view& text, int nTag, int nClass) {
    const auto* const pbBegin = reinterpret_cast<const unsigned char*>(text.data());
    const unsigned char* pb = pbBegin;
    long cbBody = 0;
    int nFoundTag = 0;
    int nFoundClass = 0;
    const int nFlags = ASN1_get_object(&pb, &cbBody, &nFoundTag, &nFoundClass, static_cast<long>(text.size()));
    constexpr int kError = 0x80;
    constexpr int kIndefiniteLength = 0x01;
    if ((nFlags & (kError | kIndefiniteLength)) != 0 || nFoundTag != nTag || nFoundClass != nClass) {
        RefuseSignature();
    }
    const auto cbHeader = static_cast<std::size_t>(pb - pbBegin);
    const std::string_view whole = text.substr(0, cbHeader + static_cast<std::size_t>(cbBody));
    text.remove_prefix(whole.size());
    return {whole, whole.substr(cbHeader)};
}

// The first and only element.
std::string_view BodyOfOnly(std::string_view text, int nTag, int nClass) {
    const std::string_view body = Take(text, nTag, nClass).body;
    if (!text.empty()) {
        RefuseSignature();
    }
    return body;
}

void RequireSize(std::uint64_t cb) {
    if (cb > kMostAttached) {
        throw std::runtime_error("the attached signature would be larger than " + std::to_string(kMostAttached) +
                                 " bytes; make a detached one");
    }
}

// The header of an element whose body has this length.
std::string Header(int nTag, int nClass, bool bConstructed, std::uint64_t cbBody) {
    RequireSize(cbBody);
    constexpr std::size_t kMostBytes = 8;
    std::string strHeader(kMostBytes, '\0');
    auto* const pbBegin = reinterpret_cast<unsigned char*>(strHeader.data());
    unsigned char* pb = pbBegin;
    ASN1_put_object(&pb, bConstructed ? 1 : 0, static_cast<int>(cbBody), nTag, nClass);
    strHeader.resize(static_cast<std::size_t>(pb - pbBegin));
    return strHeader;
}

}  // namespace

ContentFrame FrameContent(std::string_view detached, std::uint64_t cbContent) {
    std::string_view contentInfo = BodyOfOnly(detached, V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL);
    const std::string_view type = Take(contentInfo, V_ASN1_OBJECT, V_ASN1_UNIVERSAL).whole;
    std::string_view rest =
        BodyOfOnly(BodyOfOnly(contentInfo, kContextTag0, V_ASN1_CONTEXT_SPECIFIC), V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL);
    const std::string_view version = Take(rest, V_ASN1_INTEGER, V_ASN1_UNIVERSAL).whole;
    const std::string_view digests = Take(rest, V_ASN1_SET, V_ASN1_UNIVERSAL).whole;
    std::string_view noContent = Take(rest, V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL).body;
    const std::string_view contentType = Take(noContent, V_ASN1_OBJECT, V_ASN1_UNIVERSAL).whole;
    if (!noContent.empty()) {
        RefuseSignature();
    }

    // From the innermost element outwards: each header needs the length of what it encloses.
    std::uint64_t cb = cbContent;
    std::string strBefore;
    const auto enclose = [&](int nTag, int nClass, bool bConstructed, std::string_view before) {
        strBefore.insert(0, before);
        cb += before.size();
        const std::string strHeader = Header(nTag, nClass, bConstructed, cb);
        strBefore.insert(0, strHeader);
        cb += strHeader.size();
        RequireSize(cb);
    };
    enclose(V_ASN1_OCTET_STRING, V_ASN1_UNIVERSAL, false, "");
    enclose(kContextTag0, V_ASN1_CONTEXT_SPECIFIC, true, "");
    enclose(V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL, true, contentType);
    cb += rest.size();
    enclose(V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL, true, std::string(version) + std::string(digests));
    enclose(kContextTag0, V_ASN1_CONTEXT_SPECIFIC, true, "");
    enclose(V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL, true, type);
    return {std::move(strBefore), std::string(rest)};
}

}  // namespace vexsign
