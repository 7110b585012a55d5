#!/bin/bash
# Checks the run paths of all programs and libraries below some directories: CheckRunPaths.sh <directory>...
# Each entry must be an absolute directory or begin with $ORIGIN. An empty entry would mean the current directory, where
# anybody could put a library.
set -euo pipefail
export LC_ALL=C

# readelf prints file names only for two files or more. It fails for files that are not ELF files.
find "$@" -type f ! -name '*.[ao]' -print0 | { xargs -0 readelf -dW "$(command -v readelf)" 2>/dev/null || true; } | awk '
    /^File: / { file = substr($0, 7) }
    /\((RPATH|RUNPATH)\)/ {
        ++found
        path = $0
        sub(/^[^[]*\[/, "", path)
        sub(/\]$/, "", path)
        # The added colon makes an empty run path one empty entry.
        n = split(path ":", entries, ":") - 1
        for (i = 1; i <= n; ++i) {
            if (entries[i] !~ /^(\/|\$ORIGIN(\/|$)|\$\{ORIGIN\}(\/|$))/) {
                print file ": entry " i " of the run path [" path "] is no fixed directory"
                ++bad
            }
        }
    }
    END {
        if (!found) print "no program with a run path was found"
        exit bad || !found
    }'
