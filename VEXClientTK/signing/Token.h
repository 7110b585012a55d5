// A token: reads its content and signs with its keys. The process has one object for each token. All its users share
// one login, which ends when the last of them has gone.
//
// If the token is removed and put back, or its sessions are lost in another way, the object finds it again by its name,
// logs in with the same PIN, and looks up the keys again.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "VEXMutex.h"
#include "signing/SecretText.h"
#include "signing/TokenConnection.h"
#include "signing/TokenContent.h"

namespace vextk {

// Any thread may call any member. Each one throws VCTK_E_TOKEN_REMOVED while the token is absent,
// VCTK_E_TOKEN_NOT_FOUND if it is looked for while several tokens have its name, and VCTK_E_PIN_WRONG,
// VCTK_E_PIN_LOCKED or VCTK_E_PIN_REQUIRED when a login is needed and fails. Other failures are VCTK_E_TOKEN_FAILED.
class Token {
public:
    Token(Pkcs11Module& module, TokenName name);
    ~Token();
    Token(const Token&) = delete;
    Token& operator=(const Token&) = delete;

    const TokenName& Name() const { return m_name; }

    // A user of the token, until the last copy of the pointer has gone. The users of a process share the connection and
    // the PIN. When the last one goes, all sessions are closed, so that the token logs the process out, and the PIN is
    // forgotten. Other members are for users only. The token must outlive them.
    std::shared_ptr<Token> Use();

    // Logs in, unless the token is already logged in with this PIN. A PIN that the token has refused is not sent to it
    // again. If the token has other users, a PIN other than theirs is wrong.
    void LogIn(const SecretText* pPin);

    TokenContent Read();

    // Whether the token signs with this mechanism.
    bool Offers(CK_MECHANISM_TYPE nMechanism);

    std::vector<unsigned char> Sign(const TokenKey& key, CK_MECHANISM mechanism, std::span<const unsigned char> data);

private:
    using ConnectionPtr = std::shared_ptr<TokenConnection>;

    void EndUse() noexcept;

    // The failure with the token's label, if it names only a function of the module.
    Failure Named(const Failure& failure) const;

    template <typename Operation>
    auto Run(Operation operation);

    ConnectionPtr Connected();
    ConnectionPtr Connect(const std::optional<SecretText>& pin) const;
    void Authenticate(CK_SESSION_HANDLE hSession, CK_USER_TYPE nUser, CK_FLAGS flags,
                      const std::optional<SecretText>& pin) const;
    void Drop(const ConnectionPtr& connection);

    Pkcs11Module& m_module;
    const TokenName m_name;

    std::atomic<int> m_cUsers{0};  // falls under the mutex, so that nobody logs in while the last user logs out

    CVEXMutex m_mutex;
    ConnectionPtr m_connection VEX_GUARDED_BY(m_mutex);       // null until the next use makes one
    std::optional<SecretText> m_pin VEX_GUARDED_BY(m_mutex);  // the PIN that logged in
};

}  // namespace vextk
