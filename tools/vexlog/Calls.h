// Combines records into calls: a record of a beginning and the record of its end.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Native.h"
#include "Record.h"

namespace vexlog {

enum class Outcome {
    kDone,          // has both records
    kFailed,        // has no end, but its thread went on: refused or failed
    kOpen,          // has no end, and its thread wrote nothing more
    kWithoutBegin,  // has no beginning: its function writes none, or it was cut from the file
};

struct Call {
    std::uint32_t nFunction = 0;  // of CallMatcher::Functions
    std::int64_t nProcess = 0;
    std::int32_t nThread = 0;
    Outcome outcome = Outcome::kDone;
    CivilMicroseconds nBegin = 0;     // for kWithoutBegin: of its end
    CivilMicroseconds nDuration = 0;  // of kDone; negative if the clock was set back during the call
};

class CallSink {
public:
    virtual ~CallSink() = default;
    virtual void OnCall(const Call& call) = 0;

protected:
    CallSink() = default;
    CallSink(const CallSink&) = default;
    CallSink& operator=(const CallSink&) = default;
};

// Each thread of each process has at most one open call. Memory is bounded: beyond kMostOpen open calls, one of them is
// reported as open; functions beyond kMostFunctions share a name.
class CallMatcher : public RecordSink {
public:
    static constexpr std::size_t kMostOpen = 65'536;
    static constexpr std::size_t kMostFunctions = 500;

    // The sink must outlive the matcher.
    explicit CallMatcher(CallSink& sink) : m_sink(sink) {}

    void OnRecord(const Record& record) override;

    // Call this at the end of the log: reports the calls that are still open.
    void Finish();

    // Short names, such as "ClearFilter". The last of kMostFunctions is "(others)".
    const std::vector<std::string>& Functions() const { return m_functions; }

private:
    struct NameHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view name) const { return std::hash<std::string_view>()(name); }
    };
    struct Open {
        std::uint32_t nFunction;
        CivilMicroseconds nBegin;
    };
    using Thread = std::pair<std::int64_t, std::int32_t>;  // its process, its number
    // A map in order: whoever writes the log chooses the numbers, and could make those of a hash table collide.
    using OpenCalls = std::map<Thread, Open>;

    std::uint32_t FunctionNumber(std::string_view function);
    void Close(const OpenCalls::value_type& open, Outcome outcome);

    CallSink& m_sink;
    OpenCalls m_open;
    std::vector<std::string> m_functions;
    std::unordered_map<std::string, std::uint32_t, NameHash, std::equal_to<>> m_numbers;
};

}  // namespace vexlog
