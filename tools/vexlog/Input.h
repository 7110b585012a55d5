// Reads a log from its beginning to its end.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "Record.h"
#include "posix/FileDescriptor.h"

namespace vexlog {

class ReadError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

inline constexpr const char* kStandardInput = "-";

// Opens a file for reading. Throws ReadError, also for a directory.
vexposix::FileDescriptor OpenLog(const std::string& strPath);

// nError: an errno value.
[[noreturn]] void ThrowReadError(const std::string& strPath, int nError);

// Learns how far the reading of a log is.
class ReadObserver {
public:
    virtual ~ReadObserver() = default;
    // Called after each piece. cbTotal: 0 if it is not known. bWaiting: the next piece may take long to arrive.
    virtual void OnProgress(std::uint64_t cbRead, std::uint64_t cbTotal, bool bWaiting) = 0;

protected:
    ReadObserver() = default;
    ReadObserver(const ReadObserver&) = default;
    ReadObserver& operator=(const ReadObserver&) = default;
};

// Reads the whole file, or standard input ("-"), and hands its records to the sink. Throws ReadError after the sink has
// the records that could be read.
void ReadLog(const std::string& strPath, RecordSink& sink, ReadObserver& observer);

}  // namespace vexlog
