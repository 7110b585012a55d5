// PKCS #11 modules with wrong answers. They decide neither how much memory the toolkit takes nor how long it asks.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "LyingToken.h"
#include "ModuleOfTests.h"
#include "Row.h"
#include "ToolkitClient.h"

namespace {

constexpr CK_ULONG kHuge = 1UL << 62U;

class LyingTokenTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        if (s_strModule.empty()) {
            static const TempDirectory s_directory;
            s_strModule = InstallModule(s_directory, lyingtoken::Functions());
            s_honest = *lyingtoken::Functions();
        }
    }

    void SetUp() override {
        lyingtoken::SetAnswers({}, false);
        *lyingtoken::Functions() = s_honest;
    }

    static std::string Uri() { return "pkcs11:?pin-value=1234&module-path=" + s_strModule; }

public:
    static CK_FUNCTION_LIST s_honest;
    static int s_cCalls;

private:
    static std::string s_strModule;
};
CK_FUNCTION_LIST LyingTokenTest::s_honest{};
int LyingTokenTest::s_cCalls = 0;
std::string LyingTokenTest::s_strModule;

// The module's function for one kind of lie each.
CK_RV ManySlots(CK_BBOOL, CK_SLOT_ID*, CK_ULONG* pcSlots) {
    *pcSlots = kHuge;
    return CKR_OK;
}

CK_RV AlwaysOneSlotMore(CK_BBOOL, CK_SLOT_ID* pSlots, CK_ULONG* pcSlots) {
    *pcSlots = 1;
    return pSlots == nullptr ? CKR_OK : CKR_BUFFER_TOO_SMALL;
}

CK_RV EndlessObjects(CK_SESSION_HANDLE, CK_OBJECT_HANDLE*, CK_ULONG cRoom, CK_ULONG* pcObjects) {
    *pcObjects = cRoom;
    return CKR_OK;
}

CK_RV ManyObjectsOnce(CK_SESSION_HANDLE, CK_OBJECT_HANDLE*, CK_ULONG cRoom, CK_ULONG* pcObjects) {
    *pcObjects = LyingTokenTest::s_cCalls++ == 0 ? cRoom : 0;
    return CKR_OK;
}

CK_RV MoreObjectsThanRoom(CK_SESSION_HANDLE, CK_OBJECT_HANDLE*, CK_ULONG cRoom, CK_ULONG* pcObjects) {
    *pcObjects = cRoom + 1;
    return CKR_OK;
}

CK_RV HugeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE* pAttribute, CK_ULONG c) {
    const CK_RV rv = LyingTokenTest::s_honest.C_GetAttributeValue(hSession, hObject, pAttribute, c);
    if (pAttribute->type == CKA_VALUE) {
        pAttribute->ulValueLen = kHuge;
    }
    return rv;
}

CK_RV ValueThatGrows(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE* pAttribute, CK_ULONG c) {
    const bool bSized = pAttribute->pValue != nullptr;
    const CK_RV rv = LyingTokenTest::s_honest.C_GetAttributeValue(hSession, hObject, pAttribute, c);
    if (pAttribute->type == CKA_VALUE && bSized) {
        pAttribute->ulValueLen = kHuge;
    }
    return rv;
}

CK_RV LongValues(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE* pAttribute, CK_ULONG) {
    pAttribute->ulValueLen = 1UL << 20U;
    return CKR_OK;
}

CK_RV LongSignature(CK_SESSION_HANDLE, unsigned char*, CK_ULONG, unsigned char*, CK_ULONG* pcbSignature) {
    *pcbSignature = kHuge;
    return CKR_OK;
}

CK_RV NoSignature(CK_SESSION_HANDLE, unsigned char*, CK_ULONG, unsigned char*, CK_ULONG*) {
    return CKR_FUNCTION_FAILED;
}

CK_RV TwoSessionsAlone(CK_SLOT_ID, CK_FLAGS, void*, CK_NOTIFY, CK_SESSION_HANDLE* phSession) {
    *phSession = 1;
    return LyingTokenTest::s_cCalls++ < 2 ? CKR_OK : CKR_SESSION_COUNT;
}

CK_RV TwoSlots(CK_BBOOL, CK_SLOT_ID* pSlots, CK_ULONG* pcSlots) {
    *pcSlots = 2;
    if (pSlots != nullptr) {
        pSlots[0] = 0;
        pSlots[1] = 1;
    }
    return CKR_OK;
}

CK_RV CountedLogin(CK_SESSION_HANDLE, CK_USER_TYPE, unsigned char*, CK_ULONG) {
    ++LyingTokenTest::s_cCalls;
    return CKR_OK;
}

CK_RV SignatureWithoutSession(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE) {
    return CKR_SESSION_HANDLE_INVALID;
}

struct LieRow : Row {
    void (*pfnInstall)(CK_FUNCTION_LIST& functions);
    VCTKError nError;
    const char* pszDetail;  // in the message
};

class Lies : public LyingTokenTest, public testing::WithParamInterface<LieRow> {};

TEST_P(Lies, EndWithAReason) {
    GetParam().pfnInstall(*lyingtoken::Functions());
    EXPECT_FALSE(ToolkitClient(Uri()).IsOpen());
    EXPECT_EQ(VCTK_GetLastError(nullptr), GetParam().nError);
    EXPECT_NE(ErrorMessage(nullptr).find(GetParam().pszDetail), std::string::npos) << ErrorMessage(nullptr);

    *lyingtoken::Functions() = s_honest;
    EXPECT_TRUE(ToolkitClient(Uri()).IsOpen()) << ErrorMessage(nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    , Lies,
    testing::Values(
        LieRow{"ManySlots", [](CK_FUNCTION_LIST& functions) { functions.C_GetSlotList = ManySlots; },
               VCTK_E_TOKEN_FAILED, "announces 4611686018427387904 slots"},
        LieRow{"ASlotMoreEachTime", [](CK_FUNCTION_LIST& functions) { functions.C_GetSlotList = AlwaysOneSlotMore; },
               VCTK_E_TOKEN_FAILED, "C_GetSlotList: PKCS #11 result 0x150"},
        LieRow{"EndlessObjects", [](CK_FUNCTION_LIST& functions) { functions.C_FindObjects = EndlessObjects; },
               VCTK_E_TOKEN_FAILED, "more than 100000 objects"},
        LieRow{"MoreObjectsThanRoom",
               [](CK_FUNCTION_LIST& functions) { functions.C_FindObjects = MoreObjectsThanRoom; }, VCTK_E_TOKEN_FAILED,
               "more objects than there is room for"},
        LieRow{"HugeValues", [](CK_FUNCTION_LIST& functions) { functions.C_GetAttributeValue = HugeValue; },
               VCTK_E_STORE_NO_PRIVATE_KEY, "4 passed over: 4 damaged"},
        LieRow{"ValuesThatGrow", [](CK_FUNCTION_LIST& functions) { functions.C_GetAttributeValue = ValueThatGrows; },
               VCTK_E_STORE_NO_PRIVATE_KEY, "4 passed over: 4 damaged"},
        LieRow{"MuchInAll",
               [](CK_FUNCTION_LIST& functions) {
                   functions.C_GetAttributeValue = LongValues;
                   functions.C_FindObjects = ManyObjectsOnce;
                   LyingTokenTest::s_cCalls = 0;
               },
               VCTK_E_TOKEN_FAILED, "more than 67108864 bytes"}),
    RowName);

struct MissingRow : Row {
    void (*pfnRemove)(CK_FUNCTION_LIST& functions);
};

class MissingFunctions : public testing::TestWithParam<MissingRow> {};

TEST_P(MissingFunctions, AreNamedWhenTheModuleIsOpened) {
    const TempDirectory directory;
    CK_FUNCTION_LIST functions = *lyingtoken::Functions();
    GetParam().pfnRemove(functions);
    EXPECT_FALSE(ToolkitClient("pkcs11:?module-path=" + InstallModule(directory, &functions)).IsOpen());
    EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_TOKEN_MODULE);
    EXPECT_NE(ErrorMessage(nullptr).find("it has no function C_" + GetParam().strName), std::string::npos)
        << ErrorMessage(nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    , MissingFunctions,
    testing::Values(
        MissingRow{"Initialize", [](CK_FUNCTION_LIST& functions) { functions.C_Initialize = nullptr; }},
        MissingRow{"GetInfo", [](CK_FUNCTION_LIST& functions) { functions.C_GetInfo = nullptr; }},
        MissingRow{"GetSlotList", [](CK_FUNCTION_LIST& functions) { functions.C_GetSlotList = nullptr; }},
        MissingRow{"GetSlotInfo", [](CK_FUNCTION_LIST& functions) { functions.C_GetSlotInfo = nullptr; }},
        MissingRow{"GetTokenInfo", [](CK_FUNCTION_LIST& functions) { functions.C_GetTokenInfo = nullptr; }},
        MissingRow{"GetMechanismInfo", [](CK_FUNCTION_LIST& functions) { functions.C_GetMechanismInfo = nullptr; }},
        MissingRow{"OpenSession", [](CK_FUNCTION_LIST& functions) { functions.C_OpenSession = nullptr; }},
        MissingRow{"CloseSession", [](CK_FUNCTION_LIST& functions) { functions.C_CloseSession = nullptr; }},
        MissingRow{"Login", [](CK_FUNCTION_LIST& functions) { functions.C_Login = nullptr; }},
        MissingRow{"GetAttributeValue", [](CK_FUNCTION_LIST& functions) { functions.C_GetAttributeValue = nullptr; }},
        MissingRow{"FindObjectsInit", [](CK_FUNCTION_LIST& functions) { functions.C_FindObjectsInit = nullptr; }},
        MissingRow{"FindObjects", [](CK_FUNCTION_LIST& functions) { functions.C_FindObjects = nullptr; }},
        MissingRow{"FindObjectsFinal", [](CK_FUNCTION_LIST& functions) { functions.C_FindObjectsFinal = nullptr; }},
        MissingRow{"SignInit", [](CK_FUNCTION_LIST& functions) { functions.C_SignInit = nullptr; }},
        MissingRow{"Sign", [](CK_FUNCTION_LIST& functions) { functions.C_Sign = nullptr; }}),
    RowName);

TEST_F(LyingTokenTest, AModuleThatGivesNoFunctionsIsRefused) {
    const TempDirectory directory;
    const std::string strFails = directory.Path("fails.so");
    ASSERT_EQ(RunCommand("install -m 0755 " VEX_TEST_MODULE " " + strFails).nStatus, 0);
    for (const std::string& strModule : {strFails, InstallModule(directory, nullptr)}) {
        EXPECT_FALSE(ToolkitClient("pkcs11:?module-path=" + strModule).IsOpen());
        EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_TOKEN_MODULE);
        EXPECT_EQ(ErrorMessage(nullptr), VCTKErrorMessage(VCTK_E_TOKEN_MODULE) + (": " + strModule) +
                                             ": it is not a PKCS #11 module: C_GetFunctionList is missing or fails");
    }
}

// p11-kit's library, which knows the modules of the machine.
TEST_F(LyingTokenTest, WithoutAModuleP11KitIsAsked) {
    const bool bInstalled = std::filesystem::exists("/usr/lib/x86_64-linux-gnu/libp11-kit.so.0") ||
                            std::filesystem::exists("/usr/lib64/libp11-kit.so.0");
    EXPECT_FALSE(ToolkitClient("pkcs11:token=there%20is%20no%20such%20token").IsOpen());
    if (bInstalled) {
        EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_TOKEN_NOT_FOUND) << ErrorMessage(nullptr);
    } else {
        EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_TOKEN_MODULE) << ErrorMessage(nullptr);
    }
}

constexpr const char* kTwins =
    "2 tokens have the same label, manufacturer, model and serial number; leave only one inserted";

// A slot is no name: the token may be in another one at the next login.
TEST_F(LyingTokenTest, NoPinGoesToOneOfTwoTokensWithTheSameName) {
    lyingtoken::Functions()->C_GetSlotList = TwoSlots;
    lyingtoken::Functions()->C_Login = CountedLogin;
    s_cCalls = 0;
    for (const std::string strToken : {"token=Card", "slot-id=0", "slot-id=1"}) {
        EXPECT_FALSE(ToolkitClient("pkcs11:" + strToken + Uri().substr(Uri().find('?'))).IsOpen()) << strToken;
        EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_TOKEN_NOT_FOUND);
        EXPECT_EQ(ErrorMessage(nullptr), VCTKErrorMessage(VCTK_E_TOKEN_NOT_FOUND) + (": " + strToken + ": ") + kTwins);
    }
    EXPECT_EQ(s_cCalls, 0);
}

TEST_F(LyingTokenTest, NoPinGoesToATokenThatGotATwinMeanwhile) {
    lyingtoken::Functions()->C_Login = CountedLogin;
    const ToolkitClient client(Uri());
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    lyingtoken::Functions()->C_GetSlotList = TwoSlots;
    lyingtoken::Functions()->C_SignInit = SignatureWithoutSession;
    s_cCalls = 0;
    EXPECT_FALSE(client.SignP1("text"));
    EXPECT_EQ(client.LastError(), VCTK_E_TOKEN_NOT_FOUND);
    EXPECT_EQ(client.Message(), VCTKErrorMessage(VCTK_E_TOKEN_NOT_FOUND) + std::string(": Card: ") + kTwins);
    EXPECT_EQ(s_cCalls, 0);
    lyingtoken::Functions()->C_GetSlotList = s_honest.C_GetSlotList;
    lyingtoken::Functions()->C_SignInit = s_honest.C_SignInit;
    EXPECT_TRUE(client.SignP1("text")) << client.Message();
    EXPECT_EQ(s_cCalls, 1);
}

TEST_F(LyingTokenTest, ALongSignatureIsRefused) {
    const ToolkitClient client(Uri());
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    lyingtoken::Functions()->C_Sign = LongSignature;
    EXPECT_FALSE(client.SignP1("text"));
    EXPECT_EQ(client.LastError(), VCTK_E_TOKEN_FAILED) << client.Message();
    *lyingtoken::Functions() = s_honest;
    EXPECT_TRUE(client.SignP1("text")) << client.Message();
}

// All sessions were closed after failures, and others have taken their places. It waited for one of its own for ever.
TEST_F(LyingTokenTest, WithoutAnySessionItGivesUp) {
    s_cCalls = 0;
    lyingtoken::Functions()->C_OpenSession = TwoSessionsAlone;
    lyingtoken::Functions()->C_Sign = NoSignature;
    const ToolkitClient client(Uri());
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    for (const char* pszReason : {"CKR_FUNCTION_FAILED", "CKR_FUNCTION_FAILED", "CKR_SESSION_COUNT"}) {
        EXPECT_FALSE(client.SignP1("text"));
        EXPECT_EQ(client.LastError(), VCTK_E_TOKEN_FAILED);
        EXPECT_NE(client.Message().find(pszReason), std::string::npos) << client.Message();
    }
}

}  // namespace
