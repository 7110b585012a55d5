// libc's file calls as this program's tests want them: counted, and failing or falling short on demand.
//
// The program defines open, fstat, pwrite and so on itself; the toolkit library then calls these. A thread that has a
// SystemCalls object has its calls counted and scripted; all others, and unscripted calls, go to the kernel as they
// are.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

struct Outcome {
    enum class Kind {
        Real,   // what the kernel does
        Fail,   // -1 and errno nValue
        Short,  // the real call with at most nValue bytes
        Zero,   // 0 without a real call
    };
    Kind kind = Kind::Real;
    int nValue = 0;
    std::function<void()> fnFirst = nullptr;  // runs before the call
};

inline Outcome Fail(int nErrno) {
    return {Outcome::Kind::Fail, nErrno};
}

inline Outcome Short(int cb) {
    return {Outcome::Kind::Short, cb};
}

inline Outcome After(std::function<void()> fnFirst) {
    return {Outcome::Kind::Real, 0, std::move(fnFirst)};
}

inline const Outcome kReal{};
inline const Outcome kZero{Outcome::Kind::Zero, 0};

class SystemCalls {
public:
    SystemCalls();
    ~SystemCalls();
    SystemCalls(const SystemCalls&) = delete;
    SystemCalls& operator=(const SystemCalls&) = delete;

    // The outcomes of the thread's next calls of that name; with bRepeat they start over when they are used up.
    void Script(const std::string& strName, std::vector<Outcome> outcomes, bool bRepeat = false);

    // How often the thread has called what since this object was made or Reset.
    const std::map<std::string, int>& Counts() const { return m_counts; }
    void Reset();

    // For the replaced calls: counts, and says what is to happen. Real without an object.
    static Outcome Next(const char* pszName);

private:
    struct Plan {
        std::vector<Outcome> outcomes;
        size_t nNext = 0;
        bool bRepeat = false;
    };
    std::map<std::string, int> m_counts;
    std::map<std::string, Plan> m_plans;
};
