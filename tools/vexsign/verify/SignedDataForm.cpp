#include "SignedDataForm.h"

#include <openssl/asn1.h>

#include <optional>
#include <string>

#include "Ber.h"

namespace vexsign::verify {
namespace {

constexpr int kUniversal = V_ASN1_UNIVERSAL;
constexpr int kContext = V_ASN1_CONTEXT_SPECIFIC;

Element Take(std::string_view& text, int nTag, int nClass, const char* pszWhat) {
    const std::optional<Element> element = TakeElement(text);
    if (!element) {
        throw BadForm(std::string("it is cut off or damaged at the ") + pszWhat);
    }
    if (!element->Is(nTag, nClass)) {
        throw BadForm(std::string("it is no CMS SignedData: something else is in the place of the ") + pszWhat);
    }
    return *element;
}

void RequireEnd(std::string_view text, const char* pszWhat) {
    if (!text.empty()) {
        throw BadForm(std::to_string(text.size()) + " bytes are behind the end of the " + pszWhat);
    }
}

// Takes the element only if it is there.
std::optional<Element> TakeOptional(std::string_view& text, int nTag) {
    std::string_view rest = text;
    const std::optional<Element> element = TakeElement(rest);
    if (!element || !element->Is(nTag, kContext)) {
        return std::nullopt;
    }
    text = rest;
    return element;
}

// The values of each attribute are a SET OF, too.
bool HasSortedValues(std::string_view attributes) {
    while (!attributes.empty()) {
        const std::optional<Element> attribute = TakeElement(attributes);
        std::string_view fields = attribute ? attribute->body : std::string_view();
        TakeElement(fields);
        const std::optional<Element> values = TakeElement(fields);
        if (!values || !IsSorted(values->body)) {
            return false;
        }
    }
    return true;
}

SignerForm FormOfSigner(std::string_view signer) {
    Take(signer, V_ASN1_INTEGER, kUniversal, "signer's version");
    if (!TakeOptional(signer, 0)) {
        Take(signer, V_ASN1_SEQUENCE, kUniversal, "signer's issuer and serial number");
    }
    Take(signer, V_ASN1_SEQUENCE, kUniversal, "signer's digest algorithm");
    SignerForm form;
    if (const std::optional<Element> attributes = TakeOptional(signer, 0)) {
        form.bHasAttributes = true;
        form.bAttributesAreDer =
            IsDer(attributes->whole) && IsSorted(attributes->body) && HasSortedValues(attributes->body);
    }
    Take(signer, V_ASN1_SEQUENCE, kUniversal, "signature algorithm");
    Take(signer, V_ASN1_OCTET_STRING, kUniversal, "signature's value");
    TakeOptional(signer, 1);
    RequireEnd(signer, "signer's fields");
    return form;
}

// An OBJECT IDENTIFIER's value: id-signedData, 1.2.840.113549.1.7.2.
constexpr std::string_view kSignedData = "\x2A\x86\x48\x86\xF7\x0D\x01\x07\x02";

}  // namespace

std::vector<SignerForm> FormOf(std::string_view bytes) {
    std::string_view contentInfo = Take(bytes, V_ASN1_SEQUENCE, kUniversal, "outermost sequence").body;
    RequireEnd(bytes, "signature");
    if (Take(contentInfo, V_ASN1_OBJECT, kUniversal, "content type").body != kSignedData) {
        throw BadForm("it is another kind of CMS than SignedData");
    }
    std::string_view wrapped = Take(contentInfo, 0, kContext, "content").body;
    RequireEnd(contentInfo, "content");
    std::string_view signedData = Take(wrapped, V_ASN1_SEQUENCE, kUniversal, "SignedData").body;
    RequireEnd(wrapped, "SignedData");
    Take(signedData, V_ASN1_INTEGER, kUniversal, "version");
    Take(signedData, V_ASN1_SET, kUniversal, "digest algorithms");
    Take(signedData, V_ASN1_SEQUENCE, kUniversal, "signed content");
    TakeOptional(signedData, 0);
    TakeOptional(signedData, 1);
    std::string_view signers = Take(signedData, V_ASN1_SET, kUniversal, "signers").body;
    RequireEnd(signedData, "signers");
    std::vector<SignerForm> forms;
    while (!signers.empty()) {
        forms.push_back(FormOfSigner(Take(signers, V_ASN1_SEQUENCE, kUniversal, "signer").body));
        if (forms.size() > kMostSigners) {
            throw BadForm("it has more than " + std::to_string(kMostSigners) + " signers");
        }
    }
    if (forms.empty()) {
        throw BadForm("nobody signed: it has certificates or content, but no signer");
    }
    return forms;
}

}  // namespace vexsign::verify
