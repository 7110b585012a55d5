// A log to be read from its beginning to its end.
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

// A file for reading; throws ReadError, for a directory too.
vexposix::FileDescriptor OpenLog(const std::string& strPath);

// What an operation on the file failed with, from errno.
[[noreturn]] void ThrowReadError(const std::string& strPath, int nError);

// Takes part in the reading of a long or slow log.
class ReadObserver {
public:
    virtual ~ReadObserver() = default;
    // After each piece. cbTotal: 0 when it is not known. bWaiting: the source may keep the reader waiting now.
    virtual void OnProgress(std::uint64_t cbRead, std::uint64_t cbTotal, bool bWaiting) = 0;

protected:
    ReadObserver() = default;
    ReadObserver(const ReadObserver&) = default;
    ReadObserver& operator=(const ReadObserver&) = default;
};

// Reads all of the file, or of standard input ("-"), and hands its records to the sink. Throws ReadError, when the
// sink has what could be read.
void ReadLog(const std::string& strPath, RecordSink& sink, ReadObserver& observer);

}  // namespace vexlog
