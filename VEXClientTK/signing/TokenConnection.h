// A connection to a token: its sessions and key handles. It is lost when the token is removed.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <optional>
#include <vector>

#include "VEXMutex.h"
#include "signing/TokenContent.h"

namespace vextk {

// Thrown when the token is absent, or has lost this process's sessions, login or key handles. A new connection may
// help.
struct TokenLost {
    CK_RV rv;
    bool bTried = true;  // false: another thread ended the connection before this one called the token
};

bool IsTokenLost(CK_RV rv);

// Throws TokenLost or VCTK_E_TOKEN_FAILED unless the function succeeded.
void RequireFromToken(CK_RV rv, const char* pszFunction);

// Any thread may call any member.
class TokenConnection {
public:
    TokenConnection(const Pkcs11Module& module, const TokenSlot& slot);
    ~TokenConnection();
    TokenConnection(const TokenConnection&) = delete;
    TokenConnection& operator=(const TokenConnection&) = delete;

    const Pkcs11Module& Module() const { return m_module; }
    CK_FLAGS TokenFlags() const { return m_slot.tokenFlags; }

    // The session that is kept open, because the login ends with the last session.
    CK_SESSION_HANDLE Anchor() const { return m_hAnchor; }

    // A session for the caller alone. Waits for one if the token opens no more.
    CK_SESSION_HANDLE Take();

    // bUsable: no operation is unfinished in the session. Otherwise it is closed. If it is the anchor, the connection
    // is lost: it opens no more sessions, so that the next connection finds room for its own.
    void Return(CK_SESSION_HANDLE hSession, bool bUsable);

    // A key's handle, and whether the token requires the PIN for each signature.
    struct KeyObject {
        CK_OBJECT_HANDLE hKey;
        bool bAlwaysAuthenticate;
    };

    // Calls lookUp only for a key that was not found before.
    template <typename LookUp>
    KeyObject FindKey(const TokenKey& key, LookUp lookUp) {
        {
            const CVEXLock lock(m_mutex);
            if (const auto found = m_keys.find(key); found != m_keys.end()) {
                return found->second;
            }
        }
        const KeyObject object = lookUp();
        const CVEXLock lock(m_mutex);
        m_keys.emplace(key, object);
        return object;
    }

    // Whether the token signs with this mechanism. Asks the token once for each.
    bool Offers(CK_MECHANISM_TYPE nMechanism);

private:
    // An idle session, or nothing: then the caller opens one. Either counts as taken. May wait. cClosed: how many
    // sessions were closed until then.
    std::optional<CK_SESSION_HANDLE> TakeIdle(size_t& cClosed);
    CK_RV TryOpenSession(CK_SESSION_HANDLE& hSession) const;
    CK_SESSION_HANDLE OpenSession() const;
    void CloseSession(CK_SESSION_HANDLE hSession, bool bAnchor);

    const Pkcs11Module& m_module;
    const TokenSlot m_slot;
    CK_SESSION_HANDLE m_hAnchor;
    std::atomic<bool> m_bAnchorClosed{false};  // changes in a call of the module, and so not while a session is opened

    CVEXMutex m_mutex;
    std::condition_variable m_returned;
    std::vector<CK_SESSION_HANDLE> m_idle VEX_GUARDED_BY(m_mutex);
    size_t m_cTaken VEX_GUARDED_BY(m_mutex) = 0;
    size_t m_cClosed VEX_GUARDED_BY(m_mutex) = 0;   // sessions that were returned and closed
    bool m_bFull VEX_GUARDED_BY(m_mutex) = false;   // the token opens no more sessions
    bool m_bAnchor VEX_GUARDED_BY(m_mutex) = true;  // the anchor only keeps the login; false: it also signs
    std::map<TokenKey, KeyObject> m_keys VEX_GUARDED_BY(m_mutex);
    std::map<CK_MECHANISM_TYPE, bool> m_offers VEX_GUARDED_BY(m_mutex);
};

}  // namespace vextk
