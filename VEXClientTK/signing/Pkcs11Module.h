// A PKCS #11 module: the library that talks to the tokens of one make. It is loaded and initialised once in a process.
// It is never finalised or unloaded, because the host's threads may sign while the process ends.
//
// Modules are called directly, not through libp11. When a token is removed, libp11 0.4.12 waits for a session for ever:
// pkcs11_get_session waits again when C_OpenSession fails.
#pragma once

#include <dlfcn.h>
#include <p11-kit/pkcs11.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <tuple>

#include "VEXMutex.h"
#include "signing/Failure.h"

namespace vextk {

class Token;

// Identifies a token. It stays the same in whatever slot the token is.
struct TokenName {
    std::string strLabel;
    std::string strManufacturer;
    std::string strModel;
    std::string strSerial;

    bool operator==(const TokenName&) const = default;
    bool operator<(const TokenName& other) const {
        return std::tie(strLabel, strManufacturer, strModel, strSerial) <
               std::tie(other.strLabel, other.strManufacturer, other.strModel, other.strSerial);
    }
};

// The name of a result of PKCS #11.
std::string Pkcs11ResultText(CK_RV rv);

// A text of PKCS #11, without the padding at its end.
template <size_t N>
std::string Pkcs11Text(const unsigned char (&text)[N]) {
    const std::string strText(reinterpret_cast<const char*>(text), N);
    return strText.substr(0, strText.find_last_not_of(std::string_view(" \0", 2)) + 1);
}

// Any thread may call any member. Lives as long as the process.
class Pkcs11Module {
public:
    // strPath: a module file, or a directory that holds strName. strName: a file name, with or without "lib" and ".so";
    // without strPath, it is looked for where p11-kit's modules and other libraries are. Both empty: p11-kit's proxy,
    // which gives access to all configured modules.
    // Throws VCTK_E_TOKEN_MODULE, also for a module that others may change (ModuleTrust.h).
    static Pkcs11Module& Open(const std::string& strPath, const std::string& strName);

    // Calls functions of the module, one thread at a time: some modules fail when sessions open and close while other
    // threads look for keys. Throws VCTK_E_TOKEN_FAILED when the process is ending, and in a child of the process that
    // opened the module: a child does not inherit sessions.
    template <typename Function>
    CK_RV Call(Function function) const {
        const CallPermit permit(*this, true);
        return function(*m_pFunctions);
    }

    // The same for functions that take long. Runs at the same time as other calls if the module allows it.
    template <typename Function>
    CK_RV CallParallel(Function function) const {
        const CallPermit permit(*this, m_bOneCallAtATime);
        return function(*m_pFunctions);
    }

    // False if Call would throw.
    bool IsUsable() const;

    // Throws what Call would throw. Call this before you take a lock: in a forked child, a thread of the parent may
    // still hold it.
    void RequireUsable() const { const CallPermit permit(*this, false); }

    // Returns the process's one object for this token. It lives as long as the process.
    Token& FindToken(const TokenName& name);

private:
    struct Process;

    class CallPermit {
    public:
        CallPermit(const Pkcs11Module& module, bool bAlone);

    private:
        std::shared_lock<std::shared_mutex> m_notEnding;
        std::unique_lock<std::mutex> m_alone;
    };

    Pkcs11Module(Process& process, CK_FUNCTION_LIST* pFunctions);

    static Process& CurrentProcess();
    static void CloseAtExit();

    Process& m_process;
    CK_FUNCTION_LIST* m_pFunctions;
    bool m_bOneCallAtATime = false;
    mutable std::mutex m_oneCall;

    CVEXMutex m_mutex;
    std::map<TokenName, std::unique_ptr<Token>> m_tokens VEX_GUARDED_BY(m_mutex);
};

}  // namespace vextk
