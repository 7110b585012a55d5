// What a verification found. It becomes text for people (ReportText.h) or JSON.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vexsign::verify {

enum class Kind { kP1, kP7 };
enum class Trust { kFiles, kSystem, kNone };

enum class Result { kPassed, kFailed, kNotChecked };

// The names of the checks. The JSON has them, so they are an interface.
namespace check {
inline constexpr const char* kForm = "form";                // it is a signature with signers, and nothing else
inline constexpr const char* kCertificate = "certificate";  // the signer's certificate is known
inline constexpr const char* kAlgorithm = "algorithm";      // digest and key are strong enough, and fit together
inline constexpr const char* kAttributes = "attributes";    // the signed attributes of a P7 are complete
inline constexpr const char* kContent = "content";          // the content is what was signed
inline constexpr const char* kSignature = "signature";      // the certificate's key made it
inline constexpr const char* kBinding = "binding";          // the signed attributes name this certificate
inline constexpr const char* kUsage = "usage";              // the certificate is for signing
inline constexpr const char* kValidity = "validity";        // the certificate is valid at the moment of the check
inline constexpr const char* kTime = "time";                // the claimed signing time
inline constexpr const char* kStamp = "stamp";              // a time stamp proves when the signature existed
inline constexpr const char* kChain = "chain";              // somebody trusted issued the certificate
inline constexpr const char* kRevocation = "revocation";
}  // namespace check

struct Check {
    const char* pszName;
    Result result;
    std::string strText;
};

struct CertificateFacts {
    std::string strSubject;      // RFC 4514, in UTF-8
    std::string strIssuer;       // the same
    std::string strSerial;       // upper-case hexadecimal
    std::string strFingerprint;  // SHA-256 of the DER, 64 upper-case hexadecimal digits
    std::string strNotBefore;    // 2026-11-21T05:00:00Z
    std::string strNotAfter;     // the same
};

// When the signature was made. The signer's own claim proves nothing. The time stamp of a trusted authority (RFC 3161)
// proves that the signature existed then.
struct SigningTime {
    std::string strTime;  // that of the earliest trusted time stamp; without one, what the signer claims
    bool bProven = false;
    std::string strClaimed = {};  // what the signer claims; empty: nothing
};

// A time stamp that covers the signature.
struct TimeStamp {
    std::string strTime;
    std::string strAuthority;  // RFC 4514, in UTF-8
    std::string strPolicy;     // an object identifier
    std::string strSerial;     // of the time stamp, among those of the authority
    std::string strDigest;
    bool bTrusted = false;  // somebody trusted vouches for the authority
};

struct Findings {
    std::vector<Check> checks;

    void Pass(const char* pszName, std::string strText) { Add(pszName, Result::kPassed, std::move(strText)); }
    void Fail(const char* pszName, std::string strText) { Add(pszName, Result::kFailed, std::move(strText)); }
    void Skip(const char* pszName, std::string strText) { Add(pszName, Result::kNotChecked, std::move(strText)); }
    bool HasPassed(const char* pszName) const;
    bool HasFailed() const;

private:
    void Add(const char* pszName, Result result, std::string strText) {
        checks.push_back({pszName, result, std::move(strText)});
    }
};

struct SignerReport : Findings {
    std::optional<CertificateFacts> certificate;
    std::optional<SigningTime> time;
    std::vector<TimeStamp> stamps;
    std::string strAlgorithm;  // "ECDSA with SHA-256"; empty: unknown
};

struct Report : Findings {
    std::string strSignature;  // the file's name
    Kind kind = Kind::kP7;
    bool bDetached = true;
    Trust trust = Trust::kSystem;
    std::string strMoment;  // for which the certificates were checked
    std::vector<SignerReport> signers;

    // Something was checked for every signer, and nothing failed.
    bool IsGood() const;
};

}  // namespace vexsign::verify
