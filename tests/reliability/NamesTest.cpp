// Hostile names in certificates, stores and tokens: a record of the certificate list stays one record, a field stays in
// its field, and each name is the one in the certificate. A name from the list, given as a filter, finds its
// certificate. Messages are one visible line. VEX_TEST_NAMES is the number of certificates.
#include <gtest/gtest.h>

#include <openssl/x509.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Amount.h"
#include "HostileNames.h"
#include "TestToken.h"
#include "ToolkitClient.h"
#include "VCTKFilter.h"
#include "VisibleLine.h"

namespace {

constexpr std::size_t kBatch = 50;

std::size_t Total() {
    return static_cast<std::size_t>(AmountOf("VEX_TEST_NAMES", 150));
}

// An attribute of a name as RFC 4514 writes it.
struct Attribute {
    std::string strType;
    std::string strValue;  // without escapes; after "#", the DER
    bool bDer = false;
};
using RelativeName = std::vector<Attribute>;

// Reads RFC 4514 text; nothing: it is malformed. The least significant name is the first.
std::optional<std::vector<RelativeName>> ParseName(const std::string& strText) {
    const auto hex = [&](std::size_t n) {
        return n + 1 < strText.size() && std::isxdigit(static_cast<unsigned char>(strText[n])) != 0 &&
                       std::isxdigit(static_cast<unsigned char>(strText[n + 1])) != 0
                   ? std::optional(static_cast<char>(std::stoi(strText.substr(n, 2), nullptr, 16)))
                   : std::nullopt;
    };
    std::vector<RelativeName> names;
    if (strText.empty()) {
        return names;
    }
    names.emplace_back();
    for (std::size_t n = 0;;) {
        const std::size_t nEquals = strText.find('=', n);
        if (nEquals == std::string::npos) {
            return std::nullopt;
        }
        Attribute attribute{strText.substr(n, nEquals - n), {}, false};
        n = nEquals + 1;
        attribute.bDer = n < strText.size() && strText[n] == '#';
        for (n += attribute.bDer ? 1 : 0; n < strText.size() && strText[n] != ',' && strText[n] != '+'; ++n) {
            if (attribute.bDer) {
                const std::optional<char> ch = hex(n);
                if (!ch) {
                    return std::nullopt;
                }
                attribute.strValue += *ch;
                ++n;
            } else if (strText[n] != '\\') {
                if (std::string_view("\"<>; ").find(strText[n]) != std::string_view::npos) {
                    return std::nullopt;
                }
                attribute.strValue += strText[n];
            } else if (const std::optional<char> ch = hex(n + 1)) {
                attribute.strValue += *ch;
                n += 2;
            } else if (++n < strText.size()) {
                attribute.strValue += strText[n];
            } else {
                return std::nullopt;
            }
        }
        names.back().push_back(attribute);
        if (n == strText.size()) {
            return names;
        }
        if (strText[n++] == ',') {
            names.emplace_back();
        }
    }
}

std::string DottedOid(const std::string& strType) {
    ASN1_OBJECT* const pObject = OBJ_txt2obj(strType.c_str(), 0);
    char text[200] = {};
    const int cch = pObject == nullptr ? 0 : OBJ_obj2txt(text, sizeof text, pObject, 1);
    ASN1_OBJECT_free(pObject);
    return cch > 0 ? text : "unknown type " + strType;
}

// A malformed value may be shown as any text.
bool IsAttribute(const Attribute& attribute, const HostileValue& value) {
    return DottedOid(attribute.strType) == value.strOid &&
           (attribute.bDer ? attribute.strValue == value.strDer
                           : !value.strUtf8 || attribute.strValue == *value.strUtf8);
}

// Whether the text, parsed, is the name. The text has everything in reverse order.
testing::AssertionResult IsName(const std::string& strText, const HostileName& name) {
    const std::optional<std::vector<RelativeName>> parsed = ParseName(strText);
    if (!parsed || parsed->size() != name.relativeNames.size()) {
        return testing::AssertionFailure() << "not parsed, or into another number of names: " << strText;
    }
    for (std::size_t i = 0; i < parsed->size(); ++i) {
        const std::vector<HostileValue>& expected = name.relativeNames[parsed->size() - 1 - i];
        const RelativeName& found = (*parsed)[i];
        if (!std::equal(found.begin(), found.end(), expected.rbegin(), expected.rend(), IsAttribute)) {
            return testing::AssertionFailure() << "relative name " << i << " of " << strText << " should be "
                                               << testing::PrintToString(expected.front().strDer);
        }
    }
    return testing::AssertionSuccess();
}

bool IsReadable(const HostileCertificate& certificate) {
    const auto* pbDer = reinterpret_cast<const unsigned char*>(certificate.strDer.data());
    const std::unique_ptr<X509, decltype(&X509_free)> read(
        d2i_X509(nullptr, &pbDer, static_cast<long>(certificate.strDer.size())), X509_free);
    return read != nullptr;
}

std::string Base64Of(const std::string& strBytes) {
    std::string strText(4 * (strBytes.size() / 3 + 1) + 1, '\0');
    const int cch =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(strText.data()),
                        reinterpret_cast<const unsigned char*>(strBytes.data()), static_cast<int>(strBytes.size()));
    strText.resize(static_cast<std::size_t>(cch));
    return strText;
}

std::string PercentDecoded(const std::string& strText) {
    std::string strDecoded;
    for (std::size_t i = 0; i < strText.size(); ++i) {
        strDecoded += strText[i];
        if (strText[i] == '%') {
            strDecoded.back() = static_cast<char>(std::stoi(strText.substr(i + 1, 2), nullptr, 16));
            i += 2;
        }
    }
    return strDecoded;
}

class NamesTest : public testing::Test {
protected:
    using Records = std::vector<std::vector<std::string>>;

    // One batch after the other, the last one smaller, until there were as many certificates as wanted.
    template <typename Check>
    void ForEachBatch(Check check) {
        HostileNames names(SeedOfRun());
        for (std::size_t nLeft = Total(); nLeft > 0 && !HasFailure();) {
            std::vector<HostileCertificate> batch(std::min(nLeft, kBatch));
            std::generate(batch.begin(), batch.end(), [&] { return names.Next(); });
            check(names, batch);
            nLeft -= batch.size();
        }
    }

    // The files' URIs without attributes.
    std::vector<std::string> WriteStores(HostileNames& names, const std::vector<HostileCertificate>& batch) const {
        std::string strPem = names.KeyPem();
        for (const HostileCertificate& certificate : batch) {
            strPem += HostileNames::CertificatePem(certificate.strDer);
        }
        return {"file:" + m_directory.Write("keys.pem", strPem),
                "file:" + m_directory.Write("keys.p12", names.Pkcs12(batch))};
    }

    // By serial number, those that a list can identify.
    static std::map<std::string, const HostileCertificate*> Readable(const std::vector<HostileCertificate>& batch) {
        std::map<std::string, const HostileCertificate*> readable;
        for (const HostileCertificate& certificate : batch) {
            if (IsReadable(certificate)) {
                readable.emplace(certificate.strSerialHex, &certificate);
            }
        }
        return readable;
    }

    static void CheckRecord(const std::vector<std::string>& record, const HostileCertificate& certificate) {
        static const std::regex s_fingerprint("[0-9A-F]{64}");
        static const std::regex s_time("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ");
        EXPECT_EQ(certificate.strSerialHex, record[0]);
        EXPECT_TRUE(std::regex_match(record[1], s_fingerprint)) << record[1];
        EXPECT_TRUE(std::regex_match(record[2], s_time) && std::regex_match(record[3], s_time));
        EXPECT_EQ("EC", record[4]);
        EXPECT_TRUE(IsName(record[5], certificate.subject)) << "subject of " << record[0];
        EXPECT_TRUE(IsName(record[6], certificate.issuer)) << "issuer of " << record[0];
        for (const std::string& strField : record) {
            EXPECT_TRUE(IsUtf8(strField)) << record[0];
            EXPECT_TRUE(std::none_of(strField.begin(), strField.end(), [](char ch) { return ch > 0 && ch <= ' '; }))
                << record[0];
        }
    }

    TempDirectory m_directory;
};

// The serial numbers of a list, with "-" for each damaged certificate.
std::multiset<std::string> Serials(const std::vector<std::vector<std::string>>& records) {
    std::multiset<std::string> serials;
    for (const std::vector<std::string>& record : records) {
        serials.insert(record.at(0));
    }
    return serials;
}

TEST_F(NamesTest, AreTheCertificatesOwnEachInItsField) {
    std::setlocale(LC_ALL, "C.UTF-8");
    std::size_t cListed = 0;
    std::size_t cDamaged = 0;
    ForEachBatch([&](HostileNames& names, const std::vector<HostileCertificate>& batch) {
        const auto readable = Readable(batch);
        std::multiset<std::string> all;
        std::multiset<std::string> signing;
        for (const auto& [strSerial, pCertificate] : readable) {
            all.insert(strSerial);
            if (!pCertificate->bExpired) {
                signing.insert(strSerial);
            }
        }
        all.insert("-");
        for (const std::string& strStore : WriteStores(names, batch)) {
            const bool bNamed = strStore.ends_with(".p12");
            const ToolkitClient client(strStore);
            const ToolkitClient everything(strStore + "?list=all");
            const ToolkitClient certificates(strStore + "?list=certificates");
            EXPECT_EQ(signing, Serials(client.Records()));
            for (const std::vector<std::string>& record : client.Records()) {
                ASSERT_EQ(7U, record.size());
                CheckRecord(record, *readable.at(record[0]));
                ++cListed;
            }
            std::size_t cAll = 0;
            for (const std::vector<std::string>& record : everything.Records()) {
                ASSERT_EQ(8U, record.size());
                ++cAll;
                if (record[7] == "damaged") {
                    EXPECT_EQ("-", record[5]);
                    ++cDamaged;
                    continue;
                }
                CheckRecord(record, *readable.at(record[0]));
                EXPECT_EQ(readable.at(record[0])->bExpired ? "expired" : "signs", record[7]);
            }
            EXPECT_EQ(batch.size(), cAll);
            for (const std::vector<std::string>& record : certificates.Records()) {
                ASSERT_EQ(9U, record.size());
                const HostileCertificate& certificate = *readable.at(record[0]);
                CheckRecord(record, certificate);
                EXPECT_EQ(Base64Of(certificate.strDer), record[8]);
                if (!bNamed || certificate.strFriendlyUtf8) {
                    EXPECT_EQ(bNamed ? *certificate.strFriendlyUtf8 : "", PercentDecoded(record[7]));
                }
            }
        }
    });
    std::printf("%zu certificates in a PEM and a PKCS #12 file: %zu records listed, %zu damaged\n", Total(), cListed,
                cDamaged);
    EXPECT_GT(cListed, Total() / 2);
    EXPECT_GT(cDamaged, 0U);
}

TEST_F(NamesTest, FromTheListFindTheirCertificateAsFilters) {
    std::setlocale(LC_ALL, "C.UTF-8");
    std::size_t cFilters = 0;
    ForEachBatch([&](HostileNames& names, const std::vector<HostileCertificate>& batch) {
        const ToolkitClient client(WriteStores(names, batch).front());
        const Records records = client.Records();
        for (const std::vector<std::string>& record : records) {
            for (const auto& [ulType, nField] : {std::pair<ULONG, std::size_t>{VCTK_FILTER_SUBJECT_NAME, 5},
                                                 {VCTK_FILTER_ISSUER_NAME, 6},
                                                 {VCTK_FILTER_SUBJECT, 5},
                                                 {VCTK_FILTER_ISSUER, 6}}) {
                if (record[nField].empty()) {
                    continue;
                }
                VCTK_ClearFilter(client.Handle());
                ASSERT_EQ(0, VCTK_AddFilter(client.Handle(), ulType, record[nField].c_str()))
                    << client.Message() << ": " << record[nField];
                const Records passing = client.Records();
                EXPECT_TRUE(std::find(passing.begin(), passing.end(), record) != passing.end())
                    << "filter " << ulType << " does not find " << record[nField];
                EXPECT_TRUE(passing.size() < records.size() || records.size() < 3)
                    << "filter " << ulType << " passes everything: " << record[nField];
                ++cFilters;
            }
        }
    });
    std::printf("%zu names given as filters\n", cFilters);
    EXPECT_GT(cFilters, Total());
}

TEST_F(NamesTest, StandInMessagesOfOneVisibleLine) {
    std::setlocale(LC_ALL, "C.UTF-8");
    std::size_t cMessages = 0;
    const auto check = [&](const std::string& strMessage) {
        EXPECT_TRUE(IsVisibleLine(strMessage)) << testing::PrintToString(strMessage);
        ++cMessages;
    };
    ForEachBatch([&](HostileNames& names, const std::vector<HostileCertificate>& batch) {
        for (const HostileCertificate& certificate : batch) {
            if (certificate.bExpired && IsReadable(certificate)) {
                const ToolkitClient client(
                    "file:" + m_directory.Write("expired.pem",
                                                names.KeyPem() + HostileNames::CertificatePem(certificate.strDer)));
                EXPECT_FALSE(client.SignP1("text"));
                EXPECT_EQ(VCTK_E_NO_CERTIFICATE, client.LastError());
                check(client.Message());
            }
        }
        const ToolkitClient client(WriteStores(names, batch).front());
        for (ULONG ulType = 1; ulType <= 14; ++ulType) {
            const std::string strText = names.Text();
            if (VCTK_AddFilter(client.Handle(), ulType, strText.c_str()) != 0) {
                EXPECT_EQ(ulType == 14 ? VCTK_E_FILTER_TYPE : VCTK_E_FILTER_VALUE, client.LastError());
                check(client.Message());
            }
        }
        for (const std::string& strText :
             {names.Text(), "file:/" + names.Text(), "pkcs11:?module-path=/" + names.Text()}) {
            EXPECT_FALSE(ToolkitClient(strText).IsOpen());
            check(ErrorMessage(nullptr));
            EXPECT_NE(0, VCTK_SetDigestAlg(client.Handle(), strText.c_str()));
            check(client.Message());
        }
    });
    std::printf("%zu messages\n", cMessages);
}

// Labels are bytes that anybody wrote; a token does not look at them.
TEST_F(NamesTest, OfTokensAndTheirObjectsStayInTheirFields) {
    std::setlocale(LC_ALL, "C.UTF-8");
    const TestTokens tokens;
    HostileNames names(SeedOfRun());
    const auto quoted = [](std::string strText) {
        for (std::size_t n = strText.find('\''); n != std::string::npos; n = strText.find('\'', n + 4)) {
            strText.replace(n, 1, "'\\''");
        }
        return strText;
    };
    const std::string strPin = "1234";
    const std::string strLabel = "a\x1b[2J\xE2\x80\xAE,;=%$(x)";  // a token's label has at most 32 bytes
    tokens.MakeToken(quoted(strLabel), strPin);
    tokens.Directory().Write("names.key", names.KeyPem());
    tokens.StoreKey(quoted(strLabel), strPin, "names", "01");

    constexpr std::size_t kLeast = 3;
    std::multiset<std::string> labels;
    // Some seeds begin with many that are passed over.
    for (std::size_t n = 0; n < std::max<std::size_t>(Total() / 50, 8) || (labels.size() < kLeast && n < 100); ++n) {
        HostileCertificate certificate = names.Next();
        std::string strText = n % 4 == 0 ? "\xFF\xC0\x80" + names.Text() : names.Text();
        if (!IsReadable(certificate) || certificate.bExpired || strText.starts_with('-') || strText.size() > 10000) {
            continue;
        }
        tokens.Directory().Write("name.crt", HostileNames::CertificatePem(certificate.strDer));
        try {
            tokens.StoreCertificate(quoted(strLabel), strPin, "name", "01", quoted(strText));
        } catch (const std::runtime_error&) {
            continue;  // pkcs11-tool does not read each certificate
        }
        // Without a label of the certificate, or with one that is no text, the key's counts.
        labels.insert(strText.empty() || !IsUtf8(strText) ? "names" : strText);
    }
    std::string strUri = "pkcs11:token=";
    for (const char ch : strLabel) {
        char hex[4];
        std::snprintf(hex, sizeof hex, "%%%02X", static_cast<unsigned char>(ch));
        strUri += hex;
    }
    strUri += "?" + TestTokens::ModuleQuery() + "&pin-value=";
    const ToolkitClient client(strUri + strPin + "&list=certificates");
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    std::multiset<std::string> listed;
    for (const std::vector<std::string>& record : client.Records()) {
        ASSERT_EQ(9U, record.size());
        listed.insert(PercentDecoded(record[7]));
    }
    EXPECT_EQ(labels, listed);
    EXPECT_GE(labels.size(), kLeast);
    std::printf("%zu labels on a token\n", labels.size());

    EXPECT_FALSE(ToolkitClient(strUri + "4321").IsOpen());
    EXPECT_TRUE(IsVisibleLine(ErrorMessage(nullptr))) << ErrorMessage(nullptr);
}

}  // namespace
