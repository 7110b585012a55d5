// Tokens as stores: which one, which certificates, PINs, removal, threads, forks and the end of the process.
#include <gtest/gtest.h>
#include <p11-kit/pkcs11.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <latch>
#include <map>
#include <thread>

#include "ChildProcess.h"
#include "FakeClock.h"
#include "OpenErrors.h"
#include "Scale.h"
#include "TestChain.h"
#include "TestToken.h"
#include "ToolkitClient.h"
#include "VCTKFilter.h"

namespace {

constexpr const char* kPin = "4711";
constexpr const char* kOtherPin = "0815";

class TokenTest : public testing::Test {
protected:
    // "Card": an RSA and an EC key with their certificates, a key that needs the PIN for each signature, and two keys
    // with certificates of other keys, one of the same type and one of another type. "Other card" and "Changing": an
    // EC key each. "Ordinary": a key that signs, and one that only decrypts; its certificate stays valid longer.
    // "Labels": an EC key and three certificates, which differ in their labels.
    // "Chained": three EC keys with certificates below intermediate ones, and issuers in no order, one of them
    // cross-signed. "Bare": one of these keys and its certificate alone.
    static void SetUpTestSuite() {
        if (s_pTokens != nullptr) {
            return;
        }
        s_pTokens = new TestTokens;
        s_pTokens->MakeToken("Card", kPin);
        s_pTokens->MakeKey("Card", kPin, "rsa:2048", "01", "rsakey");
        s_pTokens->MakeCertificate("Card", kPin, "01", "01", "rsacert", 20);
        s_pTokens->MakeKey("Card", kPin, "EC:prime256v1", "0002", "eckey");
        s_pTokens->MakeCertificate("Card", kPin, "0002", "0002", "eccert", 40);
        s_pTokens->MakeKey("Card", kPin, "rsa:2048", "03", "alwayskey", "--always-auth");
        s_pTokens->MakeCertificate("Card", kPin, "03", "03", "alwayscert", 10);
        s_pTokens->MakeKey("Card", kPin, "EC:secp384r1", "04", "strange");
        s_pTokens->MakeCertificate("Card", kPin, "0002", "04", "strangecert", 10);
        s_pTokens->MakeKey("Card", kPin, "rsa:2048", "05", "mixed");
        s_pTokens->MakeCertificate("Card", kPin, "0002", "05", "mixedcert", 10);
        s_pTokens->MakeToken("Other card", kOtherPin);
        s_pTokens->MakeKey("Other card", kOtherPin, "EC:secp521r1", "01", "key");
        s_pTokens->MakeCertificate("Other card", kOtherPin, "01", "01", "other", 30);
        s_pTokens->MakeToken("Ordinary", kPin);
        s_pTokens->MakeKey("Ordinary", kPin, "rsa:2048", "01", "signkey");
        s_pTokens->MakeCertificate("Ordinary", kPin, "01", "01", "signs", 10);
        s_pTokens->MakeKey("Ordinary", kPin, "rsa:2048", "02", "decryptkey");
        s_pTokens->MakeCertificate("Ordinary", kPin, "02", "02", "decrypts", 40);
        s_pTokens->MakeToken("Changing", "1111");
        s_pTokens->MakeKey("Changing", "1111", "EC:prime256v1", "01", "key");
        s_pTokens->MakeCertificate("Changing", "1111", "01", "01", "changing", 30);
        s_pTokens->MakeToken("Labels", kPin);
        s_pTokens->MakeKey("Labels", kPin, "EC:prime256v1", "01", "'the key'");
        for (const auto& [pszName, pszLabel] :
             {std::pair{"labelled", "B\xC3\x96 \xF0\x9F\xA6\x8A"}, {"unlabelled", ""}, {"notutf8", "caf\xE9"}}) {
            s_pTokens->IssueCertificate("Labels", kPin, "01", pszName, 10);
            s_pTokens->StoreCertificate("Labels", kPin, pszName, "01", pszLabel);
        }
        MakeChains(s_pTokens->Directory());
        s_pTokens->MakeToken("Chained", kPin);
        for (const auto& [pszName, pszId] : {std::pair{"leaf2", "02"}, {"leaf3", "03"}, {"leaf4", "04"}}) {
            s_pTokens->StoreKey("Chained", kPin, pszName, pszId);
            s_pTokens->StoreCertificate("Chained", kPin, pszName, pszId);
        }
        for (const auto& [pszName, pszId] :
             {std::pair{"stranger", "0A"}, {"cross", "0B"}, {"ca2", "0C"}, {"root", "0D"}, {"ca1", "0E"}}) {
            s_pTokens->StoreCertificate("Chained", kPin, pszName, pszId);
        }
        s_pTokens->MakeToken("Bare", kPin);
        s_pTokens->StoreKey("Bare", kPin, "leaf3", "01");
        s_pTokens->StoreCertificate("Bare", kPin, "leaf3", "01");
    }

    void SetUp() override {
        Shim().fRemoved = false;
        Shim().nMostSessions = 1000000;
        Shim().fPinChanged = false;
        Shim().fPinLocked = false;
        Shim().fPinPad = false;
        Shim().fCannotLock = false;
        Shim().fSigningFails = false;
        Shim().fCertificatesDamaged = false;
        Shim().nNoSession = 0;
    }

    // Given the text between "pkcs11:" and the module.
    static std::string Uri(const std::string& strUri) {
        return "pkcs11:" + strUri + (strUri.find('?') == std::string::npos ? "?" : "&") + TestTokens::ModuleQuery();
    }
    static std::string Card(const std::string& strMore = "") { return Uri("token=Card" + strMore + "?pin-value=4711"); }

    static Pkcs11Shim& Shim() { return TestTokens::Shim(); }

    static std::string Names(const ToolkitClient& client) {
        std::string strNames;
        for (const auto& record : client.Records()) {
            strNames += record.at(5).substr(3) + " ";
        }
        return strNames;
    }

    // Whether the openssl command accepts the P1 and P7 signatures that the client makes.
    static void ExpectSignatures(const ToolkitClient& client, const std::string& strCertificate,
                                 const std::string& strDigest) {
        ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), strDigest.c_str()), 0);
        const TempDirectory& directory = s_pTokens->Directory();
        const auto p1 = client.SignP1("text");
        ASSERT_TRUE(p1) << client.Message();
        directory.Write("text", "text");
        directory.Write("p1", *p1);
        const CommandResult verified = RunCommand(s_pTokens->In() + "base64 -d p1 > p1.bin && openssl x509 -in " +
                                                  strCertificate + ".crt -noout -pubkey > p1.pub && openssl dgst -" +
                                                  strDigest + " -verify p1.pub -signature p1.bin text");
        EXPECT_EQ(verified.nStatus, 0) << verified.strOutput;

        for (const int nDetached : {0, 1}) {
            const auto p7 = client.SignP7("text", 0, nDetached, 1);
            ASSERT_TRUE(p7) << client.Message();
            directory.Write("p7", *p7);
            const CommandResult cms = RunCommand(
                s_pTokens->In() + "base64 -d p7 > p7.bin && openssl cms -verify -inform DER -in p7.bin" +
                " -binary -CAfile ca.crt -out p7.out " + (nDetached ? "-content text" : "") + " && cmp p7.out text");
            EXPECT_EQ(cms.nStatus, 0) << cms.strOutput;
        }
    }

    static TestTokens* s_pTokens;
};
TestTokens* TokenTest::s_pTokens = nullptr;

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

TEST_F(TokenTest, TakesThePinFromAFile) {
    s_pTokens->Directory().Write("pin", std::string(kPin) + "\n");
    const ToolkitClient client(Uri("token=Card?pin-source=file:" + s_pTokens->Directory().Path("pin")));
    EXPECT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
}

// In a child process, which has not logged in yet.
TEST_F(TokenTest, ManyObjectsShareOneLogin) {
    ExpectChildPasses([] {
        const int cLogins = Shim().cLogins;
        const ToolkitClient one(Card());
        const int cSessions = Shim().cSessions;
        for (int i = 0; i < 5; ++i) {
            const ToolkitClient two(Card(";id=%01"));
            const ToolkitClient three("handle:" + std::to_string(reinterpret_cast<std::uintptr_t>(two.Handle())));
            ASSERT_TRUE(one.IsOpen() && two.IsOpen() && three.IsOpen()) << ErrorMessage(nullptr);
            EXPECT_TRUE(one.SignP1("text"));
            EXPECT_TRUE(two.SignP7("text", 0, 0, 0));
            EXPECT_TRUE(three.SignP1("text"));
        }
        EXPECT_EQ(Shim().cLogins, cLogins + 1);
        EXPECT_EQ(Shim().cSessions, cSessions) << "the sessions of one connection are used again";
    });
}

TEST_F(TokenTest, ThreadsThatOpenItAtOnceShareOneLogin) {
    ExpectChildPasses([] {
        const int cLogins = Shim().cLogins;
        std::atomic<int> cOpen{0};
        std::latch start(16);
        {
            std::latch end(16);
            std::vector<std::jthread> threads;
            for (int i = 0; i < 16; ++i) {
                threads.emplace_back([&] {
                    start.arrive_and_wait();
                    const ToolkitClient client(Card());
                    cOpen += client.IsOpen() && client.SignP1("text") ? 1 : 0;
                    end.arrive_and_wait();
                });
            }
        }
        EXPECT_EQ(cOpen, 16);
        EXPECT_EQ(Shim().cLogins, cLogins + 1);
    });
}

// Whether the process is logged in to any token, as the real module sees it.
bool IsLoggedIn() {
    void* const pLibrary = dlopen(VEX_TEST_SOFTHSM, RTLD_NOW | RTLD_LOCAL);
    const auto getFunctions = reinterpret_cast<CK_C_GetFunctionList>(dlsym(pLibrary, "C_GetFunctionList"));
    CK_FUNCTION_LIST* p = nullptr;
    EXPECT_EQ(getFunctions(&p), CKR_OK);
    std::array<CK_SLOT_ID, 32> slots{};
    CK_ULONG cSlots = slots.size();
    EXPECT_EQ(p->C_GetSlotList(CK_TRUE, slots.data(), &cSlots), CKR_OK);
    bool bLoggedIn = false;
    for (CK_ULONG i = 0; i < cSlots; ++i) {
        CK_SESSION_HANDLE hSession = 0;
        CK_SESSION_INFO info{};
        if (p->C_OpenSession(slots[i], CKF_SERIAL_SESSION, nullptr, nullptr, &hSession) == CKR_TOKEN_NOT_RECOGNIZED) {
            continue;  // the place for a new token
        }
        EXPECT_EQ(p->C_GetSessionInfo(hSession, &info), CKR_OK);
        bLoggedIn = bLoggedIn || info.state == CKS_RO_USER_FUNCTIONS;
        EXPECT_EQ(p->C_CloseSession(hSession), CKR_OK);
    }
    return bLoggedIn;
}

TEST_F(TokenTest, TheLoginEndsWithTheLastObject) {
    ExpectChildPasses([] {
        const int cLogins = Shim().cLogins;
        for (int i = 1; i <= 3; ++i) {
            {
                const ToolkitClient one(Card());
                {
                    const ToolkitClient two(Card(";id=%01"));
                    EXPECT_TRUE(two.SignP1("text")) << two.Message();
                }
                EXPECT_TRUE(IsLoggedIn());
                EXPECT_TRUE(one.SignP1("text")) << one.Message();
                EXPECT_EQ(Shim().cLogins, cLogins + i);
            }
            EXPECT_EQ(Shim().cSessions, 0);
            EXPECT_FALSE(IsLoggedIn());
            EXPECT_FALSE(ToolkitClient(Uri("token=Card")).IsOpen());
            EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_PIN_REQUIRED);
            EXPECT_FALSE(IsLoggedIn()) << "an attempt that fails leaves nothing behind";
        }
    });
}

TEST_F(TokenTest, TenThousandDocumentsNeedOneLogin) {
    ExpectChildPasses([] {
        const int cLogins = Shim().cLogins;
        const int cDocuments = std::max(Scaled(10000), 100);
        std::atomic<int> cLeft{cDocuments};
        std::atomic<int> cSigned{0};
        const ToolkitClient first(Card(";id=%00%02"));
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&, strUri = i % 2 == 0 ? Card(";id=%00%02")
                                                         : "handle:" + std::to_string(reinterpret_cast<std::uintptr_t>(
                                                                           first.Handle()))] {
                const ToolkitClient mine(strUri);
                for (int n = cLeft--; n > 0; n = cLeft--) {
                    cSigned += mine.SignP1("document " + std::to_string(n)) ? 1 : 0;
                }
            });
        }
        threads.clear();
        EXPECT_EQ(cSigned, cDocuments);
        EXPECT_EQ(Shim().cLogins, cLogins + 1);
    });
}

// A wrong PIN is wrong even at the moment in which the last object logs out.
TEST_F(TokenTest, LoginsAndLogoutsOfManyThreads) {
    ExpectChildPasses([] {
        std::atomic<int> cWrong{0};
        const int nRounds = std::max(Scaled(40), 5);
        std::vector<std::jthread> threads;
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back([&] {
                for (int n = 0; n < nRounds; ++n) {
                    const ToolkitClient client(Card(";id=%00%02"));
                    cWrong += client.SignP1("text") ? 0 : 1;
                }
            });
        }
        threads.emplace_back([&] {
            for (int n = 0; n < nRounds; ++n) {
                const ToolkitClient client(Uri("token=Card?pin-value=wrong" + std::to_string(n)));
                cWrong += !client.IsOpen() && VCTK_GetLastError(nullptr) == VCTK_E_PIN_WRONG ? 0 : 1;
            }
        });
        threads.clear();
        EXPECT_EQ(cWrong, 0);
        EXPECT_EQ(Shim().cSessions, 0);
        EXPECT_FALSE(IsLoggedIn());
    });
}

TEST_F(TokenTest, ThreadsTryAWrongPinOnce) {
    ExpectChildPasses([] {
        const int cLogins = Shim().cLogins;
        std::vector<std::jthread> threads;
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back([&] {
                EXPECT_FALSE(ToolkitClient(Uri("token=Card?pin-value=8888")).IsOpen());
                EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_PIN_WRONG);
            });
        }
        threads.clear();
        EXPECT_EQ(Shim().cLogins, cLogins + 1);
    });
}

TEST_F(TokenTest, AWrongPinIsTriedOnce) {
    ExpectChildPasses([] {
        const int cLogins = Shim().cLogins;
        const auto open = [](const char* pszPin) {
            const ToolkitClient client(Uri("token=Other%20card?pin-value=" + std::string(pszPin)));
            return client.IsOpen() ? VCTK_OK : VCTK_GetLastError(nullptr);
        };
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(open("1111"), VCTK_E_PIN_WRONG);
        }
        EXPECT_EQ(Shim().cLogins, cLogins + 1);
        EXPECT_EQ(ErrorMessage(nullptr).find("1111"), std::string::npos);
        EXPECT_EQ(open("2222"), VCTK_E_PIN_WRONG);
        EXPECT_EQ(Shim().cLogins, cLogins + 2);
        // The PIN of another token: only this one refuses it.
        EXPECT_EQ(open(kPin), VCTK_E_PIN_WRONG);
        EXPECT_EQ(open(kOtherPin), VCTK_OK);
        EXPECT_EQ(Shim().cLogins, cLogins + 4);
        EXPECT_EQ(open("1111"), VCTK_E_PIN_WRONG);
        EXPECT_EQ(open(kOtherPin), VCTK_OK);
        EXPECT_TRUE(ToolkitClient(Card()).IsOpen());
    });
}

// Only the owner's PUK unlocks it, so the error must differ from that of a wrong PIN.
TEST_F(TokenTest, ReportsALockedPin) {
    ExpectChildPasses([] {
        Shim().fPinLocked = true;
        EXPECT_FALSE(ToolkitClient(Card()).IsOpen());
        EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_PIN_LOCKED);
        EXPECT_NE(ErrorMessage(nullptr).find("Card"), std::string::npos) << ErrorMessage(nullptr);
        Shim().fPinLocked = false;
        EXPECT_TRUE(ToolkitClient(Card()).IsOpen()) << ErrorMessage(nullptr);
    });
}

TEST_F(TokenTest, APinPadIsAskedInPlaceOfTheCaller) {
    ExpectChildPasses([] {
        Shim().fPinPad = true;
        const int cPads = Shim().cPads;
        const ToolkitClient client(Uri("token=Card;id=%01"));
        ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
        EXPECT_TRUE(client.SignP1("text")) << client.Message();
        // Later objects find the token logged in.
        EXPECT_TRUE(ToolkitClient(Uri("token=Card;id=%01")).IsOpen()) << ErrorMessage(nullptr);
        EXPECT_EQ(Shim().cPads, cPads + 1);
        const ToolkitClient eachTime(Uri("token=Card;id=%03"));
        ASSERT_TRUE(eachTime.IsOpen()) << ErrorMessage(nullptr);
        EXPECT_TRUE(eachTime.SignP1("text")) << eachTime.Message();
        EXPECT_TRUE(eachTime.SignP1("text")) << eachTime.Message();
        EXPECT_EQ(Shim().cPads, cPads + 3);
    });
}

TEST_F(TokenTest, AWrongPinDoesNotDisturbOpenObjects) {
    const ToolkitClient client(Card(";id=%01"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    const int cLogins = Shim().cLogins;
    EXPECT_FALSE(ToolkitClient(Uri("token=Card?pin-value=9999")).IsOpen());
    EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_PIN_WRONG);
    EXPECT_EQ(Shim().cLogins, cLogins);
    EXPECT_TRUE(client.SignP1("text")) << client.Message();
    EXPECT_EQ(Shim().cLogins, cLogins);
}

TEST_F(TokenTest, SignsAgainAfterItWasRemovedAndPutBack) {
    const ToolkitClient client(Card(";id=%01"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    const auto before = client.SignP1("text");
    ASSERT_TRUE(before);
    const int cLogins = Shim().cLogins;
    for (int i = 0; i < 2; ++i) {
        Shim().pfnLoseSessions();
        Shim().fRemoved = true;
        for (int n = 0; n < 3; ++n) {
            EXPECT_FALSE(client.SignP1("text"));
            EXPECT_EQ(client.LastError(), VCTK_E_TOKEN_REMOVED) << client.Message();
            EXPECT_FALSE(client.SignP7("text", 0, 1, 1));
            EXPECT_EQ(client.LastError(), VCTK_E_TOKEN_REMOVED) << client.Message();
        }
        EXPECT_FALSE(ToolkitClient(Card()).IsOpen());
        EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_TOKEN_NOT_FOUND);
        EXPECT_EQ(Names(client), "rsacert ");

        Shim().fRemoved = false;
        EXPECT_EQ(client.SignP1("text"), before) << client.Message();
        EXPECT_TRUE(client.SignP7("text", 0, 1, 1)) << client.Message();
        EXPECT_EQ(Shim().cLogins, cLogins + i + 1);
        EXPECT_TRUE(ToolkitClient(Card()).IsOpen());
    }
}

TEST_F(TokenTest, AChangedPinIsTriedOnceMoreAndTheNewOneHelpsAllObjects) {
    const ToolkitClient client(Uri("token=Changing?pin-value=1111"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    Shim().fPinChanged = true;
    Shim().pfnLoseSessions();
    const int cLogins = Shim().cLogins;
    for (int i = 0; i < 5; ++i) {
        EXPECT_FALSE(client.SignP1("text"));
        EXPECT_EQ(client.LastError(), VCTK_E_PIN_WRONG) << client.Message();
    }
    EXPECT_EQ(Shim().cLogins, cLogins + 1);
    EXPECT_TRUE(ToolkitClient(Uri("token=Changing?pin-value=1111x")).IsOpen()) << ErrorMessage(nullptr);
    EXPECT_TRUE(client.SignP1("text")) << client.Message();
    EXPECT_EQ(Shim().cLogins, cLogins + 2);
}

TEST_F(TokenTest, LostSessionsAreReplaced) {
    const ToolkitClient client(Card(";id=%00%02"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(client.SignP1("text")) << client.Message();
        Shim().pfnLoseSessions();
    }
    EXPECT_TRUE(client.SignP7("text", 0, 0, 0)) << client.Message();
}

TEST_F(TokenTest, SixteenThreadsSign) {
    const ToolkitClient shared(Card(";id=%01"));
    ASSERT_TRUE(shared.IsOpen()) << ErrorMessage(nullptr);
    ASSERT_EQ(VCTK_CallQueueEnable(shared.Handle(), 0, 0), 0);
    constexpr size_t kThreads = 16;
    std::array<std::string, kThreads> expected;
    for (size_t i = 0; i < kThreads; ++i) {
        expected[i] = shared.SignP1("text " + std::to_string(i)).value();
    }
    const int cLogins = Shim().cLogins;
    const int nRounds = std::max(Scaled(100), 5);
    std::atomic<int> cWrong{0};
    {
        std::vector<std::jthread> threads;
        for (size_t i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                const ToolkitClient own(Card(";id=%01"));
                for (int n = 0; n < nRounds; ++n) {
                    const ToolkitClient& client = n % 2 == 0 ? shared : own;
                    cWrong += client.SignP1("text " + std::to_string(i)) == expected[i] ? 0 : 1;
                }
            });
        }
    }
    EXPECT_EQ(cWrong, 0);
    EXPECT_EQ(Shim().cLogins, cLogins);
    EXPECT_LE(Shim().cSessions, 17 * 2) << "sessions were not used again";
}

TEST_F(TokenTest, SixteenThreadsSignAgainAfterARemoval) {
    const ToolkitClient client(Card(";id=%01"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    ASSERT_EQ(VCTK_CallQueueEnable(client.Handle(), 0, 0), 0);
    const std::string strExpected = client.SignP1("text").value();
    std::atomic<bool> fBack{false};
    std::atomic<int> cWrong{0};
    std::atomic<int> cFailed{0};
    std::atomic<int> cAfter{0};
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 16; ++i) {
            threads.emplace_back([&] {
                while (cAfter < 16) {
                    const bool fWasBack = fBack;
                    const auto signature = client.SignP1("text");
                    if (signature) {
                        cWrong += *signature == strExpected ? 0 : 1;
                        cAfter += fWasBack ? 1 : 0;
                    } else {
                        cWrong += client.LastError() == VCTK_E_TOKEN_REMOVED && !fWasBack ? 0 : 1;
                        ++cFailed;
                    }
                }
            });
        }
        Shim().fRemoved = true;
        while (cFailed < 16) {
            std::this_thread::yield();
        }
        Shim().pfnLoseSessions();
        Shim().fRemoved = false;
        fBack = true;
    }
    EXPECT_EQ(cWrong, 0);
}

TEST_F(TokenTest, ATokenWithOneSessionServesAllThreads) {
    ExpectChildPasses([] {
        Shim().nMostSessions = 1;
        const ToolkitClient client(Card(";id=%01"));
        ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
        ASSERT_EQ(VCTK_CallQueueEnable(client.Handle(), 0, 0), 0);
        std::atomic<int> cSigned{0};
        {
            std::vector<std::jthread> threads;
            for (int i = 0; i < 8; ++i) {
                threads.emplace_back([&] { cSigned += client.SignP1("text") ? 1 : 0; });
            }
        }
        EXPECT_EQ(cSigned, 8);
        EXPECT_EQ(Shim().cSessions, 1);
    });
}

// A refused signature can leave the session in the middle of an operation.
TEST_F(TokenTest, ASessionInWhichSigningFailedIsNotUsedAgain) {
    for (const int nMostSessions : {1, 2, 1000}) {
        const ChildEnd end = RunChild([&] {
            Shim().nMostSessions = nMostSessions;
            const ToolkitClient client(Card(";id=%01"));
            ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
            for (int i = 0; i < 3; ++i) {
                ASSERT_TRUE(client.SignP1("text")) << client.Message();
                Shim().fSigningFails = true;
                EXPECT_FALSE(client.SignP1("text"));
                EXPECT_EQ(client.LastError(), VCTK_E_TOKEN_FAILED) << client.Message();
                Shim().fSigningFails = false;
            }
            EXPECT_TRUE(client.SignP1("text")) << client.Message();
        });
        EXPECT_TRUE(end.Passed()) << nMostSessions;
    }
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

TEST_F(TokenTest, AKeyThatNeedsThePinEachTimeGetsIt) {
    const ToolkitClient client(Card(";id=%03"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    const int cContextLogins = Shim().cContextLogins;
    EXPECT_TRUE(client.SignP1("text")) << client.Message();
    EXPECT_TRUE(client.SignP1("text")) << client.Message();
    EXPECT_EQ(Shim().cContextLogins, cContextLogins + 2);
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

TEST_F(TokenTest, TheHostMayHaveInitialisedTheModule) {
    ExpectChildPasses([] {
        ASSERT_EQ(TestTokens::InitialiseModule(), 0U);
        const ToolkitClient client(Card(";id=%01"));
        ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
        EXPECT_TRUE(client.SignP1("text")) << client.Message();
    });
}

TEST_F(TokenTest, AModuleThatCannotLockIsCalledByOneThreadAtATime) {
    ExpectChildPasses([] {
        Shim().fCannotLock = true;
        const ToolkitClient client(Card(";id=%01"));
        ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
        ASSERT_EQ(VCTK_CallQueueEnable(client.Handle(), 0, 0), 0);
        const auto expected = client.SignP1("text");
        ASSERT_TRUE(expected) << client.Message();
        Shim().cMostAtOnce = 0;
        std::atomic<int> cWrong{0};
        {
            std::vector<std::jthread> threads;
            for (int i = 0; i < 8; ++i) {
                threads.emplace_back([&] {
                    for (int n = 0; n < 10; ++n) {
                        cWrong += client.SignP1("text") == expected ? 0 : 1;
                    }
                });
            }
        }
        EXPECT_EQ(cWrong, 0);
        EXPECT_EQ(Shim().cMostAtOnce, 1);
    });
}

TEST_F(TokenTest, AForkedChildOpensItsOwnSessions) {
    const ToolkitClient inherited(Card(";id=%01"));
    ASSERT_TRUE(inherited.IsOpen()) << ErrorMessage(nullptr);
    const auto expected = inherited.SignP1("text");
    ASSERT_TRUE(expected);
    ExpectChildPasses([&] {
        const int cInitialize = Shim().cInitialize;
        const int cSignatures = Shim().cSignatures;
        EXPECT_FALSE(inherited.SignP1("text"));
        EXPECT_EQ(inherited.LastError(), VCTK_E_TOKEN_FAILED);
        EXPECT_NE(inherited.Message().find("fork"), std::string::npos) << inherited.Message();
        EXPECT_EQ(Shim().cSignatures, cSignatures);

        const ToolkitClient own(Card(";id=%01"));
        ASSERT_TRUE(own.IsOpen()) << ErrorMessage(nullptr);
        EXPECT_EQ(own.SignP1("text"), expected) << own.Message();
        EXPECT_EQ(Shim().cInitialize, cInitialize + 1);
    });
    EXPECT_EQ(inherited.SignP1("text"), expected) << inherited.Message();
}

// Exit handlers that were registered before the module's run after the module has ended.
TEST_F(TokenTest, TheModuleIsNotCalledAfterItsEnd) {
    ExpectChildPasses(
        [] {
            static ToolkitClient* s_pClient = nullptr;
            std::atexit([] {
                const int cSignatures = Shim().cSignatures;
                const bool fSigned = s_pClient->SignP1("text").has_value();
                const bool fRefused = !fSigned && s_pClient->LastError() == VCTK_E_TOKEN_FAILED;
                if (!fRefused || Shim().cSignatures != cSignatures) {
                    _exit(17);
                }
            });
            s_pClient = new ToolkitClient(Card(";id=%01"));
            ASSERT_TRUE(s_pClient->SignP1("text")) << ErrorMessage(nullptr);
        },
        Exit::kByReturn);
}

// Threads still sign while all exit handlers run: of this program, of OpenSSL, of the module.
TEST_F(TokenTest, TheProcessEndsWhileThreadsSign) {
    for (int i = 0; i < 3; ++i) {
        const ChildEnd end = RunChild(
            [] {
                constexpr int kThreads = 4;
                // They run until the process ends.
                auto& client = *new ToolkitClient(Card(";id=%01"));
                auto& started = *new std::latch(kThreads);
                ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
                ASSERT_EQ(VCTK_CallQueueEnable(client.Handle(), 0, 0), 0);
                for (int n = 0; n < kThreads; ++n) {
                    std::thread([&] {
                        client.SignP1("text");
                        started.count_down();
                        for (;;) {
                            client.SignP1("text");
                            client.SignP7("text", 0, 0, 1);
                        }
                    }).detach();
                }
                started.wait();
            },
            Exit::kByReturn);
        EXPECT_TRUE(end.Passed()) << end.nStatus;
        EXPECT_LT(end.dSeconds, 4.0);
    }
}

#if defined(VEX_TEST_FAKE_CLOCK)
// The end of the process waits five seconds for the call, whatever the wall clock says. A lock that waits until a time
// of the wall clock would wait for the years by which this one is fast.
TEST_F(TokenTest, TheProcessEndsWhileATokenHangsAndTheClockJumps) {
    const TempDirectory directory;
    const ChildEnd end = RunChild(
        [&] {
            setenv("VEX_TEST_CLOCK_FILE", directory.Path("clock").c_str(), 1);
            const ToolkitClient client(Card(";id=%01"));
            ASSERT_TRUE(client.SignP1("text")) << ErrorMessage(nullptr);
            Shim().fSigningHangs = true;
            const int cSignatures = Shim().cSignatures;
            std::thread([hObject = client.Handle()] { VCTK_P1Sign(hObject, "text", 0); }).detach();
            while (Shim().cSignatures == cSignatures) {
                std::this_thread::yield();
            }
            MoveFakeTime(std::time_t{10} * 365 * 24 * 3600);
            std::exit(testing::Test::HasFailure() ? 1 : 0);  // the object is in use
        },
        Exit::kByReturn);
    EXPECT_TRUE(end.Passed()) << "signal " << end.nSignal;
}
#endif

}  // namespace
