// Tokens as stores: which one, which certificates, what signs, and what is said when something is wrong.
#include <gtest/gtest.h>
#include <p11-kit/pkcs11.h>

#include <map>
#include <string>
#include <utility>

#include "ChildProcess.h"
#include "OpenErrors.h"
#include "TokenFixture.h"
#include "VCTKFilter.h"

namespace {

TEST_F(TokenTest, RsaAndEcSignaturesAreAccepted) {
    for (const char* pszDigest : {"SHA256", "SHA384", "SHA512"}) {
        const ToolkitClient client(Card());
        ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
        ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_SUBJECT_NAME, "CN=rsacert"), 0);
        ExpectSignatures(client, "rsacert", pszDigest);
        ASSERT_EQ(VCTK_ClearFilter(client.Handle()), 0);
        ASSERT_EQ(VCTK_AddFilter(client.Handle(), VCTK_FILTER_SUBJECT_NAME, "CN=eccert"), 0);
        ExpectSignatures(client, "eccert", pszDigest);
    }
    const ToolkitClient other(Uri("token=Other%20card?pin-value=0815"));
    ASSERT_TRUE(other.IsOpen()) << ErrorMessage(nullptr);
    ExpectSignatures(other, "other", "SHA512");
}

TEST_F(TokenTest, SignsWithSha3) {
    const ToolkitClient rsa(Card(";id=%01"));
    ASSERT_TRUE(rsa.IsOpen()) << ErrorMessage(nullptr);
    ExpectSignatures(rsa, "rsacert", "SHA3-256");
    const ToolkitClient ec(Card(";id=%00%02"));
    ASSERT_EQ(VCTK_SetDigestAlg(ec.Handle(), "SHA3-256"), 0);
    EXPECT_TRUE(ec.SignP1("text")) << ec.Message();
    // As with an EC key from a file: OpenSSL 3.0 has no name for the combination in CMS.
    if (!ec.SignP7("text", 0, 0, 1)) {
        EXPECT_EQ(ec.LastError(), VCTK_E_SIGN_FAILED) << ec.Message();
    }
}

// openssl knows only the root. The URI describes only the signer's certificate.
TEST_F(TokenTest, ChainsComeFromTheWholeTokenAndFromAFile) {
    const TempDirectory& directory = s_pTokens->Directory();
    const std::string strSource = "&chain-source=" + directory.Path("ca1.crt");
    for (const std::string& strUri : {std::string("token=Chained;id=%02?pin-value=4711&chain=store"),
                                      std::string("token=Chained;id=%03?pin-value=4711&chain=store"),
                                      std::string("token=Chained;id=%04?pin-value=4711&chain=store"),
                                      "token=Bare;id=%01?pin-value=4711&chain=store" + strSource}) {
        const ToolkitClient client(Uri(strUri));
        ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
        EXPECT_EQ(Names(client), "Leaf ");
        directory.Write("text", "text");
        directory.Write("p7", client.SignP7("text", 0, 1, 1).value_or(""));
        const CommandResult verified =
            RunCommand(s_pTokens->In() + "base64 -d p7 | openssl cms -verify -inform DER -binary -content text " +
                       "-purpose smimesign -CAfile root.crt -out /dev/null");
        EXPECT_EQ(verified.nStatus, 0) << strUri << verified.strOutput;
    }
}

struct Described {
    const char* pszUri;
    const char* pszNames;
};

class TokenObjects : public TokenTest, public testing::WithParamInterface<Described> {};

TEST_P(TokenObjects, AreThoseThatTheUriDescribes) {
    const ToolkitClient client(Uri(GetParam().pszUri));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    EXPECT_EQ(Names(client), GetParam().pszNames);
}

INSTANTIATE_TEST_SUITE_P(
    All, TokenObjects,
    testing::Values(Described{"token=Card;id=%01?pin-value=4711", "rsacert "},
                    Described{"token=Card;id=%00%02?pin-value=%34711", "eccert "},
                    Described{"token=Card;object=eccert?pin-value=4711", "eccert "},
                    Described{"token=Card;object=eckey?pin-value=4711", "eccert "},
                    Described{"token=Card;object=rsacert;type=cert?pin-value=4711", "rsacert "},
                    Described{"token=Card;object=rsakey;type=private?pin-value=4711", "rsacert "},
                    Described{"model=SoftHSM%20v2;manufacturer=SoftHSM%20project;token=Other%20card?pin-value=0815",
                              "other "}));

TEST_F(TokenTest, NamesAreTheLabelsOfCertificatesOrElseOfKeys) {
    std::map<std::string, std::string> names;
    for (const auto& record : ToolkitClient(Uri("token=Labels?pin-value=4711&list=certificates")).Records()) {
        names.emplace(record.at(5), record.at(7));
    }
    EXPECT_EQ(names, (std::map<std::string, std::string>{{"CN=labelled", "B%C3%96%20%F0%9F%A6%8A"},
                                                         {"CN=unlabelled", "the%20key"},
                                                         {"CN=notutf8", "the%20key"}}));
}

struct NotDescribed {
    const char* pszUri;  // "&" at its end: the test appends its module
    VCTKError nError;
};

class TokenRefused : public TokenTest, public testing::WithParamInterface<NotDescribed> {};

TEST_P(TokenRefused, WithTheReasonAndWithoutLogin) {
    const int cLogins = Shim().cLogins;
    std::string strUri = "pkcs11:" + std::string(GetParam().pszUri);
    if (strUri.back() == '&') {
        strUri += TestTokens::ModuleQuery();
    }
    const ToolkitClient client(strUri);
    EXPECT_FALSE(client.IsOpen());
    EXPECT_EQ(VCTK_GetLastError(nullptr), GetParam().nError) << ErrorMessage(nullptr);
    EXPECT_EQ(Shim().cLogins, cLogins);
}

INSTANTIATE_TEST_SUITE_P(
    All, TokenRefused,
    testing::Values(NotDescribed{"token=None?pin-value=4711&", VCTK_E_TOKEN_NOT_FOUND},
                    NotDescribed{"token=card?pin-value=4711&", VCTK_E_TOKEN_NOT_FOUND},
                    NotDescribed{"?pin-value=4711&", VCTK_E_TOKEN_NOT_FOUND},
                    NotDescribed{"token=Card;serial=0?pin-value=4711&", VCTK_E_TOKEN_NOT_FOUND},
                    NotDescribed{"token=Card;slot-id=0?pin-value=4711&", VCTK_E_TOKEN_NOT_FOUND},
                    NotDescribed{"token=Card;manufacturer=x?pin-value=4711&", VCTK_E_TOKEN_NOT_FOUND},
                    NotDescribed{"token=Card;model=x?pin-value=4711&", VCTK_E_TOKEN_NOT_FOUND},
                    NotDescribed{"token=Card;slot-description=x?pin-value=4711&", VCTK_E_TOKEN_NOT_FOUND},
                    NotDescribed{"token=Card;slot-manufacturer=x?pin-value=4711&", VCTK_E_TOKEN_NOT_FOUND},
                    NotDescribed{"token=Card;library-manufacturer=x?pin-value=4711&", VCTK_E_TOKEN_NOT_FOUND},
                    NotDescribed{"token=Card;library-version=99.9?pin-value=4711&", VCTK_E_TOKEN_NOT_FOUND},
                    NotDescribed{"token=Card;library-description=x?pin-value=4711&", VCTK_E_TOKEN_NOT_FOUND},
                    NotDescribed{"token=Card?x-none=&", VCTK_E_PIN_REQUIRED},
                    NotDescribed{"token=Card?pin-value=&", VCTK_E_PIN_REQUIRED},
                    NotDescribed{"token=Card?pin-source=file:/none&", VCTK_E_PIN_SOURCE},
                    NotDescribed{"token=Card?pin-value=4711&module-path=/none.so", VCTK_E_TOKEN_MODULE},
                    NotDescribed{"token=Card?pin-value=4711&module-path=/etc/passwd", VCTK_E_TOKEN_MODULE},
                    NotDescribed{"token=Card?pin-value=4711&module-path=/usr/lib", VCTK_E_TOKEN_MODULE},
                    NotDescribed{"token=Card?pin-value=4711&module-name=libc.so.6", VCTK_E_TOKEN_MODULE},
                    NotDescribed{"token=Card?pin-value=4711&module-name=a/b", VCTK_E_TOKEN_MODULE},
                    NotDescribed{"token=Card?pin-value=4711&module-name=none&", VCTK_E_TOKEN_MODULE}));

class TokenErrorTest : public TokenTest, public testing::WithParamInterface<OpenError> {};

// "@" at the end of a URI is the module.
const OpenError kErrors[] = {
    {{"ModuleMissing"},
     VCTK_E_TOKEN_MODULE,
     "pkcs11:?pin-value=sEc-ReT&module-path=/none/m.so",
     "/none/m.so: there is no such file"},
    {{"ModuleOfAnotherFormat"},
     VCTK_E_TOKEN_MODULE,
     "pkcs11:?pin-value=sEc-ReT&module-path=/etc/passwd",
     "/etc/passwd: invalid ELF header"},
    {{"ModuleOfAnotherKind"},
     VCTK_E_TOKEN_MODULE,
     "pkcs11:?module-name=libc.so.6",
     ".../libc.so.6: it is not a PKCS #11 module: C_GetFunctionList is missing or fails"},
    {{"NoModuleOfThisName"},
     VCTK_E_TOKEN_MODULE,
     "pkcs11:?module-name=none",
     "no module none is installed; if it is in another directory, add module-path"},
    {{"NoModuleOfThisNameInADirectory"},
     VCTK_E_TOKEN_MODULE,
     "pkcs11:?module-path=/etc&module-name=none",
     "/etc: there is no module none here"},
    {{"ModuleNameIsAPath"},
     VCTK_E_TOKEN_MODULE,
     "pkcs11:?module-name=a/b",
     "a/b: module-name contains \"/\"; use module-path for a path"},
    {{"ModulePathIsADirectory"},
     VCTK_E_TOKEN_MODULE,
     "pkcs11:?module-path=/etc",
     "/etc: this is a directory; add module-name"},
    {{"ModuleNameBesideAFile"},
     VCTK_E_TOKEN_MODULE,
     "pkcs11:?module-path=/etc/passwd&module-name=none",
     "/etc/passwd: not a directory, so module-name cannot be used"},
    {{"NoSuchToken"},
     VCTK_E_TOKEN_NOT_FOUND,
     "pkcs11:token=N%0Ane;id=%01;object=a;type=cert;serial=7?pin-value=sEc-ReT&@",
     "serial=7;token=N\\nne: no token matches; insert the token or check the URI"},
    {{"SeveralTokens"},
     VCTK_E_TOKEN_NOT_FOUND,
     "pkcs11:manufacturer=SoftHSM%20project?pin-value=sEc-ReT&@",
     "manufacturer=SoftHSM project: 7 tokens match; choose one with serial="},
    {{"PinMissing"}, VCTK_E_PIN_REQUIRED, "pkcs11:token=Other%20card?@", "Other card"},
    {{"PinWrong"}, VCTK_E_PIN_WRONG, "pkcs11:token=Other%20card?pin-value=sEc%2DReT&@", "...Other card"},
    {{"PinRefusedBefore"},
     VCTK_E_PIN_WRONG,
     "pkcs11:token=Other%20card?pin-value=sEc-ReT&@",
     "Other card: the token has refused this PIN before, so it is not tried again"},
    {{"PinFileMissing"}, VCTK_E_PIN_SOURCE, "pkcs11:token=Card?pin-source=/none&@", "/none: No such file or directory"},
    {{"NoKey"},
     VCTK_E_STORE_NO_PRIVATE_KEY,
     "pkcs11:token=Ordinary;id=%02?pin-value=4711&@",
     "Ordinary: 1 passed over: 1 with a key that may not sign"},
};

TEST_P(TokenErrorTest, NamesTheThingAndNoPin) {
    std::string strUri = GetParam().strUri;
    if (strUri.back() == '@') {
        strUri.replace(strUri.size() - 1, 1, TestTokens::ModuleQuery());
    }
    ExpectOpenError(GetParam(), strUri, GetParam().strText);
}

INSTANTIATE_TEST_SUITE_P(Tokens, TokenErrorTest, testing::ValuesIn(kErrors), RowName);

TEST_F(TokenTest, TheErrorNamesTheTokenThatFails) {
    ExpectChildPasses([] {
        Shim().nNotInitialised = CKR_HOST_MEMORY;
        ExpectOpenError({{"NotInitialised"}, VCTK_E_TOKEN_MODULE, {}, {}}, Card(),
                        TestTokens::ModulePath() + ": C_Initialize: CKR_HOST_MEMORY");
        Shim().nNotInitialised = 0;
        Shim().nNoSession = CKR_TOKEN_NOT_PRESENT;
        ExpectOpenError({{"Removed"}, VCTK_E_TOKEN_REMOVED, {}, {}}, Card(), "Card: CKR_TOKEN_NOT_PRESENT");
        Shim().nNoSession = CKR_SESSION_COUNT;
        ExpectOpenError({{"Failed"}, VCTK_E_TOKEN_FAILED, {}, {}}, Card(), "Card: C_OpenSession: CKR_SESSION_COUNT");
        Shim().nNoSession = 0;
        Shim().fPinLocked = true;
        ExpectOpenError({{"Locked"}, VCTK_E_PIN_LOCKED, {}, {}}, Card(), "Card");
        Shim().fPinLocked = false;
        const ToolkitClient client(Card());
        ExpectOpenError({{"InUse"}, VCTK_E_PIN_WRONG, {}, {}}, Uri("token=Card?pin-value=sEc-ReT"),
                        "Card: the token is in use with another PIN");
        Shim().fSigningFails = true;
        EXPECT_FALSE(client.SignP1("text"));
        EXPECT_EQ(client.Message(),
                  VCTKErrorMessage(VCTK_E_TOKEN_FAILED) + std::string(": Card: C_Sign: CKR_FUNCTION_FAILED"));
    });
}

TEST_F(TokenTest, FindsAModuleByNameInADirectory) {
    const std::string strShim = TestTokens::ModulePath();
    const size_t nSlash = strShim.rfind('/');
    const ToolkitClient client("pkcs11:token=Card?pin-value=4711&module-name=vex_test_pkcs11&module-path=" +
                               strShim.substr(0, nSlash));
    EXPECT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
}

TEST_F(TokenTest, AKeyThatMayNotSignIsNoCandidate) {
    const ToolkitClient client(Uri("token=Ordinary?pin-value=4711"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    EXPECT_EQ(Names(client), "signs ");
    ASSERT_EQ(VCTK_SetChooseSingleCert(client.Handle(), 1), 0);
    ExpectSignatures(client, "signs", "SHA256");

    EXPECT_FALSE(ToolkitClient(Uri("token=Ordinary;id=%02?pin-value=4711")).IsOpen());
    EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_STORE_NO_PRIVATE_KEY);
    EXPECT_NE(ErrorMessage(nullptr).find("1 passed over: 1 with a key that may not sign"), std::string::npos)
        << ErrorMessage(nullptr);
}

TEST_F(TokenTest, AKeyOfAnotherTypeDoesNotBelongToTheCertificate) {
    const ToolkitClient client(Uri("token=Card;id=%05?pin-value=4711&list=all"));
    ASSERT_EQ(client.Records().size(), 1U) << ErrorMessage(nullptr);
    EXPECT_EQ(client.Records().front().back(), "no-private-key");
}

TEST_F(TokenTest, ADamagedCertificateIsCounted) {
    Shim().fCertificatesDamaged = true;
    EXPECT_FALSE(ToolkitClient(Uri("token=Ordinary?pin-value=4711")).IsOpen());
    EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_STORE_NO_PRIVATE_KEY);
    EXPECT_NE(ErrorMessage(nullptr).find("2 passed over: 2 damaged"), std::string::npos) << ErrorMessage(nullptr);
}

// The module is not even loaded: loading runs some of its code.
TEST_F(TokenTest, AModuleThatOthersMayHaveChangedIsNotLoaded) {
    const TempDirectory& directory = s_pTokens->Directory();
    const std::string strModule = directory.Path("open/module.so");
    RequireCommand("mkdir -p " + directory.Path("open") + " && install -m 0755 " + TestTokens::ModulePath() + " " +
                   strModule + " && chmod 0777 " + directory.Path("open"));
    const std::string strOpen = "pkcs11:token=Card?pin-value=4711&module-path=" + strModule;
    EXPECT_FALSE(ToolkitClient(strOpen).IsOpen());
    EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_TOKEN_MODULE);
    EXPECT_NE(ErrorMessage(nullptr).find(directory.Path("open") + ": not loaded"), std::string::npos)
        << ErrorMessage(nullptr);
    const auto isLoaded = [&] { return dlopen(strModule.c_str(), RTLD_NOW | RTLD_NOLOAD) != nullptr; };
    EXPECT_FALSE(isLoaded());

    RequireCommand("chmod 0755 " + directory.Path("open"));
    const ToolkitClient closed(strOpen);
    EXPECT_TRUE(isLoaded()) << ErrorMessage(nullptr);
}

TEST_F(TokenTest, CutsADigestToTheCurvesSize) {
    const ToolkitClient client(Card(";id=%00%02"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    const std::pair<const char*, unsigned long> aDigests[] = {{"SHA256", 32}, {"SHA384", 32}, {"SHA512", 32}};
    for (const auto& [pszDigest, cbSigned] : aDigests) {
        ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), pszDigest), 0);
        ASSERT_TRUE(client.SignP1("text")) << client.Message();
        EXPECT_EQ(Shim().cbSigned, cbSigned) << pszDigest;
    }
}

TEST_F(TokenTest, ACertificateOfAnotherKeySignsNothing) {
    const ToolkitClient client(Card(";id=%04"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    EXPECT_FALSE(client.SignP1("text"));
    EXPECT_EQ(client.LastError(), VCTK_E_TOKEN_FAILED) << client.Message();
    EXPECT_FALSE(client.SignP7("text", 0, 0, 1));
    EXPECT_EQ(client.LastError(), VCTK_E_TOKEN_FAILED) << client.Message();
}

TEST_F(TokenTest, ACertificateOfAnotherTypeOfKeyDoesNotCount) {
    EXPECT_FALSE(ToolkitClient(Card(";id=%05")).IsOpen());
    EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_STORE_NO_PRIVATE_KEY) << ErrorMessage(nullptr);
}

}  // namespace
