// Names match in any case, also in a locale with other rules for case: in Turkish, "I" is not the capital of "i".
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <cwctype>

#include "Row.h"
#include "TestStore.h"
#include "ToolkitClient.h"
#include "VCTKFilter.h"

namespace {

class TurkishLocaleTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_pDirectory = new TempDirectory;
        MakeIdentity(*s_pDirectory, {"a", "rsa:2048", "/CN=IVAN \xC4\xB0NAN/O=acme inc/L=\xC3\x96RBY", 30,
                                     "-addext keyUsage=digitalSignature -addext extendedKeyUsage=timeStamping"});
        MakePemStore(*s_pDirectory, "store.pem", {"a"});
        RequireCommand("localedef -c -i tr_TR -f UTF-8 " + s_pDirectory->Path("tr_TR.UTF-8"));
    }
    static void TearDownTestSuite() { delete s_pDirectory; }

    void SetUp() override {
        ASSERT_EQ(setenv("LOCPATH", s_pDirectory->Path().c_str(), 1), 0);
        ASSERT_NE(std::setlocale(LC_ALL, "tr_TR.UTF-8"), nullptr);
        ASSERT_NE(std::towlower(L'I'), static_cast<std::wint_t>(L'i')) << "the locale is not Turkish";
    }
    void TearDown() override {
        std::setlocale(LC_ALL, "C");
        unsetenv("LOCPATH");
    }

    static std::string Uri(const char* pszScheme = "file:") { return pszScheme + s_pDirectory->Path("store.pem"); }

    static TempDirectory* s_pDirectory;
};
TempDirectory* TurkishLocaleTest::s_pDirectory = nullptr;

struct TurkishFilter : Row {
    ULONG ulType;
    const char* pszValue;
    bool fPasses = true;
};

// In GB18030, two bytes may be the beginning of a character of four.
TEST_F(TurkishLocaleTest, ACharacterThatIsCutOffMakesAFilterMalformed) {
    RequireCommand("localedef -c -i zh_CN -f GB18030 " + s_pDirectory->Path("zh_CN.GB18030"));
    ASSERT_NE(std::setlocale(LC_ALL, "zh_CN.GB18030"), nullptr);
    for (const char* pszValue : {"\x81\x30", "IVAN\x81\x30", "\x81", "\xFF"}) {
        const ToolkitClient client(Uri());
        EXPECT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_SUBJECT, pszValue), VCTK_E_FILTER_VALUE) << pszValue;
        ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_SUBJECT, "ivan"), 0) << client.Message();
        EXPECT_EQ(client.Records().size(), 1U);
    }
}

class TurkishLocaleFilter : public TurkishLocaleTest, public testing::WithParamInterface<TurkishFilter> {};

TEST_P(TurkishLocaleFilter, PassesAsInOtherLocales) {
    const ToolkitClient client(Uri());
    ASSERT_EQ(VCTK_AddFilter(client.Handle(), GetParam().ulType, GetParam().pszValue), 0) << client.Message();
    EXPECT_EQ(client.Records().size(), GetParam().fPasses ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(
    , TurkishLocaleFilter,
    testing::Values(TurkishFilter{"Subject", VCTK_FILTER_SUBJECT, "ivan"},
                    TurkishFilter{"Issuer", VCTK_FILTER_ISSUER, "ACME INC"},
                    TurkishFilter{"OtherScript", VCTK_FILTER_SUBJECT, "l=\xC3\xB6rby"},
                    TurkishFilter{"DottedCapital", VCTK_FILTER_SUBJECT, "\xC4\xB0nan"},
                    TurkishFilter{"DottedCapitalIsNoOtherLetter", VCTK_FILTER_SUBJECT, "inan", false},
                    TurkishFilter{"DotlessSmallIsNoOtherLetter", VCTK_FILTER_SUBJECT, "\xC4\xB1van", false},
                    TurkishFilter{"KeyUsage", VCTK_FILTER_KEY_USAGE, "DIGITALSIGNATURE"},
                    TurkishFilter{"KeyUsageAll", VCTK_FILTER_KEY_USAGE_ALL, "DIGITALSIGNATURE"},
                    TurkishFilter{"ExtendedKeyUsage", VCTK_FILTER_EXTENDED_KEY_USAGE, "TIMESTAMPING"},
                    TurkishFilter{"WholeName", VCTK_FILTER_SUBJECT_NAME,
                                  "LOCALITYNAME=\xC3\xB6rby,o=ACME INC,CN=ivan \xC4\xB0NAN"}),
    RowName);

TEST_F(TurkishLocaleTest, DigestsAndStoresAreFoundInAnyCase) {
    EXPECT_TRUE(ToolkitClient(Uri("FILE:")).IsOpen()) << ErrorMessage(nullptr);
    const ToolkitClient client(Uri());
    EXPECT_EQ(VCTK_SetDigestAlg(client.Handle(), "ssl3-sha1"), VCTK_E_DIGEST_WEAK);
    EXPECT_EQ(VCTK_SetDigestAlg(client.Handle(), "SHA2-256"), VCTK_OK) << client.Message();
    EXPECT_EQ(VCTK_SetDigestAlg(client.Handle(), "sha512/256"), VCTK_OK) << client.Message();
}

}  // namespace
