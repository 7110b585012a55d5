#!/bin/bash
# What the project's scripts do before they install or build anything: Scripts.sh <directory of the scripts>

scripts=$1
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"
cp -r "$scripts" "$work/scripts"
scripts=$work/scripts

# Whatever a script still calls, it installs nothing here.
mkdir programs
printf '#!/bin/sh\nexit 100\n' >programs/apt-get
# shellcheck disable=SC2016
printf '#!/bin/sh\nexec "$@"\n' >programs/sudo
chmod +x programs/*
export PATH=$work/programs:$PATH

echo "== help"
for script in bench coverage demo lint mutate reproducible soak test; do
    expect 0 "$scripts/$script" --help
    grep -qi '^usage: ' out || fail "the help of $script: $(cat out)"
    [ ! -s err ] || fail "the help of $script is on standard error, too: $(cat err)"
done

echo "== wrong command lines"
while IFS='|' read -r script arguments text; do
    eval "expect 2 \"\$scripts/$script\" $arguments"
    says "$text"
done <<'END'
bench|--none|Unknown option --none.
bench|none|Unknown question none.
coverage|--none|unrecognized arguments: --none
demo|--none|Unknown option --none.
demo|--out|A directory is missing after --out.
demo|one two|More than one text
lint|none|Unknown argument none.
mutate|--none|unrecognized arguments: --none
reproducible|--none|Unknown option --none.
reproducible|one two|More than one directory.
soak|none|Unknown claim none.
soak|.|Unknown claim ..
soak|kills ''|Unknown claim .
soak|../soak.d/kills|Unknown claim ../soak.d/kills.
test|none|Unknown stage none.
END

echo "== packages that cannot be installed"
# shellcheck disable=SC2016
expect 1 bash -euc '. "$1/lib/common.sh"; _vex_install a-package' bash "$scripts"
says 'apt-get failed.'

echo "== CDPATH"
mkdir -p elsewhere/here here
export CDPATH=$work/elsewhere
# shellcheck disable=SC2016
expect 0 bash -euc '. "$1/lib/common.sh"; cd here; pwd' bash "$scripts"
[ "$(cat out)" = "$work/here" ] || fail "CDPATH counts: $(cat out)"

echo "all passed"
