# shellcheck shell=bash
# To be sourced.
#
#   vex_use_utf8_locale   makes the locale of everything started from now on a UTF-8 one: the current one if it is, else
#                         C.UTF-8, which every glibc has

vex_use_utf8_locale() {
    if [ "$(locale charmap 2>/dev/null)" != UTF-8 ]; then
        export LC_ALL=C.UTF-8
    fi
}
