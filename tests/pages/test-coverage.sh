# shellcheck shell=bash
check() {
    printed "usage: mutate"
}
