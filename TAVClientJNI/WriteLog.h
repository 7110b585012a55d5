// A minimal logger beside the diagnostic log: each record opens /tmp/PILog.txt, is appended and closes it again. It has
// no state, no thread, no level filter and no size limit. Any thread; a record is written in pieces, between which the
// records of others may come.
#pragma once

#include <cstdio>

// The log, opened for appending; the caller gives it to pv_uninit. Null on failure, which is told on standard output;
// a link, pipe, device or another user's file (not root's) in its place is a failure.
FILE* pv_init_log();

// Null is allowed.
void pv_uninit(FILE* stream);

// level: 1 "DEBU", 2 "WARN", 3 "ERRO", others "INFO". format: wide, as wprintf; the message is cut after 32,767
// characters. Of a record whose message the process locale cannot encode only the time and the process are written, and
// no line end.
extern "C" void pv_log(int level, const wchar_t* format, ...);
