// A minimal logger beside the diagnostic log. Each record opens /tmp/PILog.txt, appends to it and closes it. The logger
// has no state, no thread, no level filter and no size limit. Any thread; a record is written in pieces, and records of
// other threads or processes may come between them.
#pragma once

#include <cstdio>

// Opens the log for appending; the caller closes it with pv_uninit. Null on failure, with a message on standard output.
// A link, pipe or device is a failure, and so is a file of another user except root.
FILE* pv_init_log();

// Null is allowed.
void pv_uninit(FILE* stream);

// level: 1 "DEBU", 2 "WARN", 3 "ERRO", others "INFO". format: as wprintf; the message is cut after 32,767 characters.
// When the process locale cannot encode the message, the record is only the time and the process, without a line end.
extern "C" void pv_log(int level, const wchar_t* format, ...);
