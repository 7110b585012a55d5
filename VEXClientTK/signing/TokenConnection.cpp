#include "signing/TokenConnection.h"

namespace vextk {
namespace {

// The most sessions that stay open for the next signatures.
constexpr size_t kIdleSessions = 16;

}  // namespace

bool IsTokenLost(CK_RV rv) {
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

void RequireFromToken(CK_RV rv, const char* pszFunction) {
    if (IsTokenLost(rv)) {
        throw TokenLost{rv};
    }
    if (rv != CKR_OK) {
        throw Failure(VCTK_E_TOKEN_FAILED, std::string(pszFunction) + ": " + Pkcs11ResultText(rv));
    }
}

TokenConnection::TokenConnection(const Pkcs11Module& module, const TokenSlot& slot) : m_module(module), m_slot(slot) {
    m_idle.reserve(kIdleSessions + 1);  // one more for the anchor; so returning a session needs no memory
    m_hAnchor = OpenSession();
}

TokenConnection::~TokenConnection() {
    for (const CK_SESSION_HANDLE hSession : m_idle) {
        CloseSession(hSession, false);
    }
    if (m_bAnchor) {
        CloseSession(m_hAnchor, true);
    }
}

std::optional<CK_SESSION_HANDLE> TokenConnection::TakeIdle(size_t& cClosed) {
    CVEXWaitLock lock(m_mutex);
    while (m_idle.empty() && m_bFull) {
        if (m_cTaken > 0) {
            m_returned.wait(lock.ForWait(),
                            [this]() VEX_REQUIRES(m_mutex) { return !m_idle.empty() || !m_bFull || m_cTaken == 0; });
        } else if (m_bAnchor) {
            // The token has a single session, so the anchor does everything.
            m_bAnchor = false;
            m_idle.push_back(m_hAnchor);
        } else {
            m_bFull = false;  // all sessions have been closed
        }
    }
    ++m_cTaken;
    cClosed = m_cClosed;
    if (m_idle.empty()) {
        return std::nullopt;
    }
    const CK_SESSION_HANDLE hSession = m_idle.back();
    m_idle.pop_back();
    return hSession;
}

CK_SESSION_HANDLE TokenConnection::Take() {
    for (;;) {
        size_t cClosed = 0;
        if (const std::optional<CK_SESSION_HANDLE> hIdle = TakeIdle(cClosed)) {
            return *hIdle;
        }
        CK_SESSION_HANDLE hSession = 0;
        CK_RV rv = CKR_OK;
        try {
            rv = TryOpenSession(hSession);
        } catch (const Failure&) {
            const CVEXLock lock(m_mutex);
            --m_cTaken;
            m_returned.notify_all();
            throw;
        }
        if (rv == CKR_OK) {
            return hSession;
        }
        const CVEXLock lock(m_mutex);
        --m_cTaken;
        m_returned.notify_all();
        if (rv == CKR_SESSION_CLOSED && m_bAnchorClosed) {
            throw TokenLost{rv, false};
        }
        if (rv == CKR_SESSION_COUNT && m_cClosed != cClosed) {
            continue;  // there is room by now
        }
        const bool bHasOther = m_cTaken > 0 || !m_idle.empty() || m_bAnchor;
        if (rv != CKR_SESSION_COUNT || !bHasOther) {
            RequireFromToken(rv, "C_OpenSession");
        }
        m_bFull = true;
    }
}

void TokenConnection::Return(CK_SESSION_HANDLE hSession, bool bUsable) {
    bool bAnchor = false;
    {
        const CVEXLock lock(m_mutex);
        if (bUsable && m_idle.size() < kIdleSessions) {
            --m_cTaken;
            m_idle.push_back(hSession);
            m_returned.notify_one();
            return;
        }
        bAnchor = !m_bAnchor && hSession == m_hAnchor;
    }
    // It counts as taken until it is closed: before that, there is no room for another one.
    CloseSession(hSession, bAnchor);
    const CVEXLock lock(m_mutex);
    --m_cTaken;
    ++m_cClosed;
    m_bFull = false;
    m_returned.notify_all();
}

bool TokenConnection::Offers(CK_MECHANISM_TYPE nMechanism) {
    {
        const CVEXLock lock(m_mutex);
        if (const auto found = m_offers.find(nMechanism); found != m_offers.end()) {
            return found->second;
        }
    }
    CK_MECHANISM_INFO info{};
    const CK_RV rv =
        m_module.Call([&](auto& functions) { return functions.C_GetMechanismInfo(m_slot.nId, nMechanism, &info); });
    if (rv != CKR_MECHANISM_INVALID) {
        RequireFromToken(rv, "C_GetMechanismInfo");
    }
    const bool bOffers = rv == CKR_OK && (info.flags & CKF_SIGN) != 0;
    const CVEXLock lock(m_mutex);
    m_offers.emplace(nMechanism, bOffers);
    return bOffers;
}

CK_RV TokenConnection::TryOpenSession(CK_SESSION_HANDLE& hSession) const {
    return m_module.Call([&](auto& functions) {
        return m_bAnchorClosed ? CKR_SESSION_CLOSED
                               : functions.C_OpenSession(m_slot.nId, CKF_SERIAL_SESSION, nullptr, nullptr, &hSession);
    });
}

CK_SESSION_HANDLE TokenConnection::OpenSession() const {
    CK_SESSION_HANDLE hSession = 0;
    RequireFromToken(TryOpenSession(hSession), "C_OpenSession");
    return hSession;
}

void TokenConnection::CloseSession(CK_SESSION_HANDLE hSession, bool bAnchor) {
    if (m_module.IsUsable()) {
        try {
            m_module.Call([&](auto& functions) {
                m_bAnchorClosed = m_bAnchorClosed || bAnchor;
                return functions.C_CloseSession(hSession);
            });
        } catch (const Failure&) {
            // The process has begun to end, and the sessions end with it.
        }
    }
}

}  // namespace vextk
