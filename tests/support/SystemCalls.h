// The layer between the programs under test and libc: the program (or a library for LD_PRELOAD) defines libc's
// functions itself. PrivateLog.cpp has the functions that take one of the log's paths, FileSystemCalls.cpp the other
// file functions, SocketCalls.cpp those of the IPC client. Each asks here for the outcome of its call.
//
// A fault is the name of a call with its outcomes. A SystemCalls object scripts the calls of one thread. A function in
// g_pDecide decides about the calls of all threads. Without either, all calls go to the kernel.
#pragma once

#include <dlfcn.h>
#include <sys/types.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

struct Outcome {
    enum class Kind {
        Real,   // what the kernel does
        Fail,   // the call's failing result; errno is nValue
        Short,  // the real call with at most nValue bytes
        Zero,   // 0 without a real call
    };
    Kind kind = Kind::Real;
    int nValue = 0;
    std::function<void()> fnBefore = nullptr;
    std::function<void(ssize_t nResult)> fnAfter = nullptr;
};

inline Outcome Fail(int nErrno) {
    return {Outcome::Kind::Fail, nErrno};
}

inline Outcome Short(int cb) {
    return {Outcome::Kind::Short, cb};
}

inline Outcome After(std::function<void()> fnBefore) {
    return {Outcome::Kind::Real, 0, std::move(fnBefore)};
}

inline const Outcome kReal{};
inline const Outcome kZero{Outcome::Kind::Zero, 0};

namespace system_calls {

struct Call {
    const char* pszName;
    std::size_t cb = 0;    // bytes to transfer
    int nDescriptor = -1;  // of the file
};

// Decides about the calls of all threads; null: none.
inline constinit std::atomic<Outcome (*)(const Call&)> g_pDecide{nullptr};

// The function of that name behind the program's own.
template <typename Function>
Function* Next(Function*, const char* pszName) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, pszName));
}

// Carries out the call as decided. real(cb): the real call with cb bytes. failed: the result of a failure.
template <typename Real, typename Result = std::invoke_result_t<Real, std::size_t>>
Result Perform(const Call& call, Real real, std::type_identity_t<Result> failed = Result(-1)) {
    auto* const pDecide = g_pDecide.load();
    if (pDecide == nullptr) {
        return real(call.cb);
    }
    const Outcome outcome = pDecide(call);
    if (outcome.fnBefore) {
        outcome.fnBefore();
    }
    if (outcome.kind == Outcome::Kind::Fail) {
        errno = outcome.nValue;
        return failed;
    }
    if (outcome.kind == Outcome::Kind::Zero) {
        return Result(0);
    }
    const Result result = real(
        outcome.kind == Outcome::Kind::Short ? std::min(call.cb, static_cast<std::size_t>(outcome.nValue)) : call.cb);
    if constexpr (std::is_integral_v<Result>) {
        if (outcome.fnAfter) {
            outcome.fnAfter(result);
        }
    }
    return result;
}

}  // namespace system_calls

// While it exists, counts its thread's calls and gives them scripted outcomes. At most one for each thread.
class SystemCalls {
public:
    SystemCalls() {
        t_pCalls = this;
        system_calls::g_pDecide = Decide;
    }
    ~SystemCalls() { t_pCalls = nullptr; }
    SystemCalls(const SystemCalls&) = delete;
    SystemCalls& operator=(const SystemCalls&) = delete;

    // The outcomes of the next calls of that name; with bRepeat they start over when they are used up.
    void Script(const std::string& strName, std::vector<Outcome> outcomes, bool bRepeat = false) {
        m_plans[strName] = {std::move(outcomes), 0, bRepeat};
    }

    // The number of calls of each name since the constructor or Reset.
    const std::map<std::string, int>& Counts() const { return m_counts; }
    void Reset() {
        m_counts.clear();
        m_plans.clear();
    }

private:
    struct Plan {
        std::vector<Outcome> outcomes;
        std::size_t nNext = 0;
        bool bRepeat = false;
    };

    static Outcome Decide(const system_calls::Call& call) {
        if (t_pCalls == nullptr) {
            return kReal;
        }
        ++t_pCalls->m_counts[call.pszName];
        Plan& plan = t_pCalls->m_plans[call.pszName];
        if (plan.nNext == plan.outcomes.size() && plan.bRepeat) {
            plan.nNext = 0;
        }
        return plan.nNext < plan.outcomes.size() ? plan.outcomes[plan.nNext++] : kReal;
    }

    static inline thread_local SystemCalls* t_pCalls = nullptr;
    std::map<std::string, int> m_counts;
    std::map<std::string, Plan> m_plans;
};
