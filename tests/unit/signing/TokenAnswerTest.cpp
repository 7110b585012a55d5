// Modules that fail, and modules that give odd answers: tokens that come and go while they are listed, attributes that
// are missing or of an odd size, keys that vanish.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ModuleAnswer.h"
#include "OpenErrors.h"
#include "Row.h"
#include "TestToken.h"
#include "ToolkitClient.h"

namespace {

constexpr const char* kPin = "4711";

class TokenAnswerTest : public testing::Test {
protected:
    // "Card": an EC key and an RSA key, each with its certificate. "Shared": the same under one identifier, and the RSA
    // key is there twice.
    static void SetUpTestSuite() {
        if (s_tokens) {
            return;
        }
        s_tokens = std::make_unique<TestTokens>();
        s_tokens->MakeToken("Card", kPin);
        s_tokens->MakeToken("Shared", kPin);
        for (const auto& [pszName, pszKey, pszId] :
             {std::tuple{"ec", "ec -pkeyopt ec_paramgen_curve:P-256", "01"}, {"rsa", "rsa:2048", "02"}}) {
            MakeIdentity(s_tokens->Directory(), {pszName, pszKey});
            s_tokens->StoreKey("Card", kPin, pszName, pszId);
            s_tokens->StoreCertificate("Card", kPin, pszName, pszId);
            s_tokens->StoreKey("Shared", kPin, pszName, "01", "--force");
            s_tokens->StoreCertificate("Shared", kPin, pszName, "01");
        }
        s_tokens->StoreKey("Shared", kPin, "rsa", "01", "--force");
        const ToolkitClient client(Uri());
        ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    }

    static std::string Uri(const std::string& strToken = "token=Card", const std::string& strPin = kPin) {
        return "pkcs11:" + strToken + "?pin-value=" + strPin + "&" + TestTokens::ModuleQuery();
    }

    // Of all certificates in the list.
    static std::string States(const std::string& strToken = "token=Card") {
        const ToolkitClient client(Uri(strToken) + "&list=all");
        EXPECT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
        std::string strStates;
        for (const auto& record : client.Records()) {
            strStates += record.back() + " ";
        }
        return strStates;
    }

    static std::unique_ptr<TestTokens> s_tokens;  // until the end of the process, which reads them once
};
std::unique_ptr<TestTokens> TokenAnswerTest::s_tokens;

// ---- Opening ----

struct Opening : Row {
    std::function<AnyModuleAnswer()> fnAnswer;
    VCTKError nError;     // 0: the token opens
    std::string strText;  // the detail of the message
    std::string strPin = kPin;
};

template <auto Member>
std::function<AnyModuleAnswer()> Fails(CK_RV rv, int nCall = 0) {
    return [=] { return FailingAnswer<Member>(rv, nCall); };
}

// The token is there at the first cCalls calls of C_GetSlotList, two for each list, and gone at the others.
std::function<AnyModuleAnswer()> GoneAfter(int cCalls) {
    return [=] {
        return std::make_shared<ModuleAnswer<&CK_FUNCTION_LIST::C_GetSlotList>>(
            [cLeft = cCalls](unsigned char bPresent, CK_SLOT_ID* pSlots, unsigned long* pcSlots) mutable -> CK_RV {
                if (cLeft-- > 0) {
                    return ModuleAnswer<&CK_FUNCTION_LIST::C_GetSlotList>::Real(bPresent, pSlots, pcSlots);
                }
                *pcSlots = 0;
                return CKR_OK;
            });
    };
}

// At the first call for the slots themselves, there is one more than at the call for their number.
AnyModuleAnswer OneMoreWhileListed() {
    return std::make_shared<ModuleAnswer<&CK_FUNCTION_LIST::C_GetSlotList>>(
        [bMore = true](unsigned char bPresent, CK_SLOT_ID* pSlots, unsigned long* pcSlots) mutable -> CK_RV {
            if (pSlots != nullptr && std::exchange(bMore, false)) {
                ++*pcSlots;
                return CKR_BUFFER_TOO_SMALL;
            }
            return ModuleAnswer<&CK_FUNCTION_LIST::C_GetSlotList>::Real(bPresent, pSlots, pcSlots);
        });
}

// The token does not have one of its flags.
template <CK_FLAGS Flag>
AnyModuleAnswer Without() {
    return std::make_shared<ModuleAnswer<&CK_FUNCTION_LIST::C_GetTokenInfo>>(
        [](CK_SLOT_ID nSlot, CK_TOKEN_INFO* pInfo) {
            const CK_RV rv = ModuleAnswer<&CK_FUNCTION_LIST::C_GetTokenInfo>::Real(nSlot, pInfo);
            pInfo->flags &= ~Flag;
            return rv;
        });
}

// Something else in the process logs in first.
AnyModuleAnswer LoggedInAlready() {
    return std::make_shared<ModuleAnswer<&CK_FUNCTION_LIST::C_Login>>(
        [](CK_SESSION_HANDLE hSession, CK_USER_TYPE nUser, unsigned char* pbPin, CK_ULONG cbPin) -> CK_RV {
            ModuleAnswer<&CK_FUNCTION_LIST::C_Login>::Real(hSession, nUser, pbPin, cbPin);
            return CKR_USER_ALREADY_LOGGED_IN;
        });
}

class TokenOpening : public TokenAnswerTest, public testing::WithParamInterface<Opening> {};

TEST_P(TokenOpening, GoesOnOrNamesWhatFailed) {
    const AnyModuleAnswer answer = GetParam().fnAnswer();
    const std::string strUri = Uri("token=Card", GetParam().strPin);
    if (GetParam().nError != 0) {
        ExpectOpenError({{GetParam().strName}, GetParam().nError, {}, {}}, strUri, GetParam().strText);
        return;
    }
    const ToolkitClient client(strUri);
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    EXPECT_EQ(client.Records().size(), 2U);
}

constexpr VCTKError kOpens = VCTKError{};
constexpr const char* kNoToken = "token=Card: no token matches; insert the token or check the URI";

INSTANTIATE_TEST_SUITE_P(
    , TokenOpening,
    testing::Values(
        Opening{"NoModuleInfo", Fails<&CK_FUNCTION_LIST::C_GetInfo>(CKR_GENERAL_ERROR), VCTK_E_TOKEN_FAILED,
                "token=Card: C_GetInfo: CKR_GENERAL_ERROR"},
        Opening{"NoNumberOfSlots", Fails<&CK_FUNCTION_LIST::C_GetSlotList>(CKR_HOST_MEMORY), VCTK_E_TOKEN_FAILED,
                "token=Card: C_GetSlotList: CKR_HOST_MEMORY"},
        Opening{"NoSlots", Fails<&CK_FUNCTION_LIST::C_GetSlotList>(CKR_FUNCTION_FAILED, 2), VCTK_E_TOKEN_FAILED,
                "token=Card: C_GetSlotList: CKR_FUNCTION_FAILED"},
        Opening{"AnotherTokenAppears", OneMoreWhileListed, kOpens, ""},
        Opening{"GoneBeforeItIsListed", GoneAfter(1), VCTK_E_TOKEN_NOT_FOUND, kNoToken},
        Opening{"GoneBeforeTheLogin", GoneAfter(2), VCTK_E_TOKEN_REMOVED, "Card"},
        Opening{"NotInitialised", Without<CKF_TOKEN_INITIALIZED>, VCTK_E_TOKEN_NOT_FOUND, kNoToken},
        Opening{"NoTokenInfo", Fails<&CK_FUNCTION_LIST::C_GetTokenInfo>(CKR_DEVICE_ERROR), VCTK_E_TOKEN_NOT_FOUND,
                kNoToken},
        Opening{"NoSlotInfo", Fails<&CK_FUNCTION_LIST::C_GetSlotInfo>(CKR_DEVICE_ERROR), VCTK_E_TOKEN_NOT_FOUND,
                kNoToken},
        Opening{"LoggedInAlready", LoggedInAlready, kOpens, ""},
        Opening{"PinInvalid", Fails<&CK_FUNCTION_LIST::C_Login>(CKR_PIN_INVALID), VCTK_E_PIN_WRONG, "Card", "00"},
        Opening{"PinTooShort", Fails<&CK_FUNCTION_LIST::C_Login>(CKR_PIN_LEN_RANGE), VCTK_E_PIN_WRONG, "Card", "1"},
        Opening{"PinExpired", Fails<&CK_FUNCTION_LIST::C_Login>(CKR_PIN_EXPIRED), VCTK_E_TOKEN_FAILED,
                "Card: C_Login: CKR_PIN_EXPIRED"},
        Opening{"GoneAtTheLogin", Fails<&CK_FUNCTION_LIST::C_Login>(CKR_DEVICE_REMOVED), VCTK_E_TOKEN_REMOVED,
                "Card: CKR_DEVICE_REMOVED"},
        Opening{"NoSearch", Fails<&CK_FUNCTION_LIST::C_FindObjectsInit>(CKR_OPERATION_ACTIVE), VCTK_E_TOKEN_FAILED,
                "Card: C_FindObjectsInit: CKR_OPERATION_ACTIVE"},
        Opening{"NoObjects", Fails<&CK_FUNCTION_LIST::C_FindObjects>(CKR_DEVICE_MEMORY), VCTK_E_TOKEN_FAILED,
                "Card: C_FindObjects: CKR_DEVICE_MEMORY"},
        Opening{"NoEndOfTheSearch", Fails<&CK_FUNCTION_LIST::C_FindObjectsFinal>(CKR_GENERAL_ERROR),
                VCTK_E_TOKEN_FAILED, "Card: C_FindObjectsFinal: CKR_GENERAL_ERROR"},
        Opening{"SessionLostInASearch", Fails<&CK_FUNCTION_LIST::C_FindObjects>(CKR_SESSION_CLOSED, 1), kOpens, ""},
        Opening{"LostAtAnAttribute", Fails<&CK_FUNCTION_LIST::C_GetAttributeValue>(CKR_OBJECT_HANDLE_INVALID, 3),
                kOpens, ""},
        Opening{"LostAgainAndAgain", Fails<&CK_FUNCTION_LIST::C_GetAttributeValue>(CKR_SESSION_HANDLE_INVALID),
                VCTK_E_TOKEN_REMOVED, "Card: CKR_SESSION_HANDLE_INVALID"}),
    RowName);

// At the reader's own pad. There is no PIN that the toolkit could remember as wrong.
TEST_F(TokenAnswerTest, AWrongPinFromThePadIsNamed) {
    const AnyModuleAnswer answer = FailingAnswer<&CK_FUNCTION_LIST::C_Login>(CKR_PIN_INCORRECT, 1);
    TestTokens::Shim().fPinPad = true;
    const std::string strUri = "pkcs11:token=Card?" + TestTokens::ModuleQuery();
    ExpectOpenError({{}, VCTK_E_PIN_WRONG, {}, {}}, strUri, "Card");
    EXPECT_TRUE(ToolkitClient(strUri).IsOpen()) << ErrorMessage(nullptr);
    TestTokens::Shim().fPinPad = false;
}

TEST_F(TokenAnswerTest, ATokenThatNeedsNoLoginOpensWithoutAPin) {
    const AnyModuleAnswer answer = Without<CKF_LOGIN_REQUIRED>();
    const std::string strUri = "pkcs11:token=Card?list=all&" + TestTokens::ModuleQuery();
    const ToolkitClient first(strUri);
    ASSERT_TRUE(first.IsOpen()) << ErrorMessage(nullptr);
    EXPECT_EQ(first.Records().size(), 2U);
    const ToolkitClient second(strUri + "&pin-value=1");
    EXPECT_TRUE(second.IsOpen()) << ErrorMessage(nullptr);
    EXPECT_TRUE(ToolkitClient(strUri).IsOpen()) << ErrorMessage(nullptr);
}

TEST_F(TokenAnswerTest, TheLibraryIsChosenByItsAttributes) {
    const ToolkitClient any(Uri());
    for (const char* pszOther :
         {"library-manufacturer=x", "library-description=x", "library-version=9.9", "slot-manufacturer=x",
          "slot-description=x", "manufacturer=x", "model=x", "serial=x"}) {
        const std::string strWanted = std::string(pszOther) + ";token=Card";
        EXPECT_FALSE(ToolkitClient(Uri(strWanted)).IsOpen()) << pszOther;
        EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_TOKEN_NOT_FOUND) << pszOther;
    }
}

// ---- Attributes ----

// What a module says about an attribute.
struct Said {
    CK_RV rv = CKR_OK;
    std::optional<std::string> bytes;  // nothing: it is not shown
    std::optional<std::string> later;  // if it is shorter when its bytes are read than when its size is asked for
};

CK_RV Tell(const Said& said, CK_ATTRIBUTE& attribute) {
    if (said.rv != CKR_OK || !said.bytes) {
        attribute.ulValueLen = static_cast<CK_ULONG>(-1);
        return said.rv;
    }
    const std::string& strBytes = said.later && attribute.pValue != nullptr ? *said.later : *said.bytes;
    if (attribute.pValue != nullptr && !strBytes.empty()) {
        std::memcpy(attribute.pValue, strBytes.data(), std::min<std::size_t>(strBytes.size(), attribute.ulValueLen));
    }
    attribute.ulValueLen = strBytes.size();
    return CKR_OK;
}

template <typename T>
std::string BytesOf(T number) {
    return std::string(reinterpret_cast<const char*>(&number), sizeof number);
}

using GetAttribute = ModuleAnswer<&CK_FUNCTION_LIST::C_GetAttributeValue>;

// Of all objects of a class.
struct ClassAttribute {
    CK_OBJECT_CLASS nClass;
    CK_ATTRIBUTE_TYPE nType;
    Said said;
};

AnyModuleAnswer Saying(std::vector<ClassAttribute> attributes) {
    return std::make_shared<GetAttribute>(
        [attributes = std::move(attributes)](CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject,
                                             CK_ATTRIBUTE* pAttributes, CK_ULONG cAttributes) {
            CK_OBJECT_CLASS nClass = 0;
            CK_ATTRIBUTE classOf{CKA_CLASS, &nClass, sizeof nClass};
            const auto found = std::find_if(attributes.begin(), attributes.end(), [&](const ClassAttribute& attribute) {
                return cAttributes == 1 && pAttributes->type == attribute.nType &&
                       GetAttribute::Real(hSession, hObject, &classOf, 1) == CKR_OK && nClass == attribute.nClass;
            });
            return found != attributes.end() ? Tell(found->said, *pAttributes)
                                             : GetAttribute::Real(hSession, hObject, pAttributes, cAttributes);
        });
}

struct Attribute : Row {
    ClassAttribute attribute;
    std::string strStates;  // of all certificates in the list
};

class TokenAttribute : public TokenAnswerTest, public testing::WithParamInterface<Attribute> {};

TEST_P(TokenAttribute, DecidesAboutTheCertificate) {
    const AnyModuleAnswer answer = Saying({GetParam().attribute});
    EXPECT_EQ(States(), GetParam().strStates);
}

constexpr const char* kBothSign = "signs signs ";
constexpr const char* kNoneHasAKey = "no-private-key no-private-key ";

INSTANTIATE_TEST_SUITE_P(
    , TokenAttribute,
    testing::Values(
        Attribute{"NoType", {CKO_PRIVATE_KEY, CKA_KEY_TYPE, {CKR_ATTRIBUTE_TYPE_INVALID, {}, {}}}, kNoneHasAKey},
        Attribute{"SecretType", {CKO_PRIVATE_KEY, CKA_KEY_TYPE, {}}, kNoneHasAKey},
        Attribute{"ShortType", {CKO_PRIVATE_KEY, CKA_KEY_TYPE, {CKR_OK, std::string(4, '\0'), {}}}, kNoneHasAKey},
        Attribute{"EmptyType", {CKO_PRIVATE_KEY, CKA_KEY_TYPE, {CKR_OK, "", {}}}, kNoneHasAKey},
        Attribute{"TypeThatShrinks",
                  {CKO_PRIVATE_KEY, CKA_KEY_TYPE, {CKR_OK, BytesOf<CK_KEY_TYPE>(CKK_EC), "abc"}},
                  kNoneHasAKey},
        Attribute{"TypeThatCannotSign",
                  {CKO_PRIVATE_KEY, CKA_KEY_TYPE, {CKR_OK, BytesOf<CK_KEY_TYPE>(CKK_AES), {}}},
                  kNoneHasAKey},
        Attribute{"NoIdOfTheKey", {CKO_PRIVATE_KEY, CKA_ID, {CKR_ATTRIBUTE_TYPE_INVALID, {}, {}}}, kNoneHasAKey},
        Attribute{"NoIdOfTheCertificate", {CKO_CERTIFICATE, CKA_ID, {CKR_ATTRIBUTE_SENSITIVE, {}, {}}}, kNoneHasAKey},
        Attribute{"NoLabelOfTheKey", {CKO_PRIVATE_KEY, CKA_LABEL, {CKR_ATTRIBUTE_TYPE_INVALID, {}, {}}}, kBothSign},
        Attribute{"SigningNotSaid", {CKO_PRIVATE_KEY, CKA_SIGN, {CKR_ATTRIBUTE_TYPE_INVALID, {}, {}}}, kBothSign},
        Attribute{"LongSigning", {CKO_PRIVATE_KEY, CKA_SIGN, {CKR_OK, std::string(8, '\0'), {}}}, kBothSign},
        Attribute{"NoSigning",
                  {CKO_PRIVATE_KEY, CKA_SIGN, {CKR_OK, BytesOf<CK_BBOOL>(CK_FALSE), {}}},
                  "key-cannot-sign key-cannot-sign "}),
    RowName);

TEST_F(TokenAnswerTest, ACertificateWithoutBytesIsDamaged) {
    const AnyModuleAnswer answer = Saying({{CKO_CERTIFICATE, CKA_VALUE, {CKR_ATTRIBUTE_SENSITIVE, {}, {}}}});
    ExpectOpenError({{}, VCTK_E_STORE_NO_PRIVATE_KEY, {}, {}}, Uri(), "Card: 2 passed over: 2 damaged");
}

TEST_F(TokenAnswerTest, KeysOfTwoTypesMayShareAnIdentifier) {
    EXPECT_EQ(States("token=Shared"), kBothSign);
    for (const char* pszName : {"ec", "rsa"}) {
        const ToolkitClient client(Uri("token=Shared;object=" + std::string(pszName)));
        ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
        EXPECT_TRUE(client.SignP1("text")) << client.Message();
    }
}

// What is said of a certificate is said of the key of its type.
TEST_F(TokenAnswerTest, AKeyThatMayNotSignSharesItsIdentifierWithOneThatMay) {
    const GetAttribute answer(
        [](CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE* pAttributes, CK_ULONG cAttributes) {
            CK_KEY_TYPE nType = 0;
            CK_ATTRIBUTE typeOf{CKA_KEY_TYPE, &nType, sizeof nType};
            const bool bRsaSigns = cAttributes == 1 && pAttributes->type == CKA_SIGN &&
                                   GetAttribute::Real(hSession, hObject, &typeOf, 1) == CKR_OK && nType == CKK_RSA;
            return bRsaSigns ? Tell({CKR_OK, BytesOf<CK_BBOOL>(CK_FALSE), {}}, *pAttributes)
                             : GetAttribute::Real(hSession, hObject, pAttributes, cAttributes);
        });
    EXPECT_EQ(States("token=Shared;object=ec"), "signs ");
    EXPECT_EQ(States("token=Shared;object=rsa"), "key-cannot-sign ");
}

struct Labels : Row {
    std::vector<ClassAttribute> attributes;
    std::string strShown;  // the name of each certificate in the list
};

class TokenLabels : public TokenAnswerTest, public testing::WithParamInterface<Labels> {};

TEST_P(TokenLabels, NameTheCertificate) {
    const AnyModuleAnswer answer = Saying(GetParam().attributes);
    const ToolkitClient client(Uri() + "&list=certificates");
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    ASSERT_EQ(client.Records().size(), 2U);
    for (const auto& record : client.Records()) {
        EXPECT_EQ(record.at(7), GetParam().strShown);
    }
}

ClassAttribute CertificateLabel(const std::string& strLabel) {
    return {CKO_CERTIFICATE, CKA_LABEL, {CKR_OK, strLabel, {}}};
}
ClassAttribute KeyLabel(const std::string& strLabel) {
    return {CKO_PRIVATE_KEY, CKA_LABEL, {CKR_OK, strLabel, {}}};
}

INSTANTIATE_TEST_SUITE_P(
    , TokenLabels,
    testing::Values(
        Labels{"OfTheCertificate", {CertificateLabel("cert"), KeyLabel("key")}, "cert"},
        Labels{"OfTheKey", {CertificateLabel(""), KeyLabel("key")}, "key"},
        Labels{"WithAZeroByte", {CertificateLabel(std::string("a\0b", 3)), KeyLabel("key")}, "key"},
        Labels{"BothWithAZeroByte", {CertificateLabel(std::string(2, '\0')), KeyLabel(std::string("a\0b", 3))}, ""}),
    RowName);

TEST_F(TokenAnswerTest, ACertificateMayHaveNeitherKeyNorLabel) {
    const AnyModuleAnswer answer = Saying({CertificateLabel(""), {CKO_PRIVATE_KEY, CKA_KEY_TYPE, {}}});
    EXPECT_EQ(States(), kNoneHasAKey);
}

// ---- Signing ----

struct Signing : Row {
    std::function<AnyModuleAnswer()> fnAnswer;
    const char* pszLabel;
    const char* pszDigest;
    VCTKError nError;     // 0: it signs
    std::string strText;  // the detail of the message
};

// The token has no object any more.
AnyModuleAnswer NoObjects() {
    return std::make_shared<ModuleAnswer<&CK_FUNCTION_LIST::C_FindObjects>>(
        [](CK_SESSION_HANDLE, CK_OBJECT_HANDLE*, CK_ULONG, CK_ULONG* pcFound) -> CK_RV {
            *pcFound = 0;
            return CKR_OK;
        });
}

AnyModuleAnswer NoMechanismSigns() {
    return std::make_shared<ModuleAnswer<&CK_FUNCTION_LIST::C_GetMechanismInfo>>(
        [](CK_SLOT_ID, CK_MECHANISM_TYPE, CK_MECHANISM_INFO* pInfo) -> CK_RV {
            *pInfo = {1, 2, CKF_VERIFY};
            return CKR_OK;
        });
}

AnyModuleAnswer NoBytes() {
    return std::make_shared<ModuleAnswer<&CK_FUNCTION_LIST::C_Sign>>(
        [](CK_SESSION_HANDLE hSession, unsigned char* pbData, CK_ULONG cbData, unsigned char* pbSignature,
           CK_ULONG* pcb) -> CK_RV {
            const CK_RV rv = ModuleAnswer<&CK_FUNCTION_LIST::C_Sign>::Real(hSession, pbData, cbData, pbSignature, pcb);
            *pcb = 0;
            return rv;
        });
}

// The token goes when the key is used, and is not back when a new session is opened.
AnyModuleAnswer GoneForLong() {
    return std::make_shared<std::pair<AnyModuleAnswer, AnyModuleAnswer>>(
        FailingAnswer<&CK_FUNCTION_LIST::C_SignInit>(CKR_DEVICE_REMOVED),
        FailingAnswer<&CK_FUNCTION_LIST::C_OpenSession>(CKR_TOKEN_NOT_PRESENT));
}

class TokenSigning : public TokenAnswerTest, public testing::WithParamInterface<Signing> {};

TEST_P(TokenSigning, GoesOnOrNamesWhatFailed) {
    const Signing& signing = GetParam();
    const ToolkitClient client(Uri("token=Card;object=" + std::string(signing.pszLabel)));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    ASSERT_EQ(VCTK_SetDigestAlg(client.Handle(), signing.pszDigest), 0);
    {
        const AnyModuleAnswer answer = signing.fnAnswer();
        EXPECT_EQ(client.SignP1("text").has_value(), signing.nError == 0);
    }
    if (signing.nError != 0) {
        EXPECT_EQ(client.LastError(), signing.nError);
        EXPECT_EQ(client.Message(), VCTKErrorMessage(signing.nError) + std::string(": ") + signing.strText);
    }
}

INSTANTIATE_TEST_SUITE_P(
    , TokenSigning,
    testing::Values(Signing{"LostAtTheBeginning", Fails<&CK_FUNCTION_LIST::C_SignInit>(CKR_KEY_HANDLE_INVALID, 1), "ec",
                            "SHA-256", kOpens, ""},
                    Signing{"LostAgainAndAgain", Fails<&CK_FUNCTION_LIST::C_SignInit>(CKR_USER_NOT_LOGGED_IN), "ec",
                            "SHA-256", VCTK_E_TOKEN_REMOVED, "Card: CKR_USER_NOT_LOGGED_IN"},
                    Signing{"GoneForLong", GoneForLong, "ec", "SHA-256", VCTK_E_TOKEN_REMOVED,
                            "Card: CKR_TOKEN_NOT_PRESENT"},
                    Signing{"NotAllowed", Fails<&CK_FUNCTION_LIST::C_SignInit>(CKR_KEY_FUNCTION_NOT_PERMITTED), "ec",
                            "SHA-256", VCTK_E_TOKEN_FAILED, "Card: C_SignInit: CKR_KEY_FUNCTION_NOT_PERMITTED"},
                    Signing{"KeyIsGone", NoObjects, "ec", "SHA-256", VCTK_E_TOKEN_FAILED,
                            "Card: the key is no longer on the token"},
                    Signing{"NoBytesFromAnEcKey", NoBytes, "ec", "SHA-256", VCTK_E_TOKEN_FAILED,
                            "Card: the token's signature does not match the certificate's public key"},
                    Signing{"NoBytesFromAnRsaKey", NoBytes, "rsa", "SHA-256", VCTK_E_TOKEN_FAILED,
                            "Card: the token's signature does not match the certificate's public key"},
                    Signing{"MechanismsUnknown", Fails<&CK_FUNCTION_LIST::C_GetMechanismInfo>(CKR_GENERAL_ERROR), "rsa",
                            "SHA-256/PSS", VCTK_E_TOKEN_FAILED, "Card: C_GetMechanismInfo: CKR_GENERAL_ERROR"},
                    Signing{"MechanismsOnlyVerify", NoMechanismSigns, "rsa", "SHA-256/PSS", VCTK_E_SIGN_FAILED,
                            "for RSASSA-PSS, the token needs CKM_RSA_PKCS_PSS or CKM_RSA_X_509, and offers neither"}),
    RowName);

// Two threads lose the connection. The one that notices it later finds the other one's new connection, and stays with
// it.
TEST_F(TokenAnswerTest, ALostConnectionIsRenewedOnce) {
    const ToolkitClient client(Uri());
    const ToolkitClient other(Uri());
    ASSERT_TRUE(client.IsOpen() && other.IsOpen()) << ErrorMessage(nullptr);
    const int cLogins = TestTokens::Shim().cLogins;
    using Sign = ModuleAnswer<&CK_FUNCTION_LIST::C_Sign>;
    const Sign answer([&, bFirst = true](auto... arguments) mutable -> CK_RV {
        if (!std::exchange(bFirst, false)) {
            return Sign::Real(arguments...);
        }
        TestTokens::Shim().pfnLoseSessions();
        std::thread([&] { EXPECT_TRUE(other.SignP1("text")) << other.Message(); }).join();
        return CKR_SESSION_HANDLE_INVALID;
    });
    EXPECT_TRUE(client.SignP1("text")) << client.Message();
    EXPECT_EQ(TestTokens::Shim().cLogins, cLogins + 1);
}

}  // namespace
