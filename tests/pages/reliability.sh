# shellcheck shell=bash
# Packages that only other claims need may be missing, and nothing can be installed here.
sed -i 's/^vex_require build test soak$/vex_require build test/' scripts/soak
grep -qx 'vex_require build test' scripts/soak
# A short form, to check the commands. Other tests check the claim.
export VEX_TEST_KILLS_CALLS=1 VEX_TEST_KILLS_TIMES=1

check() {
    printed "Usage: scripts/soak" "VEX_TEST_SEED=20261121" "==== kills held"
}
