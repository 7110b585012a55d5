# Page.sh PAGE SCRIPT BLOCKS: see run-page. Sources the page's script, runs the blocks in the directory in this shell,
# and then calls "check", which the script defines. The current directory is the top of the project, as on the pages.
#
# For the scripts:
#   $work, $output   an empty directory, and a file with all that the blocks printed
#   fail, expect, says, printed, verify_as_printed, verify_cms, make_app_store, java_class, run_java
#   page_LANGUAGE FILE   runs a block in this language; the one for java can be replaced, one for sh is not needed
# shellcheck shell=bash
set -euo pipefail

page=$1 page_script=$2 page_blocks=$3
shift 3
page_block="the script" page_status=0

# shellcheck disable=SC2034
source=$PWD page_directory=$(dirname "$page_script")
work=$(mktemp -d)
output=$work/output
page_printed=$work/printed
export HOME=$work/home
mkdir "$HOME" "$work/classes"
touch "$output" "$page_printed"
# The copy has the machine's own log and switch.
rm -f /tmp/PILog.txt /tmp/pipe.log /var/log.ini

exec {page_error}>&2
page_end() {
    local status=$1
    trap - DEBUG EXIT
    if [ "$status" -ne 0 ]; then
        # A block's own standard error is in the file.
        cat "$page_printed" >&"$page_error"
        echo "FAILED: $page, $page_block" >&"$page_error"
    fi
    exit "$status"
}
trap 'page_end $?' EXIT

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# expect STATUS COMMAND...: the files $work/out and $work/err then hold standard output and standard error.
expect() {
    local wanted=$1 status=0
    shift
    "$@" >"$work/out" 2>"$work/err" || status=$?
    [ "$status" -eq "$wanted" ] || fail "exit status $status instead of $wanted: $* ($(cat "$work/err"))"
}

# says TEXT: the last command of "expect" wrote it to standard error.
says() {
    grep -qF -- "$1" "$work/err" || fail "\"$1\" is not in: $(cat "$work/err")"
}

# printed TEXT...: a block printed each of them.
printed() {
    local text
    for text in "$@"; do
        grep -qF -- "$text" "$output" || fail "no block printed \"$text\""
    done
}

# Runs the command that "vexsign --verify-hint" printed.
verify_as_printed() {
    local command
    command=$(sed -n 's/^To verify: //p' "$output")
    [ -n "$command" ] || fail "no block printed how to verify"
    eval "$command"
}

# We are root, and sudo need not be installed.
sudo() {
    local user=root
    if [ "$1" = -u ]; then
        user=$2
        shift 2
    fi
    if [ "$user" = root ]; then
        "$@"
    else
        setpriv --reuid "$user" --regid "$user" --clear-groups env HOME=/nonexistent "$@"
    fi
}

# make_app_store: /etc/app/keys.p12 with the PIN in /etc/app/pin, and its certificate in /etc/app/cert.pem.
make_app_store() {
    mkdir -m 700 /etc/app
    printf 1234 >/etc/app/pin
    chmod 600 /etc/app/pin
    openssl req -x509 -newkey rsa:2048 -nodes -keyout /etc/app/key.pem -out /etc/app/cert.pem -days 30 -subj /CN=app \
        -addext keyUsage=digitalSignature 2>/dev/null
    openssl pkcs12 -export -inkey /etc/app/key.pem -in /etc/app/cert.pem -name app -passout file:/etc/app/pin \
        -out /etc/app/keys.p12
}

# verify_cms CONTENT SIGNATURE [CERTIFICATE]: openssl verifies the detached signature, which is DER or Base64. Without
# the file with the signer's certificate, any will do. $signer is then its subject.
verify_cms() {
    local trust=(-noverify)
    [ "$#" -lt 3 ] || trust=(-CAfile "$3" -partial_chain)
    base64 -d "$2" >"$work/der" 2>/dev/null || cp "$2" "$work/der"
    openssl cms -verify -binary -inform DER -in "$work/der" "${trust[@]}" -content "$1" -signer "$work/signer" \
        -out /dev/null 2>"$work/err" || fail "$2: $(cat "$work/err")"
    # shellcheck disable=SC2034
    signer=$(openssl x509 -in "$work/signer" -noout -subject -nameopt RFC2253)
}

# The page's Java examples: a whole class, or lines of one.
java_class_path=build/release/java/tavclientjni.jar

# java_class FILE NAME: makes a source NAME.java of a block, or of the name of its public class.
java_class() {
    local name
    name=$(sed -n 's/^public .*class \([A-Za-z0-9_]*\).*/\1/p' "$1")
    if [ -n "$name" ]; then
        cp "$1" "$name.java"
    else
        name=$2
        {
            grep '^import ' "$1" || true
            printf 'import %s.*;\n' java.io java.nio.charset java.nio.file java.security java.security.cert java.util \
                vex.client vex.jni
            echo "public class $name {"
            echo "    public static void main(String[] args) throws Exception {"
            grep -v '^import ' "$1"
            echo "    }"
            echo "}"
        } >"$name.java"
    fi
    javac -Xlint:all,-path -Werror -cp "$java_class_path" -d "$work/classes" "$name.java"
    echo "$name"
}

run_java() {
    java --enable-native-access=ALL-UNNAMED -Djava.library.path=build/release/lib \
        -cp "$java_class_path:$work/classes" "$@"
}

page_java() {
    local name
    name=$(java_class "$1" "Lines$((++page_classes))")
    run_java "$name"
}
page_classes=0

# shellcheck disable=SC1090
. "$page_script"

for page_file in "$page_blocks"/*; do
    page_line=${page_file##*-}
    page_block="the ${page_line#*.} block of line ${page_line%.*}"
    echo "== $page_block"
    case $page_file in
        *.sh)
            # "set -e" alone would not notice that the first command of "a && b" fails.
            trap 'page_status=$?; [ "$page_status" -eq 0 ] || page_end "$page_status"' DEBUG
            eval "$(cat "$page_file")" >"$page_printed" 2>&1
            trap - DEBUG
            ;;
        *)
            page_function=page_${page_file##*.}
            declare -F "$page_function" >/dev/null || fail "the page's script has no $page_function"
            "$page_function" "$page_file" >"$page_printed" 2>&1
            ;;
    esac
    tee -a "$output" <"$page_printed"
done

page_block="the check after its blocks"
: >"$page_printed"
echo "== check"
check
