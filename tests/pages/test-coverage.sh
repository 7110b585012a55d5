# shellcheck shell=bash
check() {
    printed "2 of 2 faults" "faults can be planted."
}
