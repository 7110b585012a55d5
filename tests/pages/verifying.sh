# shellcheck shell=bash disable=SC2154
PATH=$source/build/release/bin:$PATH
cd "$work" || exit
printf 'I owe you 100 euros.' >letter.txt

check() {
    printed "letter.p7s: the signature is good"
    printed "letter.p7m: the signature is good, but whose certificate it is was not checked"
    verify_cms letter.txt letter.p7s
}
