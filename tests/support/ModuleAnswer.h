// Lets functions of the tests' PKCS #11 module give other answers than the token's. One thread at a time, and only
// after the toolkit has opened the module.
#pragma once

#include <p11-kit/pkcs11.h>

#include <functional>
#include <memory>
#include <utility>

#include "TestToken.h"

// While it exists, the function is the given one. At most one object for each function.
template <auto Member>
class ModuleAnswer;
template <typename... Arguments, CK_RV (*CK_FUNCTION_LIST::*Member)(Arguments...)>
class ModuleAnswer<Member> {
public:
    explicit ModuleAnswer(std::function<CK_RV(Arguments...)> fnAnswer) {
        s_fnAnswer = std::move(fnAnswer);
        s_pReal = std::exchange(Functions().*Member, Call);
    }
    ~ModuleAnswer() { Functions().*Member = s_pReal; }
    ModuleAnswer(const ModuleAnswer&) = delete;
    ModuleAnswer& operator=(const ModuleAnswer&) = delete;

    // The module's own function.
    static CK_RV Real(Arguments... arguments) { return s_pReal(arguments...); }

private:
    static CK_FUNCTION_LIST& Functions() { return *static_cast<CK_FUNCTION_LIST*>(TestTokens::Shim().pFunctions); }
    static CK_RV Call(Arguments... arguments) { return s_fnAnswer(arguments...); }

    inline static std::function<CK_RV(Arguments...)> s_fnAnswer;
    inline static CK_RV (*s_pReal)(Arguments...) = nullptr;
};

using AnyModuleAnswer = std::shared_ptr<const void>;

// The function fails at its nCall-th call from now on. 0: at every call.
template <auto Member>
AnyModuleAnswer FailingAnswer(CK_RV rv, int nCall = 0) {
    return std::make_shared<ModuleAnswer<Member>>([rv, nCall, nCalls = 0](auto... arguments) mutable {
        return nCall == 0 || ++nCalls == nCall ? rv : ModuleAnswer<Member>::Real(arguments...);
    });
}
