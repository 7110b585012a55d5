#include "signing/Token.h"

#include <algorithm>

#include "signing/TokenSession.h"
#include "signing/WrongPins.h"

namespace vextk {
namespace {

constexpr int kAttempts = 2;
constexpr size_t kLongestSignature = 4096;

bool IsSigningType(CK_KEY_TYPE type) {
    switch (type) {
        case CKK_RSA:
        case CKK_EC:
        case CKK_EC_EDWARDS:
            return true;
        default:
            return false;
    }
}

// What a PIN opens. A token can have one PIN for the login and another one for signatures.
std::string WholeName(const TokenName& name, CK_USER_TYPE nUser) {
    return name.strManufacturer + '\0' + name.strModel + '\0' + name.strSerial + '\0' + name.strLabel + '\0' +
           std::to_string(nUser);
}

bool IsRefusedPin(CK_RV rv) {
    return rv == CKR_PIN_INCORRECT || rv == CKR_PIN_INVALID || rv == CKR_PIN_LEN_RANGE;
}

bool EqualPins(const SecretText& a, const SecretText& b) {
    return a.View().size() == b.View().size() && CRYPTO_memcmp(a.View().data(), b.View().data(), a.View().size()) == 0;
}

SecretText CopyOf(const SecretText& pin) {
    SecretText copy(pin.View().size());
    for (const char ch : pin.View()) {
        copy.Append(ch);
    }
    return copy;
}

unsigned char* PinBytes(const SecretText& pin) {
    // PKCS #11 has no const; C_Login does not write to it.
    return reinterpret_cast<unsigned char*>(const_cast<char*>(pin.View().data()));
}

}  // namespace

Token::Token(Pkcs11Module& module, TokenName name) : m_module(module), m_name(std::move(name)) {}

Token::~Token() = default;

std::shared_ptr<Token> Token::Use() {
    ++m_cUsers;
    return {this, [](Token* pToken) { pToken->EndUse(); }};
}

void Token::EndUse() noexcept {
    if (!m_module.IsUsable()) {
        return;  // in a forked child, a thread of the parent may hold the lock
    }
    const CVEXLock lock(m_mutex);
    if (--m_cUsers == 0) {
        m_connection.reset();
        m_pin.reset();
    }
}

Failure Token::Named(const Failure& failure) const {
    return failure.Number() == VCTK_E_TOKEN_FAILED ? failure.About(m_name.strLabel) : failure;
}

// Runs an operation in a session. If the connection is lost, runs it once more with a new connection.
template <typename Operation>
auto Token::Run(Operation operation) {
    for (int nAttempt = 1;; ++nAttempt) {
        ConnectionPtr connection;
        try {
            connection = Connected();
            TokenSession session(*connection);
            auto result = operation(session);
            session.NoteUsable();
            return result;
        } catch (const TokenLost& lost) {
            if (connection) {
                Drop(connection);
            }
            nAttempt -= lost.bTried ? 0 : 1;
            if (nAttempt == kAttempts) {
                throw Failure(VCTK_E_TOKEN_REMOVED, Pkcs11ResultText(lost.rv)).About(m_name.strLabel);
            }
        } catch (const Failure& failure) {
            throw Named(failure);
        }
    }
}

void Token::Drop(const ConnectionPtr& connection) {
    ConnectionPtr dropped;  // closes its sessions after the lock is released
    const CVEXLock lock(m_mutex);
    if (m_connection == connection) {
        dropped = std::move(m_connection);
        m_connection = nullptr;
    }
}

Token::ConnectionPtr Token::Connected() {
    // First: a forked child must not wait for the lock, which a thread of its parent may hold.
    m_module.RequireUsable();
    const CVEXLock lock(m_mutex);
    if (!m_connection) {
        m_connection = Connect(m_pin);
    }
    return m_connection;
}

Token::ConnectionPtr Token::Connect(const std::optional<SecretText>& pin) const {
    const std::vector<TokenSlot> tokens = ListTokens(m_module);
    const auto found =
        std::find_if(tokens.begin(), tokens.end(), [&](const TokenSlot& slot) { return slot.name == m_name; });
    if (found == tokens.end()) {
        throw Failure(VCTK_E_TOKEN_REMOVED, m_name.strLabel);
    }
    try {
        RequireDistinct(tokens, m_name);
    } catch (const Failure& failure) {
        throw failure.About(m_name.strLabel);
    }
    auto connection = std::make_shared<TokenConnection>(m_module, *found);
    if ((found->tokenFlags & CKF_LOGIN_REQUIRED) != 0) {
        Authenticate(connection->Anchor(), CKU_USER, found->tokenFlags, pin);
    }
    return connection;
}

void Token::Authenticate(CK_SESSION_HANDLE hSession, CK_USER_TYPE nUser, CK_FLAGS flags,
                         const std::optional<SecretText>& pin) const {
    if (!pin && (flags & CKF_PROTECTED_AUTHENTICATION_PATH) == 0) {
        throw Failure(VCTK_E_PIN_REQUIRED, m_name.strLabel);
    }
    const std::string strWholeName = WholeName(m_name, nUser);
    bool bKnownWrong = false;
    // One call, so that threads that sign at once do not all try a wrong PIN before the first refusal is known.
    const CK_RV rv = m_module.Call([&](auto& functions) -> CK_RV {
        if (!pin) {
            return functions.C_Login(hSession, nUser, nullptr, 0);
        }
        bKnownWrong = IsKnownWrongPin(strWholeName, pin->View());
        if (bKnownWrong) {
            return CKR_PIN_INCORRECT;
        }
        const CK_RV rvLogin = functions.C_Login(hSession, nUser, PinBytes(*pin), pin->View().size());
        if (IsRefusedPin(rvLogin)) {
            RememberWrongPin(strWholeName, pin->View());
        }
        return rvLogin;
    });
    if (IsRefusedPin(rv)) {
        const Failure wrong(VCTK_E_PIN_WRONG,
                            bKnownWrong ? "the token has refused this PIN before, so it is not tried again" : "");
        throw wrong.About(m_name.strLabel);
    }
    if (rv == CKR_PIN_LOCKED) {
        throw Failure(VCTK_E_PIN_LOCKED, m_name.strLabel);
    }
    if (rv != CKR_USER_ALREADY_LOGGED_IN) {
        RequireFromToken(rv, "C_Login");
    }
}

void Token::LogIn(const SecretText* pPin) {
    m_module.RequireUsable();
    std::optional<SecretText> pin;
    if (pPin != nullptr && !pPin->View().empty()) {
        pin = CopyOf(*pPin);
    }
    ConnectionPtr dropped;
    const CVEXLock lock(m_mutex);
    const bool bSamePin = pin.has_value() == m_pin.has_value() && (!pin || EqualPins(*pin, *m_pin));
    if (m_connection && bSamePin) {
        return;
    }
    const bool bOthersUseIt = m_cUsers > 1;
    // If the PIN was changed by other means, the token has refused the old one. Then a new PIN is accepted.
    const bool bPinInUse = m_pin && !IsKnownWrongPin(WholeName(m_name, CKU_USER), m_pin->View());
    if (m_connection || (bOthersUseIt && bPinInUse && !bSamePin)) {
        const bool bNeedsNone =
            m_connection && (m_connection->TokenFlags() & (CKF_LOGIN_REQUIRED | CKF_PROTECTED_AUTHENTICATION_PATH)) !=
                                CKF_LOGIN_REQUIRED;
        if (!pin && !bNeedsNone) {
            throw Failure(VCTK_E_PIN_REQUIRED, m_name.strLabel);
        }
        if (bOthersUseIt && !bNeedsNone) {
            throw Failure(VCTK_E_PIN_WRONG, "the token is in use with another PIN").About(m_name.strLabel);
        }
        // When its last session is closed, the login ends.
        dropped = std::move(m_connection);
        m_connection = nullptr;
        dropped.reset();
    }
    try {
        m_connection = Connect(pin);
    } catch (const TokenLost& lost) {
        throw Failure(VCTK_E_TOKEN_REMOVED, Pkcs11ResultText(lost.rv)).About(m_name.strLabel);
    } catch (const Failure& failure) {
        throw Named(failure);
    }
    m_pin = std::move(pin);
}

TokenContent Token::Read() {
    return Run([](TokenSession& session) {
        TokenContent content;
        CK_OBJECT_CLASS nClass = CKO_CERTIFICATE;
        CK_CERTIFICATE_TYPE nX509 = CKC_X_509;
        for (const CK_OBJECT_HANDLE hObject :
             session.Find({{CKA_CLASS, &nClass, sizeof nClass}, {CKA_CERTIFICATE_TYPE, &nX509, sizeof nX509}})) {
            const std::string strDer = session.Attribute(hObject, CKA_VALUE).value_or("");
            const auto* pbDer = reinterpret_cast<const unsigned char*>(strDer.data());
            const ErrorMark mark;
            X509Ptr certificate(d2i_X509(nullptr, &pbDer, static_cast<long>(strDer.size())));
            if (!certificate) {
                RequireMemory();
            }
            content.certificates.push_back({session.Attribute(hObject, CKA_ID).value_or(""),
                                            session.Attribute(hObject, CKA_LABEL).value_or(""),
                                            std::move(certificate)});
        }
        nClass = CKO_PRIVATE_KEY;
        for (const CK_OBJECT_HANDLE hObject : session.Find({{CKA_CLASS, &nClass, sizeof nClass}})) {
            const auto type = session.Number<CK_KEY_TYPE>(hObject, CKA_KEY_TYPE);
            if (type && IsSigningType(*type)) {
                (session.MaySign(hObject) ? content.keys : content.notForSigning)
                    .push_back({session.Attribute(hObject, CKA_ID).value_or(""), *type,
                                session.Attribute(hObject, CKA_LABEL).value_or("")});
            }
        }
        return content;
    });
}

bool Token::Offers(CK_MECHANISM_TYPE nMechanism) {
    return Run([=](TokenSession& session) { return session.Owner().Offers(nMechanism); });
}

std::vector<unsigned char> Token::Sign(const TokenKey& key, CK_MECHANISM mechanism,
                                       std::span<const unsigned char> data) {
    return Run([&](TokenSession& session) {
        const TokenConnection::KeyObject object = session.Owner().FindKey(key, [&] {
            TokenKey wanted = key;
            CK_OBJECT_CLASS nClass = CKO_PRIVATE_KEY;
            const auto found = session.Find({{CKA_CLASS, &nClass, sizeof nClass},
                                             {CKA_KEY_TYPE, &wanted.type, sizeof wanted.type},
                                             {CKA_ID, wanted.strId.data(), wanted.strId.size()}});
            const auto signing =
                std::find_if(found.begin(), found.end(), [&](CK_OBJECT_HANDLE hKey) { return session.MaySign(hKey); });
            if (signing == found.end()) {
                throw Failure(VCTK_E_TOKEN_FAILED, "the key is no longer on the token");
            }
            const auto bAlways = session.Number<CK_BBOOL>(*signing, CKA_ALWAYS_AUTHENTICATE);
            return TokenConnection::KeyObject{*signing, bAlways.value_or(CK_FALSE) == CK_TRUE};
        });
        RequireFromToken(session.Call([&](auto& functions, CK_SESSION_HANDLE h) {
            return functions.C_SignInit(h, &mechanism, object.hKey);
        }),
                         "C_SignInit");
        if (object.bAlwaysAuthenticate) {
            std::optional<SecretText> pin;
            {
                const CVEXLock lock(m_mutex);
                pin = m_pin ? std::optional(CopyOf(*m_pin)) : std::nullopt;
            }
            Authenticate(session.Handle(), CKU_CONTEXT_SPECIFIC, session.Owner().TokenFlags(), pin);
        }
        std::vector<unsigned char> signature(kLongestSignature);
        CK_ULONG cbSignature = signature.size();
        RequireFromToken(session.CallParallel([&](auto& functions, CK_SESSION_HANDLE h) {
            return functions.C_Sign(h, const_cast<unsigned char*>(data.data()), data.size(), signature.data(),
                                    &cbSignature);
        }),
                         "C_Sign");
        if (cbSignature > signature.size()) {
            throw Failure(VCTK_E_TOKEN_FAILED, "C_Sign: it returns a longer signature than there is room for");
        }
        signature.resize(cbSignature);
        return signature;
    });
}

}  // namespace vextk
