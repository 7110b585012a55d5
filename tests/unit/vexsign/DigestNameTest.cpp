#include "vexsign/DigestName.h"

#include <gtest/gtest.h>

#include "Row.h"
#include "vexsign/Hash.h"

namespace vexsign {
namespace {

struct NameRow : Row {
    const char* pszName;
    bool bPrehashed;
    bool bPss;
    const char* pszOption;
    const char* pszHash;  // of "abc", the first bytes in hexadecimal; empty: OpenSSL does not know the name
};

class DigestNames : public testing::TestWithParam<NameRow> {};

TEST_P(DigestNames, AreReadLikeTheToolkitDoes) {
    const NameRow& row = GetParam();
    const DigestName name(row.pszName);
    EXPECT_EQ(name.IsPrehashed(), row.bPrehashed);
    EXPECT_EQ(name.IsPss(), row.bPss);
    EXPECT_EQ(name.DgstOption(), row.pszOption);

    std::optional<Hash> hash = Hash::Find(row.pszName);
    ASSERT_EQ(hash.has_value(), *row.pszHash != '\0');
    if (hash) {
        hash->Add("a");
        hash->Add("bc");
        std::string strHex;
        for (const char ch : hash->Finish().substr(0, 4)) {
            constexpr std::string_view kDigits = "0123456789abcdef";
            const auto uByte = static_cast<unsigned char>(ch);
            strHex += {kDigits[uByte / 16], kDigits[uByte % 16]};
        }
        EXPECT_EQ(strHex, row.pszHash);
    }
}

// The hashes are those of FIPS 180-4 and FIPS 202.
INSTANTIATE_TEST_SUITE_P(
    Names, DigestNames,
    testing::Values(NameRow{{"Plain"}, "SHA256", false, false, "-sha256", "ba7816bf"},
                    NameRow{{"Hyphen"}, "sha-384", false, false, "-sha384", "cb00753f"},
                    NameRow{{"OpenSsl"}, "SHA2-512", false, false, "-sha512", "ddaf35a1"},
                    NameRow{{"Sha224"}, "SHA-224", false, false, "-sha224", "23097d22"},
                    NameRow{{"Truncated"}, "SHA-512/256", false, false, "-sha512-256", "53048e26"},
                    NameRow{{"TruncatedOpenSsl"}, "SHA2-512/224", false, false, "-sha512-224", "4634270f"},
                    NameRow{{"TruncatedJava"}, "Sha512/256", false, false, "-sha512-256", "53048e26"},
                    NameRow{{"TruncatedJava224"}, "SHA512/224", false, false, "-sha512-224", "4634270f"},
                    NameRow{{"Sha3"}, "SHA3-256", false, false, "-sha3-256", "3a985da7"},
                    NameRow{{"Pss"}, "SHA-256/PSS", false, true, "-sha256", "ba7816bf"},
                    NameRow{{"PssLowerCase"}, "sha512/256/pss", false, true, "-sha512-256", "53048e26"},
                    NameRow{{"Prehashed"}, "PreHashed:SHA-256/PSS", true, true, "-sha256", "ba7816bf"},
                    NameRow{{"PrehashedNone"}, "prehashed:NONE", true, false, "-none", ""},
                    NameRow{{"OnlyPss"}, "/PSS", false, true, "-", ""},
                    NameRow{{"Unknown"}, "SHA-257", false, false, "-sha257", ""},
                    NameRow{{"Empty"}, "", false, false, "-", ""}),
    RowName);

}  // namespace
}  // namespace vexsign
