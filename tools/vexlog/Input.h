// Reads logs from their beginning to their end.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Record.h"
#include "Source.h"

namespace vexlog {

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

// Reads the files, or standard input ("-"), and hands their records to the sink, those of several files in the order of
// time (Merge.h). Throws ReadError after the sink has the records that could be read.
void ReadLogs(const std::vector<std::string>& paths, RecordSink& sink, ReadObserver& observer);

}  // namespace vexlog
