#include "signing/Token.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <map>

#include "signing/WrongPins.h"

namespace vextk {
namespace {

// Sessions that are kept open for the next signatures.
constexpr size_t kIdleSessions = 16;
constexpr int kAttempts = 2;
constexpr size_t kLongestSignature = 4096;

// The token is away, or has forgotten about us: what helps is to begin anew with it.
struct Lost {
    CK_RV rv;
};

bool IsLost(CK_RV rv) {
    switch (rv) {
        case CKR_DEVICE_REMOVED:
        case CKR_DEVICE_ERROR:
        case CKR_TOKEN_NOT_PRESENT:
        case CKR_TOKEN_NOT_RECOGNIZED:
        case CKR_SLOT_ID_INVALID:
        case CKR_SESSION_HANDLE_INVALID:
        case CKR_SESSION_CLOSED:
        case CKR_USER_NOT_LOGGED_IN:
        case CKR_KEY_HANDLE_INVALID:
        case CKR_OBJECT_HANDLE_INVALID:
            return true;
        default:
            return false;
    }
}

void Require(CK_RV rv, const char* pszFunction) {
    if (IsLost(rv)) {
        throw Lost{rv};
    }
    if (rv != CKR_OK) {
        throw Failure(VCTK_E_TOKEN_FAILED, std::string(pszFunction) + ": " + Pkcs11ResultText(rv));
    }
}

bool IsSigningType(CK_KEY_TYPE type) {
    switch (type) {
        case CKK_RSA:
        case CKK_EC:
            return true;
        default:
            return false;
    }
}

std::string WholeName(const TokenName& name) {
    return name.strManufacturer + '\0' + name.strModel + '\0' + name.strSerial + '\0' + name.strLabel;
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

std::vector<TokenSlot> ListTokens(const Pkcs11Module& module) {
    std::vector<CK_SLOT_ID> slots;
    for (;;) {
        // Asked without room for the answer, a module looks for readers and tokens anew.
        CK_ULONG cSlots = 0;
        CK_RV rv = module.Call([&](auto& functions) { return functions.C_GetSlotList(CK_TRUE, nullptr, &cSlots); });
        if (rv == CKR_OK) {
            slots.resize(cSlots);
            rv = module.Call([&](auto& functions) {
                return cSlots == 0 ? CKR_OK : functions.C_GetSlotList(CK_TRUE, slots.data(), &cSlots);
            });
            slots.resize(std::min<size_t>(cSlots, slots.size()));
        }
        if (rv == CKR_BUFFER_TOO_SMALL) {
            continue;  // one more has come meanwhile
        }
        if (rv != CKR_OK) {
            throw Failure(VCTK_E_TOKEN_FAILED, "C_GetSlotList: " + Pkcs11ResultText(rv));
        }
        break;
    }
    std::vector<TokenSlot> tokens;
    for (const CK_SLOT_ID nSlot : slots) {
        CK_TOKEN_INFO token{};
        CK_SLOT_INFO slot{};
        if (module.Call([&](auto& functions) { return functions.C_GetTokenInfo(nSlot, &token); }) == CKR_OK &&
            module.Call([&](auto& functions) { return functions.C_GetSlotInfo(nSlot, &slot); }) == CKR_OK &&
            (token.flags & CKF_TOKEN_INITIALIZED) != 0) {
            tokens.push_back({nSlot,
                              {Pkcs11Text(token.label), Pkcs11Text(token.manufacturerID), Pkcs11Text(token.model),
                               Pkcs11Text(token.serialNumber)},
                              Pkcs11Text(slot.slotDescription),
                              Pkcs11Text(slot.manufacturerID),
                              token.flags});
        }
    }
    return tokens;
}

// What ends when the token is removed: sessions, and the handles of keys. Any thread may call any member.
class Token::Connection {
public:
    Connection(const Pkcs11Module& module, const TokenSlot& slot) : m_module(module), m_slot(slot) {
        m_idle.reserve(kIdleSessions + 1);  // with the anchor; putting a session back must not fail
        m_hAnchor = OpenSession();
    }
    ~Connection() {
        for (const CK_SESSION_HANDLE hSession : m_idle) {
            CloseSession(hSession);
        }
        if (m_bAnchor) {
            CloseSession(m_hAnchor);
        }
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    const Pkcs11Module& Module() const { return m_module; }
    CK_FLAGS TokenFlags() const { return m_slot.tokenFlags; }

    // The session that keeps the login, which ends with the last session.
    CK_SESSION_HANDLE Anchor() const { return m_hAnchor; }

    // A session for the caller alone. Waits for one when the token has no more.
    CK_SESSION_HANDLE Take() {
        std::unique_lock lock(m_mutex);
        for (;;) {
            if (!m_idle.empty()) {
                const CK_SESSION_HANDLE hSession = m_idle.back();
                m_idle.pop_back();
                ++m_cTaken;
                return hSession;
            }
            if (!m_bFull) {
                ++m_cTaken;
                lock.unlock();
                CK_SESSION_HANDLE hSession = 0;
                const CK_RV rv = TryOpenSession(hSession);
                if (rv == CKR_OK) {
                    return hSession;
                }
                lock.lock();
                --m_cTaken;
                m_returned.notify_all();
                if (rv != CKR_SESSION_COUNT) {
                    Require(rv, "C_OpenSession");
                }
                m_bFull = true;
            } else if (m_cTaken > 0) {
                m_returned.wait(lock, [this] { return !m_idle.empty() || m_cTaken == 0; });
            } else if (m_bAnchor) {
                // A token with a single session: it has to do for everything.
                m_bAnchor = false;
                m_idle.push_back(m_hAnchor);
            } else {
                m_bFull = false;  // those that there were have been closed
            }
        }
    }

    // bUsable: no operation is left unfinished in it.
    void Return(CK_SESSION_HANDLE hSession, bool bUsable) {
        {
            const std::lock_guard lock(m_mutex);
            --m_cTaken;
            if (bUsable && m_idle.size() < kIdleSessions) {
                m_idle.push_back(hSession);
                m_returned.notify_one();
                return;
            }
            m_returned.notify_all();
        }
        CloseSession(hSession);
    }

    // A key's handle, and whether it wants the PIN for each signature.
    struct KeyObject {
        CK_OBJECT_HANDLE hKey;
        bool bAlwaysAuthenticate;
    };

    // Looked up once.
    template <typename LookUp>
    KeyObject FindKey(const TokenKey& key, LookUp lookUp) {
        {
            const std::lock_guard lock(m_mutex);
            if (const auto found = m_keys.find(key); found != m_keys.end()) {
                return found->second;
            }
        }
        const KeyObject object = lookUp();
        const std::lock_guard lock(m_mutex);
        m_keys.emplace(key, object);
        return object;
    }

private:
    CK_RV TryOpenSession(CK_SESSION_HANDLE& hSession) const {
        return m_module.Call([&](auto& functions) {
            return functions.C_OpenSession(m_slot.nId, CKF_SERIAL_SESSION, nullptr, nullptr, &hSession);
        });
    }
    CK_SESSION_HANDLE OpenSession() const {
        CK_SESSION_HANDLE hSession = 0;
        Require(TryOpenSession(hSession), "C_OpenSession");
        return hSession;
    }
    void CloseSession(CK_SESSION_HANDLE hSession) const {
        if (m_module.IsUsable()) {
            try {
                m_module.Call([&](auto& functions) { return functions.C_CloseSession(hSession); });
            } catch (const Failure&) {
                // The process has begun to end meanwhile, and the sessions end with it.
            }
        }
    }

    const Pkcs11Module& m_module;
    const TokenSlot m_slot;
    CK_SESSION_HANDLE m_hAnchor;

    std::mutex m_mutex;
    std::condition_variable m_returned;
    std::vector<CK_SESSION_HANDLE> m_idle;  // guarded by m_mutex, as all below
    size_t m_cTaken = 0;
    bool m_bFull = false;   // the token opens no more sessions
    bool m_bAnchor = true;  // the anchor is not among the others
    std::map<TokenKey, KeyObject> m_keys;
};

// A session taken from a connection.
class Token::Session {
public:
    explicit Session(Connection& connection) : m_connection(connection), m_hSession(connection.Take()) {}
    ~Session() { m_connection.Return(m_hSession, m_bUsable); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    Connection& Owner() const { return m_connection; }
    CK_SESSION_HANDLE Handle() const { return m_hSession; }

    template <typename Function>
    CK_RV Call(Function function) const {
        return m_connection.Module().Call([&](auto& functions) { return function(functions, m_hSession); });
    }

    template <typename Function>
    CK_RV CallParallel(Function function) const {
        return m_connection.Module().CallParallel([&](auto& functions) { return function(functions, m_hSession); });
    }

    void NoteUsable() { m_bUsable = true; }

    std::vector<CK_OBJECT_HANDLE> Find(std::vector<CK_ATTRIBUTE> attributes) const {
        Require(Call([&](auto& functions, CK_SESSION_HANDLE h) {
                    return functions.C_FindObjectsInit(h, attributes.data(), attributes.size());
                }),
                "C_FindObjectsInit");
        std::vector<CK_OBJECT_HANDLE> objects;
        for (;;) {
            std::array<CK_OBJECT_HANDLE, 64> some{};
            CK_ULONG cSome = 0;
            Require(Call([&](auto& functions, CK_SESSION_HANDLE h) {
                        return functions.C_FindObjects(h, some.data(), some.size(), &cSome);
                    }),
                    "C_FindObjects");
            if (cSome == 0) {
                break;
            }
            objects.insert(objects.end(), some.begin(), some.begin() + static_cast<std::ptrdiff_t>(cSome));
        }
        Require(Call([](auto& functions, CK_SESSION_HANDLE h) { return functions.C_FindObjectsFinal(h); }),
                "C_FindObjectsFinal");
        return objects;
    }

    // The bytes of an attribute; nothing when the object does not have or show it.
    std::optional<std::string> Attribute(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_TYPE nType) const {
        CK_ATTRIBUTE attribute{nType, nullptr, 0};
        const auto get = [&] {
            return Call([&](auto& functions, CK_SESSION_HANDLE h) {
                return functions.C_GetAttributeValue(h, hObject, &attribute, 1);
            });
        };
        std::string strBytes;
        for (const bool bSized : {false, true}) {
            const CK_RV rv = get();
            if (IsLost(rv)) {
                throw Lost{rv};
            }
            if (rv != CKR_OK || attribute.ulValueLen == static_cast<CK_ULONG>(-1)) {
                return std::nullopt;
            }
            strBytes.resize(attribute.ulValueLen);
            if (!bSized) {
                attribute.pValue = strBytes.data();
            }
        }
        return strBytes;
    }

    template <typename T>
    std::optional<T> Number(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_TYPE nType) const {
        const std::optional<std::string> bytes = Attribute(hObject, nType);
        T number{};
        if (!bytes || bytes->size() != sizeof number) {
            return std::nullopt;
        }
        bytes->copy(reinterpret_cast<char*>(&number), sizeof number);
        return number;
    }

    // A token that says nothing of it finds out when it is asked to sign.
    bool MaySign(CK_OBJECT_HANDLE hKey) const { return Number<CK_BBOOL>(hKey, CKA_SIGN).value_or(CK_TRUE) != CK_FALSE; }

private:
    Connection& m_connection;
    const CK_SESSION_HANDLE m_hSession;
    bool m_bUsable = false;
};

Token::Token(Pkcs11Module& module, TokenName name) : m_module(module), m_name(std::move(name)) {}

Token::~Token() = default;

// Runs an operation in a session; once more, with a new connection, when the connection turns out to be lost.
template <typename Operation>
auto Token::Run(Operation operation) {
    for (int nAttempt = 1;; ++nAttempt) {
        ConnectionPtr connection;
        try {
            connection = Connected();
            Session session(*connection);
            auto result = operation(session);
            session.NoteUsable();
            return result;
        } catch (const Lost& lost) {
            if (connection) {
                Drop(connection);
            }
            if (nAttempt == kAttempts) {
                throw Failure(VCTK_E_TOKEN_REMOVED, Pkcs11ResultText(lost.rv));
            }
        }
    }
}

void Token::Drop(const ConnectionPtr& connection) {
    ConnectionPtr dropped;  // closes its sessions when the lock has been released
    const std::lock_guard lock(m_mutex);
    if (m_connection == connection) {
        dropped = std::move(m_connection);
        m_connection = nullptr;
    }
}

Token::ConnectionPtr Token::Connected() {
    // A child must not wait for a lock that a thread of its parent may hold.
    m_module.CallParallel([](auto&) { return CK_RV{CKR_OK}; });
    const std::lock_guard lock(m_mutex);
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
    auto connection = std::make_shared<Connection>(m_module, *found);
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
    const std::string strToken = WholeName(m_name);
    if (pin && IsKnownWrongPin(strToken, pin->View())) {
        throw Failure(VCTK_E_PIN_WRONG, "the token has refused it before, and is not asked again");
    }
    const CK_RV rv = m_module.Call([&](auto& functions) {
        return pin ? functions.C_Login(hSession, nUser, PinBytes(*pin), pin->View().size())
                   : functions.C_Login(hSession, nUser, nullptr, 0);
    });
    switch (rv) {
        case CKR_USER_ALREADY_LOGGED_IN:
            return;
        case CKR_PIN_INCORRECT:
        case CKR_PIN_INVALID:
        case CKR_PIN_LEN_RANGE:
            if (pin) {
                RememberWrongPin(strToken, pin->View());
            }
            throw Failure(VCTK_E_PIN_WRONG);
        case CKR_PIN_LOCKED:
            throw Failure(VCTK_E_PIN_LOCKED, m_name.strLabel);
        default:
            Require(rv, "C_Login");
    }
}

void Token::LogIn(const SecretText* pPin, bool bOthersUseIt) {
    m_module.CallParallel([](auto&) { return CK_RV{CKR_OK}; });
    std::optional<SecretText> pin;
    if (pPin != nullptr && !pPin->View().empty()) {
        pin = CopyOf(*pPin);
    }
    ConnectionPtr dropped;
    const std::lock_guard lock(m_mutex);
    const bool bSamePin = pin.has_value() == m_pin.has_value() && (!pin || EqualPins(*pin, *m_pin));
    if (m_connection && bSamePin) {
        return;
    }
    // After a change of the PIN outside, the old one has been refused; then a new one may come.
    const bool bPinInUse = m_pin && !IsKnownWrongPin(WholeName(m_name), m_pin->View());
    if (m_connection || (bOthersUseIt && bPinInUse && !bSamePin)) {
        const bool bNeedsNone =
            m_connection && (m_connection->TokenFlags() & (CKF_LOGIN_REQUIRED | CKF_PROTECTED_AUTHENTICATION_PATH)) !=
                                CKF_LOGIN_REQUIRED;
        if (!pin && !bNeedsNone) {
            throw Failure(VCTK_E_PIN_REQUIRED, m_name.strLabel);
        }
        if (bOthersUseIt && !bNeedsNone) {
            throw Failure(VCTK_E_PIN_WRONG, "the token is in use with another PIN");
        }
        // Its last session ends the login.
        dropped = std::move(m_connection);
        m_connection = nullptr;
        dropped.reset();
    }
    try {
        m_connection = Connect(pin);
    } catch (const Lost& lost) {
        throw Failure(VCTK_E_TOKEN_REMOVED, Pkcs11ResultText(lost.rv));
    }
    m_pin = std::move(pin);
}

TokenContent Token::Read() {
    return Run([](Session& session) {
        TokenContent content;
        CK_OBJECT_CLASS nClass = CKO_CERTIFICATE;
        CK_CERTIFICATE_TYPE nX509 = CKC_X_509;
        for (const CK_OBJECT_HANDLE hObject :
             session.Find({{CKA_CLASS, &nClass, sizeof nClass}, {CKA_CERTIFICATE_TYPE, &nX509, sizeof nX509}})) {
            const std::string strDer = session.Attribute(hObject, CKA_VALUE).value_or("");
            const auto* pbDer = reinterpret_cast<const unsigned char*>(strDer.data());
            const OpenSslErrorMark mark;
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

std::vector<unsigned char> Token::Sign(const TokenKey& key, CK_MECHANISM_TYPE nMechanism, const unsigned char* pbData,
                                       size_t cbData) {
    return Run([&](Session& session) {
        const Connection::KeyObject object = session.Owner().FindKey(key, [&] {
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
            return Connection::KeyObject{*signing, bAlways.value_or(CK_FALSE) == CK_TRUE};
        });
        CK_MECHANISM mechanism{nMechanism, nullptr, 0};
        Require(session.Call([&](auto& functions, CK_SESSION_HANDLE h) {
            return functions.C_SignInit(h, &mechanism, object.hKey);
        }),
                "C_SignInit");
        if (object.bAlwaysAuthenticate) {
            std::optional<SecretText> pin;
            {
                const std::lock_guard lock(m_mutex);
                pin = m_pin ? std::optional(CopyOf(*m_pin)) : std::nullopt;
            }
            Authenticate(session.Handle(), CKU_CONTEXT_SPECIFIC, session.Owner().TokenFlags(), pin);
        }
        std::vector<unsigned char> signature(kLongestSignature);
        CK_ULONG cbSignature = signature.size();
        Require(session.CallParallel([&](auto& functions, CK_SESSION_HANDLE h) {
            return functions.C_Sign(h, const_cast<unsigned char*>(pbData), cbData, signature.data(), &cbSignature);
        }),
                "C_Sign");
        signature.resize(cbSignature);
        return signature;
    });
}

}  // namespace vextk
