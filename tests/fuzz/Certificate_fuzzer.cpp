// Certificates: their names and extensions, in the list and for the filters. Whatever is in one, the list keeps its
// form, and what the list shows finds the certificate again. The input is a byte that is not used, and the DER of one
// certificate or of several, one behind the other.
#include <array>
#include <clocale>
#include <cstdint>
#include <ctime>
#include <string>

#include "Require.h"
#include "StoreChecks.h"
#include "VCTKFilter.h"
#include "posix/Utf8.h"
#include "signing/Candidates.h"
#include "signing/DistinguishedName.h"
#include "signing/Filter.h"
#include "signing/SigningObject.h"

namespace {

using namespace vextk;

constexpr std::time_t kMoment = 1800000000;
constexpr std::size_t kMostCertificates = 8;

Identities ReadCertificates(const std::uint8_t* pbData, std::size_t cbData) {
    const ErrorMark mark;
    Identities identities;
    const std::uint8_t* const pbEnd = pbData + cbData;
    while (pbData < pbEnd && identities.size() < kMostCertificates) {
        X509Ptr certificate(d2i_X509(nullptr, &pbData, static_cast<long>(pbEnd - pbData)));
        const bool bLast = certificate == nullptr;
        identities.push_back(MakeIdentity(std::move(certificate), nullptr, Flaw::kNoPrivateKey, "name"));
        if (bLast) {
            break;
        }
    }
    return identities;
}

// Whether the certificate passes the filter, which must be accepted.
bool Passes(const Identity& identity, ULONG ulType, const std::string& strValue) {
    return Filter(ulType, strValue).Passes(identity);
}

// These say only something about the certificate; any answer is right.
void AskOtherFilters(const Identity& identity) {
    constexpr std::array<std::pair<ULONG, const char*>, 8> kFilters = {
        {{VCTK_FILTER_KEY_USAGE, "digitalSignature"},
         {VCTK_FILTER_KEY_USAGE_ALL, "digitalSignature,keyCertSign,decipherOnly"},
         {VCTK_FILTER_EXTENDED_KEY_USAGE, "emailProtection,1.2.3"},
         {VCTK_FILTER_VALID_AT, "2026-11-21T05:00:00Z"},
         {VCTK_FILTER_POLICY, "2.5.29.32.0"},
         {VCTK_FILTER_KEY_SIZE, "2048"},
         {VCTK_FILTER_KEY_ALGORITHM, "EC"},
         {VCTK_FILTER_ISSUER_NAME, "CN=Test"}}};
    for (const auto& [ulType, pszValue] : kFilters) {
        static_cast<void>(Passes(identity, ulType, pszValue));
    }
}

void RequireFoundAgain(const Identity& identity, const std::string& strSerial, const std::string& strFingerprint,
                       const std::string& strSubject, const std::string& strIssuer) {
    Require(Passes(identity, VCTK_FILTER_SERIAL, strSerial));
    Require(Passes(identity, VCTK_FILTER_FINGERPRINT, strFingerprint));
    Require(strSubject.empty() || Passes(identity, VCTK_FILTER_SUBJECT, strSubject));
    Require(strIssuer.empty() || Passes(identity, VCTK_FILTER_ISSUER, strIssuer));
    Require(Passes(identity, VCTK_FILTER_KEY_SIZE, std::to_string(identity.KeyBits())));
    Require(!Passes(identity, VCTK_FILTER_KEY_SIZE, std::to_string(identity.KeyBits() + 1)));
    const DistinguishedName name(X509_get_subject_name(identity.Certificate()));
    if (const auto listed = DistinguishedName::Parse(strSubject)) {
        Require(*listed == name);
    }
}

void RequireTexts(const Identity& identity) {
    Require(IsLine(StateText(identity, kMoment)));
    Require(identity.FlawAt(kMoment) != Flaw::kNone);
    if (identity.Certificate() == nullptr) {
        Require(identity.Subject().empty() && identity.FlawAt(kMoment) == Flaw::kDamaged);
        return;
    }
    Require(vexposix::IsPlainUtf8(identity.Subject()) && vexposix::IsPlainUtf8(identity.Issuer()));
    Require(identity.IsValidAt(kMoment) == (identity.NotBefore() <= kMoment && kMoment <= identity.NotAfter()));
    Require(!identity.CertificateBase64().empty());
    AskOtherFilters(identity);
}

// The fields of the list, which has one record for each certificate.
void RequireList(const IdentitiesPtr& identities) {
    SigningObject object(std::make_shared<const OpenedStore>(OpenedStore{identities, true}));
    std::string strList;
    Require(object.Call([&](SigningObject& called) { strList = called.CertificateList("\n", "\t"); }) == VCTK_OK);
    for (const IdentityPtr& identity : *identities) {
        const std::string strRecord = strList.substr(0, strList.find('\n'));
        strList.erase(0, strRecord.size() + 1);
        std::array<std::string, 8> fields;
        std::size_t nBegin = 0;
        for (std::string& strField : fields) {
            Require(nBegin <= strRecord.size());
            strField = strRecord.substr(nBegin, strRecord.find('\t', nBegin) - nBegin);
            Require(strField.find(' ') == std::string::npos);
            nBegin += strField.size() + 1;
        }
        Require(nBegin == strRecord.size() + 1);
        if (identity->Certificate() != nullptr) {
            RequireFoundAgain(*identity, fields[0], fields[1], fields[5], fields[6]);
        }
    }
    Require(strList.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pbData, std::size_t cbData) {
    static const char* const s_pszLocale = std::setlocale(LC_CTYPE, "C.UTF-8");
    Require(s_pszLocale != nullptr);
    if (cbData == 0) {
        return 0;
    }
    InitialiseOpenSsl();
    const auto identities = std::make_shared<const Identities>(ReadCertificates(pbData + 1, cbData - 1));
    for (const IdentityPtr& identity : *identities) {
        RequireTexts(*identity);
    }
    RequireList(identities);
    const Identities different = WithoutCopies(*identities);
    Require(different.size() <= identities->size());
    const std::string strPassedOver = PassedOverText(different, 0, kMoment);
    Require(different.empty() || IsLine(strPassedOver));
    ERR_clear_error();
    return 0;
}
