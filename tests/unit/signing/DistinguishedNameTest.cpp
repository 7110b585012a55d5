#include "signing/DistinguishedName.h"

#include <gtest/gtest.h>

#include <clocale>
#include <memory>

namespace vextk {
namespace {

struct Entry {
    const char* pszType;
    int nForm;
    const char* pszValue;
    bool fSameSet = false;
};

DistinguishedName NameOf(std::initializer_list<Entry> entries) {
    const std::unique_ptr<X509_NAME, Deleter<X509_NAME_free>> name(X509_NAME_new());
    for (const Entry& entry : entries) {
        EXPECT_EQ(X509_NAME_add_entry_by_txt(name.get(), entry.pszType, entry.nForm,
                                             reinterpret_cast<const unsigned char*>(entry.pszValue), -1, -1,
                                             entry.fSameSet ? -1 : 0),
                  1)
            << entry.pszType;
    }
    return DistinguishedName(name.get());
}

// C=DE, O=Acme, Inc, CN=Anna Weiss + emailAddress=a@b.example
DistinguishedName Anna() {
    return NameOf({{"C", V_ASN1_PRINTABLESTRING, "DE"},
                   {"O", V_ASN1_UTF8STRING, "Acme, Inc"},
                   {"CN", V_ASN1_T61STRING, "Anna  Weiss "},
                   {"emailAddress", V_ASN1_IA5STRING, "a@b.example", true}});
}

class DistinguishedNameOfAnna : public testing::TestWithParam<const char*> {};

TEST_P(DistinguishedNameOfAnna, Equals) {
    const auto name = DistinguishedName::Parse(GetParam());
    ASSERT_TRUE(name);
    EXPECT_EQ(*name, Anna());
}

INSTANTIATE_TEST_SUITE_P(
    All, DistinguishedNameOfAnna,
    testing::Values("CN=Anna Weiss+emailAddress=a@b.example,O=Acme\\, Inc,C=DE",
                    "emailAddress=a@b.example+CN=Anna Weiss,O=Acme\\, Inc,C=DE",
                    "cn=ANNA   weiss + EMAILADDRESS=A@B.example , o=  acme\\2C inc, c=de",
                    "CN=\\ Anna\\20Weiss\\ +emailAddress=a@b.example,O=Acme\\,\\20Inc,C=DE",
                    "2.5.4.3=Anna Weiss+1.2.840.113549.1.9.1=a@b.example,2.5.4.10=Acme\\, Inc,2.5.4.6=DE",
                    "CN=#0C0A416E6E61205765697373+emailAddress=a@b.example,O=#130941636D652C20496E63,C=DE"));

class DistinguishedNameOther : public testing::TestWithParam<const char*> {};

TEST_P(DistinguishedNameOther, IsNotAnna) {
    const auto name = DistinguishedName::Parse(GetParam());
    ASSERT_TRUE(name);
    EXPECT_NE(*name, Anna());
}

INSTANTIATE_TEST_SUITE_P(All, DistinguishedNameOther,
                         testing::Values("CN=Anna Weiss,emailAddress=a@b.example,O=Acme\\, Inc,C=DE",
                                         "C=DE,O=Acme\\, Inc,CN=Anna Weiss+emailAddress=a@b.example",
                                         "CN=Anna Weiss,O=Acme\\, Inc,C=DE",
                                         "CN=AnnaWeiss+emailAddress=a@b.example,O=Acme\\, Inc,C=DE",
                                         "SN=Anna Weiss+emailAddress=a@b.example,O=Acme\\, Inc,C=DE",
                                         "CN=Anna Weiss+emailAddress=a@b.example+OU=x,O=Acme\\, Inc,C=DE",
                                         "CN=#040A416E6E61205765697373+emailAddress=a@b.example,O=Acme\\, Inc,C=DE"));

class DistinguishedNameMalformed : public testing::TestWithParam<const char*> {};

TEST_P(DistinguishedNameMalformed, IsNone) {
    EXPECT_FALSE(DistinguishedName::Parse(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(All, DistinguishedNameMalformed,
                         testing::Values("Anna", "=Anna", "CN=Anna,", "CN=Anna+", ",CN=Anna", "CN=Anna,,C=DE",
                                         "NoSuchType=x", "1.2.=x", "CN=a\"b", "CN=a;C=DE", "CN=a<b", "CN=a\\",
                                         "CN=a\\x", "CN=a\\4", "CN=\\FF", "CN=#", "CN=#0C", "CN=#0C0", "CN=#0C0141x",
                                         "CN=#0C014141", "CN=#0500", "CN=#0101FF", "CN=#0603550403"));

TEST(DistinguishedName, LettersBeyondAsciiHaveCaseInAUtf8Locale) {
    const DistinguishedName name = NameOf({{"CN", MBSTRING_UTF8, "B\xC3\x96"}});
    std::setlocale(LC_ALL, "C.UTF-8");
    EXPECT_EQ(DistinguishedName::Parse("CN=b\xC3\xB6"), NameOf({{"CN", MBSTRING_UTF8, "B\xC3\x96"}}));
    EXPECT_EQ(DistinguishedName::Parse("CN=b\\C3\\B6"), NameOf({{"CN", MBSTRING_UTF8, "B\xC3\x96"}}));
    EXPECT_NE(DistinguishedName::Parse("CN=bo"), NameOf({{"CN", MBSTRING_UTF8, "B\xC3\x96"}}));
    std::setlocale(LC_ALL, "C");
    EXPECT_EQ(DistinguishedName::Parse("CN=b\xC3\x96"), name);
}

// OpenSSL also has a type "uid", which was taken for UID in any case.
TEST(DistinguishedName, TypesWhoseNamesDifferOnlyInCaseAreTold) {
    EXPECT_EQ(DistinguishedName::Parse("UID=anna"), NameOf({{"0.9.2342.19200300.100.1.1", V_ASN1_UTF8STRING, "anna"}}));
    EXPECT_EQ(DistinguishedName::Parse("uid=anna"), NameOf({{"uid", V_ASN1_UTF8STRING, "anna"}}));
    EXPECT_NE(DistinguishedName::Parse("UID=anna"), DistinguishedName::Parse("uid=anna"));
}

TEST(DistinguishedName, DigitsAreTextInEachStringType) {
    for (const int nType : {V_ASN1_NUMERICSTRING, V_ASN1_PRINTABLESTRING, V_ASN1_IA5STRING, V_ASN1_UTF8STRING}) {
        EXPECT_EQ(DistinguishedName::Parse("serialNumber=12 34"), NameOf({{"serialNumber", nType, "12 34"}})) << nType;
    }
}

TEST(DistinguishedName, ATextThatIsNoUnicodeIsComparedByteByByte) {
    const DistinguishedName half = NameOf({{"CN", V_ASN1_UTF8STRING, "a\xC3"}});
    EXPECT_EQ(DistinguishedName::Parse("CN=#0C0261C3"), half);
    EXPECT_NE(DistinguishedName::Parse("CN=a"), half);
    EXPECT_NE(DistinguishedName::Parse("CN=a\\C3\\83"), half);
}

TEST(DistinguishedName, BlanksAloneAreAnEmptyText) {
    EXPECT_EQ(DistinguishedName::Parse("CN=\\ \\ "), NameOf({{"CN", V_ASN1_UTF8STRING, "  "}}));
    EXPECT_EQ(DistinguishedName::Parse("CN="), NameOf({{"CN", V_ASN1_UTF8STRING, " "}}));
    EXPECT_EQ(DistinguishedName::Parse("CN="), NameOf({{"CN", V_ASN1_UTF8STRING, ""}}));
    EXPECT_EQ(DistinguishedName::Parse("CN="), NameOf({{"CN", V_ASN1_T61STRING, ""}}));
}

// The attributes of a relative name have no order.
TEST(DistinguishedName, ValuesOfOneTypeAreASet) {
    const DistinguishedName units = NameOf(
        {{"OU", V_ASN1_UTF8STRING, "a"}, {"OU", V_ASN1_BIT_STRING, "b", true}, {"OU", V_ASN1_UTF8STRING, "c", true}});
    EXPECT_EQ(DistinguishedName::Parse("OU=c+OU=#03020062+OU=a"), units);
    EXPECT_EQ(DistinguishedName::Parse("OU=#03020062 + OU=a+OU=c"), units);
    EXPECT_NE(DistinguishedName::Parse("OU=a+OU=c"), units);
}

TEST(DistinguishedName, ValuesThatAreNotTextAreComparedByteByByte) {
    const DistinguishedName bits = NameOf({{"x500UniqueIdentifier", V_ASN1_BIT_STRING, "Ab"}});
    EXPECT_EQ(DistinguishedName::Parse("x500UniqueIdentifier=#0303004162"), bits);
    EXPECT_NE(DistinguishedName::Parse("x500UniqueIdentifier=#0303006142"), bits);
    EXPECT_NE(DistinguishedName::Parse("x500UniqueIdentifier=Ab"), bits);
}

}  // namespace
}  // namespace vextk
