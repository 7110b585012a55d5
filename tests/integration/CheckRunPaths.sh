#!/bin/bash
# Looks at the run paths of all programs and libraries below some directories: CheckRunPaths.sh <directory>...
# Each entry has to be an absolute directory or to begin with $ORIGIN. An empty entry would be the current directory, from
# which anybody's library would be loaded.
set -euo pipefail
export LC_ALL=C

# Two files at least, or readelf would not name them. It fails for those that are no programs.
find "$@" -type f ! -name '*.[ao]' -print0 | { xargs -0 readelf -dW "$(command -v readelf)" 2>/dev/null || true; } | awk '
    /^File: / { file = substr($0, 7) }
    /\((RPATH|RUNPATH)\)/ {
        ++found
        path = $0
        sub(/^[^[]*\[/, "", path)
        sub(/\]$/, "", path)
        # split() leaves out nothing but the empty entry of an empty text.
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
