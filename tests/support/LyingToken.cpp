#include "LyingToken.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace lyingtoken {
namespace {

using namespace std::string_view_literals;

// From this byte on, an answer is a wrong one. Below it, it is right, or one of a few that are possible.
constexpr std::uint8_t kLies = 0xE0;
// The most objects that it invents; a token with more of them takes time and finds nothing new.
constexpr std::size_t kMostObjects = 200;

struct Pair {
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key{nullptr, EVP_PKEY_free};
    std::string strCertificate;  // DER
    CK_KEY_TYPE nType = CKK_RSA;
};

struct State {
    std::span<const std::uint8_t> answers;
    bool bRepeat = false;
    std::size_t nNext = 0;
    std::size_t cCalls = 0;
    std::size_t cObjects = 0;
    CK_OBJECT_CLASS nSought = 0;
    bool bFirstFind = false;
    std::size_t nSigning = 0;  // the key
    CK_MECHANISM_TYPE nMechanism = 0;
};
State g_state;

std::uint8_t Take() {
    if (g_state.nNext == g_state.answers.size() && g_state.bRepeat) {
        g_state.nNext = 0;
    }
    return g_state.nNext < g_state.answers.size() ? g_state.answers[g_state.nNext++] : 0;
}

// Up to that many bytes of the input.
std::string TakeBytes(std::size_t cbMost) {
    std::string strBytes;
    for (std::size_t cb = std::min<std::size_t>(Take(), cbMost); cb > 0; --cb) {
        strBytes += static_cast<char>(Take());
    }
    return strBytes;
}

CK_RV TakeResult() {
    constexpr auto kResults = std::to_array<CK_RV>({CKR_GENERAL_ERROR,
                                                    CKR_HOST_MEMORY,
                                                    CKR_SLOT_ID_INVALID,
                                                    CKR_FUNCTION_FAILED,
                                                    CKR_ARGUMENTS_BAD,
                                                    CKR_ATTRIBUTE_SENSITIVE,
                                                    CKR_ATTRIBUTE_TYPE_INVALID,
                                                    CKR_DEVICE_ERROR,
                                                    CKR_DEVICE_REMOVED,
                                                    CKR_FUNCTION_NOT_SUPPORTED,
                                                    CKR_KEY_HANDLE_INVALID,
                                                    CKR_MECHANISM_INVALID,
                                                    CKR_OBJECT_HANDLE_INVALID,
                                                    CKR_OPERATION_ACTIVE,
                                                    CKR_OPERATION_NOT_INITIALIZED,
                                                    CKR_PIN_INCORRECT,
                                                    CKR_PIN_INVALID,
                                                    CKR_PIN_LEN_RANGE,
                                                    CKR_PIN_EXPIRED,
                                                    CKR_PIN_LOCKED,
                                                    CKR_SESSION_CLOSED,
                                                    CKR_SESSION_COUNT,
                                                    CKR_SESSION_HANDLE_INVALID,
                                                    CKR_TOKEN_NOT_PRESENT,
                                                    CKR_TOKEN_NOT_RECOGNIZED,
                                                    CKR_USER_ALREADY_LOGGED_IN,
                                                    CKR_USER_NOT_LOGGED_IN,
                                                    CKR_USER_PIN_NOT_INITIALIZED,
                                                    CKR_BUFFER_TOO_SMALL,
                                                    CKR_CRYPTOKI_NOT_INITIALIZED,
                                                    0x80000001UL,
                                                    ~0UL});
    ++g_state.cCalls;
    const std::uint8_t u = Take();
    return u < kLies ? CKR_OK : kResults[(u - kLies) % kResults.size()];
}

// A number that is right, or small, or one that nobody has room for.
CK_ULONG TakeNumber(CK_ULONG nRight) {
    constexpr auto kLarge =
        std::to_array<CK_ULONG>({0xFFFF, 0x10000, 0xFFFFF, 0x100001, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0x100000000,
                                 0x7FFFFFFFFFFFFFFF, 0x8000000000000000, ~0UL - 1, ~0UL});
    const std::uint8_t u = Take();
    if (u < 0x80) {
        return nRight;
    }
    return u < kLies ? u - 0x80U : kLarge[(u - kLies) % kLarge.size()];
}

std::string CertificateOf(EVP_PKEY* pKey) {
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), X509_free);
    ASN1_TIME_set(X509_getm_notBefore(certificate.get()), 1000000000);
    ASN1_TIME_set(X509_getm_notAfter(certificate.get()), 4900000000);
    X509_set_pubkey(certificate.get(), pKey);
    const bool bEdwards = EVP_PKEY_is_a(pKey, "ED25519") == 1;
    X509_sign(certificate.get(), pKey, bEdwards ? nullptr : EVP_sha256());
    unsigned char* pbDer = nullptr;
    const int cbDer = i2d_X509(certificate.get(), &pbDer);
    std::string strDer(reinterpret_cast<char*>(pbDer), static_cast<std::size_t>(cbDer));
    OPENSSL_free(pbDer);
    return strDer;
}

// Not secret: new in each process.
const std::array<Pair, 4>& Pairs() {
    static const std::array<Pair, 4> s_pairs = [] {
        std::array<Pair, 4> pairs;
        pairs[0].key.reset(EVP_RSA_gen(2048));
        pairs[1].key.reset(EVP_EC_gen("P-256"));
        pairs[2].key.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
        pairs[3].key.reset(EVP_EC_gen("P-521"));
        pairs[1].nType = pairs[3].nType = CKK_EC;
        pairs[2].nType = CKK_EC_EDWARDS;
        for (Pair& pair : pairs) {
            pair.strCertificate = CertificateOf(pair.key.get());
        }
        return pairs;
    }();
    return s_pairs;
}

template <std::size_t N>
void Fill(unsigned char (&field)[N], std::string_view text) {
    std::memset(field, ' ', N);
    std::memcpy(field, text.data(), std::min(N, text.size()));
}

// Few names: the toolkit keeps an object for each token that it has seen.
std::string_view TakeName() {
    constexpr std::array kNames = {
        "Card"sv,           "Other"sv,      ""sv,         "\0\0\0\0"sv,
        "caf\xE9\x1B[2J"sv, "a;b=c%00?&"sv, "\r\n2026"sv, "a label that fills all 32 bytes."sv};
    const std::uint8_t u = Take();
    return u < 0x80 ? kNames[0] : kNames[u % kNames.size()];
}

CK_RV GetInfo(CK_INFO* pInfo) {
    *pInfo = {};
    Fill(pInfo->manufacturerID, "Test");
    return TakeResult();
}

CK_RV GetSlotList(CK_BBOOL, CK_SLOT_ID* pSlots, CK_ULONG* pcSlots) {
    const CK_RV rv = TakeResult();
    const CK_ULONG cRoom = pSlots != nullptr ? *pcSlots : 0;
    *pcSlots = TakeNumber(1);
    for (CK_ULONG i = 0; i < std::min(cRoom, *pcSlots); ++i) {
        pSlots[i] = i % 2 == 0 ? i : Take();
    }
    return rv;
}

CK_RV GetSlotInfo(CK_SLOT_ID, CK_SLOT_INFO* pInfo) {
    Fill(pInfo->slotDescription, "Slot");
    Fill(pInfo->manufacturerID, TakeName());
    return TakeResult();
}

CK_RV GetTokenInfo(CK_SLOT_ID, CK_TOKEN_INFO* pInfo) {
    Fill(pInfo->label, TakeName());
    Fill(pInfo->manufacturerID, "Test");
    Fill(pInfo->model, "Test");
    Fill(pInfo->serialNumber, TakeName());
    constexpr CK_FLAGS kHonest = CKF_TOKEN_INITIALIZED | CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED;
    pInfo->flags = kHonest ^ (Take() % 16U * CKF_LOGIN_REQUIRED) ^ (Take() == 0xFF ? CKF_TOKEN_INITIALIZED : 0);
    return TakeResult();
}

CK_RV GetMechanismInfo(CK_SLOT_ID, CK_MECHANISM_TYPE, CK_MECHANISM_INFO* pInfo) {
    *pInfo = {};
    pInfo->flags = TakeNumber(CKF_SIGN);
    return TakeResult();
}

CK_RV OpenSession(CK_SLOT_ID, CK_FLAGS, void*, CK_NOTIFY, CK_SESSION_HANDLE* phSession) {
    *phSession = Take();
    return TakeResult();
}

CK_RV CloseSession(CK_SESSION_HANDLE) {
    return TakeResult();
}

CK_RV Login(CK_SESSION_HANDLE, CK_USER_TYPE, unsigned char*, CK_ULONG) {
    return TakeResult();
}

CK_RV FindObjectsInit(CK_SESSION_HANDLE, CK_ATTRIBUTE* pAttributes, CK_ULONG cAttributes) {
    if (cAttributes > 0 && pAttributes[0].type == CKA_CLASS) {
        std::memcpy(&g_state.nSought, pAttributes[0].pValue, sizeof g_state.nSought);
    }
    g_state.bFirstFind = true;
    return TakeResult();
}

CK_RV FindObjects(CK_SESSION_HANDLE, CK_OBJECT_HANDLE* phObjects, CK_ULONG cRoom, CK_ULONG* pcObjects) {
    *pcObjects = g_state.cObjects < kMostObjects ? TakeNumber(g_state.bFirstFind ? Pairs().size() : 0) : 0;
    const std::size_t nFirst = Take();
    for (CK_ULONG i = 0; i < std::min(cRoom, *pcObjects); ++i) {
        phObjects[i] = g_state.nSought * Pairs().size() + (nFirst + i) % Pairs().size();
        ++g_state.cObjects;
    }
    g_state.bFirstFind = false;
    return TakeResult();
}

CK_RV FindObjectsFinal(CK_SESSION_HANDLE) {
    return TakeResult();
}

template <typename T>
std::string BytesOf(T number) {
    return std::string(reinterpret_cast<const char*>(&number), sizeof number);
}

std::string RightValue(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_TYPE nType) {
    const std::size_t n = hObject % Pairs().size();
    switch (nType) {
        case CKA_VALUE:
            return Pairs()[n].strCertificate;
        case CKA_ID:
            return std::string(1, static_cast<char>('1' + n));
        case CKA_LABEL:
            return "object " + std::to_string(n);
        case CKA_KEY_TYPE:
            return BytesOf(Pairs()[n].nType);
        case CKA_SIGN:
            return BytesOf<CK_BBOOL>(CK_TRUE);
        default:
            return BytesOf<CK_BBOOL>(CK_FALSE);
    }
}

// The first byte of an answer says what is wrong with the value: nothing, all of it, or one byte.
std::string TakeValue(std::string strRight) {
    const std::uint8_t u = Take();
    if (u >= kLies) {
        return TakeBytes(255);
    }
    if (u >= 0xC0 && !strRight.empty()) {
        strRight[Take() * strRight.size() / 256] = static_cast<char>(Take());
    } else if (u >= 0xB0) {
        strRight.resize(strRight.size() / 2);
    }
    return strRight;
}

CK_RV GetAttributeValue(CK_SESSION_HANDLE, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE* pAttribute, CK_ULONG) {
    const std::string strValue = TakeValue(RightValue(hObject, pAttribute->type));
    const CK_ULONG cbRoom = pAttribute->pValue != nullptr ? pAttribute->ulValueLen : 0;
    if (cbRoom > 0) {
        std::memcpy(pAttribute->pValue, strValue.data(), std::min<std::size_t>(cbRoom, strValue.size()));
    }
    pAttribute->ulValueLen = TakeNumber(strValue.size());
    return TakeResult();
}

CK_RV SignInit(CK_SESSION_HANDLE, CK_MECHANISM* pMechanism, CK_OBJECT_HANDLE hKey) {
    g_state.nSigning = hKey % Pairs().size();
    g_state.nMechanism = pMechanism->mechanism;
    return TakeResult();
}

// The two numbers of an ECDSA signature, each as long as the order.
std::string Raw(const std::string& strDer, std::size_t cbHalf) {
    const auto* pbDer = reinterpret_cast<const unsigned char*>(strDer.data());
    const std::unique_ptr<ECDSA_SIG, decltype(&ECDSA_SIG_free)> signature(
        d2i_ECDSA_SIG(nullptr, &pbDer, static_cast<long>(strDer.size())), ECDSA_SIG_free);
    std::string strRaw(2 * cbHalf, '\0');
    auto* const pbRaw = reinterpret_cast<unsigned char*>(strRaw.data());
    BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), pbRaw, static_cast<int>(cbHalf));
    BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), pbRaw + cbHalf, static_cast<int>(cbHalf));
    return strRaw;
}

std::string RightSignature(EVP_PKEY* pKey, const unsigned char* pbData, std::size_t cbData) {
    std::array<unsigned char, 1024> signature{};
    std::size_t cb = signature.size();
    bool bSigned = false;
    if (g_state.nMechanism == CKM_EDDSA) {
        const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
        bSigned = EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, pKey) == 1 &&
                  EVP_DigestSign(context.get(), signature.data(), &cb, pbData, cbData) == 1;
    } else {
        const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(EVP_PKEY_CTX_new(pKey, nullptr),
                                                                                  EVP_PKEY_CTX_free);
        bSigned = EVP_PKEY_sign_init(context.get()) == 1 &&
                  EVP_PKEY_sign(context.get(), signature.data(), &cb, pbData, cbData) == 1;
    }
    const std::string strSignature(reinterpret_cast<char*>(signature.data()), bSigned ? cb : 0);
    const auto cbHalf = static_cast<std::size_t>((EVP_PKEY_get_bits(pKey) + 7) / 8);
    return EVP_PKEY_is_a(pKey, "EC") == 1 && bSigned ? Raw(strSignature, cbHalf) : strSignature;
}

CK_RV Sign(CK_SESSION_HANDLE, unsigned char* pbData, CK_ULONG cbData, unsigned char* pbSignature,
           CK_ULONG* pcbSignature) {
    ERR_set_mark();
    const std::string strSignature = TakeValue(RightSignature(Pairs()[g_state.nSigning].key.get(), pbData, cbData));
    ERR_pop_to_mark();
    std::memcpy(pbSignature, strSignature.data(), std::min<std::size_t>(*pcbSignature, strSignature.size()));
    *pcbSignature = TakeNumber(strSignature.size());
    return TakeResult();
}

CK_RV Initialize(void*) {
    return CKR_OK;
}

}  // namespace

CK_FUNCTION_LIST* Functions() {
    static CK_FUNCTION_LIST s_functions = [] {
        CK_FUNCTION_LIST functions{};
        functions.version = {2, 40};
        functions.C_Initialize = Initialize;
        functions.C_GetInfo = GetInfo;
        functions.C_GetSlotList = GetSlotList;
        functions.C_GetSlotInfo = GetSlotInfo;
        functions.C_GetTokenInfo = GetTokenInfo;
        functions.C_GetMechanismInfo = GetMechanismInfo;
        functions.C_OpenSession = OpenSession;
        functions.C_CloseSession = CloseSession;
        functions.C_Login = Login;
        functions.C_FindObjectsInit = FindObjectsInit;
        functions.C_FindObjects = FindObjects;
        functions.C_FindObjectsFinal = FindObjectsFinal;
        functions.C_GetAttributeValue = GetAttributeValue;
        functions.C_SignInit = SignInit;
        functions.C_Sign = Sign;
        return functions;
    }();
    return &s_functions;
}

void SetAnswers(std::span<const std::uint8_t> answers, bool bRepeat) {
    Pairs();
    g_state = {};
    g_state.answers = answers;
    g_state.bRepeat = bRepeat && !answers.empty();
}

std::size_t CallCount() {
    return g_state.cCalls;
}

}  // namespace lyingtoken
