// Builds CMS signatures byte by byte, right and wrong ones, so that a test does not depend on what OpenSSL's CMS makes.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "TempDirectory.h"
#include "Tlv.h"
#include "vexsign/verify/OpenSsl.h"

namespace vexsign::verify {

struct TestSigner {
    KeyPtr key;
    X509Ptr certificate;
};

// From the files NAME.key and NAME.crt.
TestSigner LoadSigner(const TempDirectory& directory, const std::string& strKey, const std::string& strCertificate);

inline constexpr const char* kData = "1.2.840.113549.1.7.1";
inline constexpr const char* kSha256 = "2.16.840.1.101.3.4.2.1";
inline constexpr const char* kSha1 = "1.3.14.3.2.26";
inline constexpr const char* kMd5 = "1.2.840.113549.2.5";

std::string ObjectIdentifier(const char* pszDotted);
std::string DigestOf(const char* pszDigest, std::string_view bytes);
std::string SignBytes(EVP_PKEY* pKey, const char* pszDigest, std::string_view bytes);
// ECDSA's sequence, of numbers as big-endian bytes.
std::string EcdsaSequence(std::string_view r, std::string_view s);
inline const std::string kZero(1, '\0');

std::string ContentTypeAttribute(const char* pszDotted = kData);
std::string DigestAttribute(std::string_view digest);
// strTime: as "261122170000Z".
std::string TimeAttribute(const std::string& strTime);
// signing-certificate-v2
std::string BindingAttribute(X509* pCertificate);

using Change = std::function<std::string(std::string)>;

// One signer and how it signs.
struct Recipe {
    const TestSigner* pSigner = nullptr;
    const char* pszDigest = "SHA256";
    const char* pszDigestOid = kSha256;
    const char* pszSignatureOid = nullptr;  // null: that of the key, with SHA-256
    std::vector<std::string> attributes;    // empty: none
    bool bSorted = true;
    EVP_PKEY* pOtherKey = nullptr;  // signs instead of the signer's
    Change attributesInFile;        // after they were signed
    Change signature;
};

// content: what is signed if there are no attributes. Returns the SignerInfo.
std::string MakeSigner(const Recipe& recipe, std::string_view content);

// pContent: null for a detached signature.
std::string MakeSignedData(const std::vector<std::string>& signers, const std::vector<X509*>& certificates,
                           const std::string* pContent, const char* pszDigestOid = kSha256);

}  // namespace vexsign::verify
