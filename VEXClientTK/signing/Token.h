// A token: what is on it, and signatures made by it. One object stands for it in the whole process, with one login.
//
// A token that is removed and put back, or whose sessions are lost in another way, is found again by its name; it is
// logged in to again with the PIN that was right, and the keys are looked up again.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "VEXMutex.h"
#include "signing/SecretText.h"
#include "signing/TokenConnection.h"
#include "signing/TokenContent.h"

namespace vextk {

// Any thread may call any member. Each throws VCTK_E_TOKEN_REMOVED while the token is away, VCTK_E_TOKEN_FAILED when it
// fails in another way, and VCTK_E_PIN_WRONG, VCTK_E_PIN_LOCKED or VCTK_E_PIN_REQUIRED when it has to be logged in to
// and refuses.
class Token {
public:
    Token(Pkcs11Module& module, TokenName name);
    ~Token();
    Token(const Token&) = delete;
    Token& operator=(const Token&) = delete;

    const TokenName& Name() const { return m_name; }

    // Logs in, unless that has been done. A PIN that the token has refused is not shown to it again by this process.
    // bOthersUseIt: a PIN other than the one in use is wrong, too.
    void LogIn(const SecretText* pPin, bool bOthersUseIt);

    TokenContent Read();

    // nMechanism: CKM_RSA_PKCS or CKM_ECDSA.
    std::vector<unsigned char> Sign(const TokenKey& key, CK_MECHANISM_TYPE nMechanism, const unsigned char* pbData,
                                    size_t cbData);

private:
    using ConnectionPtr = std::shared_ptr<TokenConnection>;

    template <typename Operation>
    auto Run(Operation operation);

    ConnectionPtr Connected();
    ConnectionPtr Connect(const std::optional<SecretText>& pin) const;
    void Authenticate(CK_SESSION_HANDLE hSession, CK_USER_TYPE nUser, CK_FLAGS flags,
                      const std::optional<SecretText>& pin) const;
    void Drop(const ConnectionPtr& connection);

    Pkcs11Module& m_module;
    const TokenName m_name;

    CVEXMutex m_mutex;
    ConnectionPtr m_connection VEX_GUARDED_BY(m_mutex);       // null until the next use makes one
    std::optional<SecretText> m_pin VEX_GUARDED_BY(m_mutex);  // the PIN that logged in
};

}  // namespace vextk
