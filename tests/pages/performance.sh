# shellcheck shell=bash
check() {
    printed "Usage: scripts/bench"
}
