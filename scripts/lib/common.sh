# shellcheck shell=bash
# Functions for bash scripts of this project. Source this file under "set -euo pipefail".
#
#   vex_require STAGE...      see requirements.sh
#   vex_use_utf8_locale       makes sure that all programs started from now on have a UTF-8 locale
#   vex_usage_error MESSAGE   prints the message and what the script's function "usage" prints, and exits with 2

# With CDPATH, "cd" may go to another directory than the one named, and prints it.
unset CDPATH

# shellcheck source-path=SCRIPTDIR source=requirements.sh
. "$(dirname "${BASH_SOURCE[0]}")/requirements.sh"

vex_use_utf8_locale() {
    if [ "$(locale charmap 2>/dev/null)" != UTF-8 ]; then
        export LC_ALL=C.UTF-8  # every glibc has it
    fi
}

vex_usage_error() {
    echo "$1" >&2
    usage >&2
    exit 2
}
