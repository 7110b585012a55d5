// A PKCS #11 module: the library that knows how to talk to tokens of some make. Loaded and initialised once in a
// process, and never finalised or unloaded: the host's threads may sign while the process ends.
//
// Modules are called directly and not through libp11, whose 0.4.12 waits for ever for a session of a removed token:
// pkcs11_get_session goes back to its condition when C_OpenSession fails.
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

// Which token: what stays the same wherever it is plugged in.
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

// A text of PKCS #11, without the blanks that fill it up.
template <size_t N>
std::string Pkcs11Text(const unsigned char (&text)[N]) {
    const std::string strText(reinterpret_cast<const char*>(text), N);
    return strText.substr(0, strText.find_last_not_of(std::string_view(" \0", 2)) + 1);
}

// Any thread may call any member. Lives as long as the process.
class Pkcs11Module {
public:
    // strPath: a file, or a directory in which strName is looked for; strName: the file's name with or without "lib"
    // and ".so", also where p11-kit's modules are; neither: p11-kit's proxy, which stands for all that are configured.
    // Throws VCTK_E_TOKEN_MODULE, also for a module that others could have changed (ModuleTrust.h).
    static Pkcs11Module& Open(const std::string& strPath, const std::string& strName);

    // Calls functions of the module, one thread at a time: not every module bears sessions that come and go while other
    // threads look for keys. Throws VCTK_E_TOKEN_FAILED when the process is ending, or is not the one that
    // opened the module but a child that it forked: sessions are not inherited.
    template <typename Function>
    CK_RV Call(Function function) const {
        const CallPermit permit(*this, true);
        return function(*m_pFunctions);
    }

    // The same for what takes long, side by side with any other call as far as the module allows it.
    template <typename Function>
    CK_RV CallParallel(Function function) const {
        const CallPermit permit(*this, m_bOneCallAtATime);
        return function(*m_pFunctions);
    }

    // Whether Call does not throw.
    bool IsUsable() const;

    // Throws what Call would throw. To be called before a lock that a thread of the parent may hold in a forked child.
    void RequireUsable() const { const CallPermit permit(*this, false); }

    // The one object for this token.
    std::shared_ptr<Token> FindToken(const TokenName& name);

private:
    struct Process;

    class CallPermit {
    public:
        CallPermit(const Pkcs11Module& module, bool bAlone);

    private:
        std::shared_lock<std::shared_timed_mutex> m_notEnding;
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
    std::map<TokenName, std::shared_ptr<Token>> m_tokens VEX_GUARDED_BY(m_mutex);
};

}  // namespace vextk
