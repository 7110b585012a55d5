# shellcheck shell=bash
# What this project's scripts need on a machine, and how to get it. To be sourced by scripts that run under
# "set -euo pipefail".
#
#   vex_require STAGE...   makes sure that everything the stages need is there; installs missing packages of Debian or
#                          Ubuntu with apt-get (with sudo for anyone but root) after saying which. Asks and installs
#                          nothing when all is there. Ends the script when something is missing all the same.
#
# Stages: build, package, demo, test, fuzz, soak, bench, coverage, lint.

# One requirement a line: its stage, its package, the function (and its arguments) that says whether it is there, and
# after a "#" what it is called when it is missing. Not only packages count: a compiler from elsewhere will do. What
# every Debian has (packages marked Essential, such as coreutils, util-linux, gzip, tar and libc-bin) is not listed.
_vex_requirements() {
    cat <<'LIST'
build    g++                   _vex_has_gxx                                 # g++ 12 or newer
build    cmake                 _vex_has_cmake                               # CMake 3.25 or newer
build    ninja-build           _vex_has_command ninja                       # Ninja
build    libssl-dev            _vex_has_openssl_headers                     # the headers of OpenSSL 3
build    libcli11-dev          _vex_has_header CLI/CLI.hpp                  # CLI11
build    libp11-kit-dev        _vex_has_pkcs11_header                       # the declarations of PKCS #11
build    default-jdk-headless  _vex_has_jdk                                 # a JDK of Java 17 or newer
build    libasio-dev           _vex_has_header asio.hpp                     # asio, the standalone kind
package  dpkg-dev              _vex_has_command dpkg-shlibdeps              # dpkg-shlibdeps
package  file                  _vex_has_command file                        # file
package  python3               _vex_has_command python3                     # Python 3
demo     openssl               _vex_has_command openssl                     # the openssl command
test     openssl               _vex_has_command openssl                     # the openssl command
test     binutils              _vex_has_command readelf                     # readelf
test     libgtest-dev          _vex_has_header gtest/gtest.h                # GoogleTest
test     libgmock-dev          _vex_has_header gmock/gmock.h                # GoogleMock
test     softhsm2              _vex_has_command softhsm2-util               # SoftHSM 2
test     opensc                _vex_has_command pkcs11-tool                 # pkcs11-tool
test     strace                _vex_has_command strace                      # strace
test     python3               _vex_has_command python3                     # Python 3
test     chromium              _vex_has_chromium                            # Chromium
test     junit5                _vex_has_junit                               # JUnit 5
test     libopentest4j-java    _vex_has_jar opentest4j                      # JUnit 5, opentest4j
test     libapiguardian-java   _vex_has_jar apiguardian-api                 # JUnit 5, API Guardian
test     libunivocity-parsers-java _vex_has_jar univocity-parsers           # JUnit 5, univocity-parsers
test     libbcprov-java        _vex_has_jar bcprov                          # Bouncy Castle, provider
test     libbcpkix-java        _vex_has_jar bcpkix                          # Bouncy Castle, CMS
test     libbcutil-java        _vex_has_jar bcutil                          # Bouncy Castle, ASN.1
test     dpkg-dev              _vex_has_command dpkg-shlibdeps              # dpkg-shlibdeps
test     file                  _vex_has_command file                        # file
test     lintian               _vex_has_command lintian                     # lintian
test     pkg-config            _vex_has_command pkg-config                  # pkg-config
test     locales               _vex_has_locale_source POSIX                 # the sources that localedef reads
test     procps                _vex_has_command kill                        # kill, as a program
test     bsdutils              _vex_has_command script                      # script, of util-linux
fuzz     clang                 _vex_has_command clang++                     # clang
fuzz     libclang-rt-dev       _vex_has_libfuzzer                           # libFuzzer and clang's sanitizers
fuzz     libgtest-dev          _vex_has_header gtest/gtest.h                # GoogleTest
soak     clang                 _vex_has_command clang++                     # clang
soak     libclang-rt-dev       _vex_has_libfuzzer                           # libFuzzer and clang's sanitizers
soak     valgrind              _vex_has_command valgrind                    # valgrind
soak     gdb                   _vex_has_command gcore                       # gdb, for gcore
bench    libspdlog-dev         _vex_has_header spdlog/spdlog.h              # spdlog
bench    libgoogle-glog-dev    _vex_has_header glog/logging.h               # glog
bench    libbcprov-java        _vex_has_jar bcprov                          # Bouncy Castle, provider
bench    libbcpkix-java        _vex_has_jar bcpkix                          # Bouncy Castle, CMS
bench    libbcutil-java        _vex_has_jar bcutil                          # Bouncy Castle, ASN.1
bench    softhsm2              _vex_has_command softhsm2-util               # SoftHSM 2
bench    strace                _vex_has_command strace                      # strace
bench    valgrind              _vex_has_command valgrind                    # valgrind
bench    python3               _vex_has_command python3                     # Python 3
bench    time                  _vex_has_command time                        # GNU time
coverage gcovr                 _vex_has_command gcovr                       # gcovr
coverage python3               _vex_has_command python3                     # Python 3
lint     git                   _vex_has_command git                         # git
lint     clang-format          _vex_has_command clang-format                # clang-format
lint     clang-tidy            _vex_has_command clang-tidy                  # clang-tidy
lint     shellcheck            _vex_has_command shellcheck                  # shellcheck
LIST
}

vex_require() {
    local missing=() names=()
    _vex_find_missing "$@"
    if [ "${#missing[@]}" -eq 0 ]; then
        return
    fi
    _vex_install "${missing[@]}"

    # What is installed now may still be too old.
    missing=() names=()
    hash -r
    _vex_find_missing "$@"
    if [ "${#missing[@]}" -gt 0 ]; then
        printf 'Still missing: %s\n' "${names[@]}" >&2
        exit 1
    fi
}

# Fills the caller's arrays missing (packages) and names (what they are for).
_vex_find_missing() {
    local stage package probe name wanted
    while read -r stage package probe; do
        name=${probe##*# }
        probe=${probe%%#*}
        for wanted in "$@"; do
            # The probe is a function name and its argument, to be split.
            # shellcheck disable=SC2086
            if [ "$stage" = "$wanted" ] && [[ " ${missing[*]} " != *" $package "* ]] && ! $probe; then
                missing+=("$package")
                names+=("$name")
            fi
        done
    done < <(_vex_requirements)
}

_vex_install() {
    local as_root=()
    echo "Missing, to be installed with apt-get: $*" >&2
    if ! _vex_has_command apt-get; then
        echo "There is no apt-get here. Please install what the above stands for." >&2
        exit 1
    fi
    if [ "$(id -u)" -ne 0 ]; then
        if ! _vex_has_command sudo; then
            echo "There is no sudo here. Please run as root: apt-get install --no-install-recommends $*" >&2
            exit 1
        fi
        as_root=(sudo)
    fi
    # Standard input is not theirs: the script's own may be what is to be signed.
    "${as_root[@]}" apt-get update </dev/null
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "$@" </dev/null
}

# A program, which others than this shell can start as well.
_vex_has_command() {
    type -P "$1" >/dev/null
}

# _vex_is_version FOUND LEAST: FOUND is a version and not older than LEAST.
_vex_is_version() {
    [ -n "$1" ] && [ "$(printf '%s\n%s\n' "$2" "$1" | sort -V | head -n 1)" = "$2" ]
}

_vex_has_gxx() {
    _vex_has_command g++ && _vex_is_version "$(g++ -dumpfullversion)" 12
}

_vex_has_cmake() {
    _vex_has_command cmake && _vex_is_version "$(cmake --version | sed -n 's/^cmake version //p')" 3.25
}

_vex_has_jdk() {
    _vex_has_command java && _vex_has_command javac &&
        _vex_is_version "$(javac -version 2>&1 | sed -n 's/^javac //p')" 17
}

_vex_has_jar() {
    [ -e "/usr/share/java/$1.jar" ]
}

_vex_has_junit() {
    local part
    for part in jupiter-api jupiter-params jupiter-engine platform-commons platform-engine platform-launcher; do
        _vex_has_jar "junit-$part" || return 1
    done
}

# What "localedef -i" takes; libc-bin has the program alone.
_vex_has_locale_source() {
    [ -e "/usr/share/i18n/locales/$1" ] || [ -e "/usr/share/i18n/locales/$1.gz" ]
}

# Ubuntu has it as a snap only, which apt-get cannot install; the tests that need it are skipped there.
_vex_has_chromium() {
    _vex_has_command chromium || _vex_has_command chromium-browser || grep -qx 'ID=ubuntu' /etc/os-release
}

_vex_has_header() {
    _vex_has_command g++ && echo "#include <$1>" | g++ -E -x c++ - -o /dev/null 2>/dev/null
}

_vex_has_pkcs11_header() {
    _vex_has_command g++ &&
        echo "#include <p11-kit/pkcs11.h>" | g++ -E -x c++ -I/usr/include/p11-kit-1 - -o /dev/null 2>/dev/null
}

_vex_has_openssl_headers() {
    local source='#include <openssl/opensslv.h>
#if OPENSSL_VERSION_MAJOR < 3
#error too old
#endif'
    _vex_has_command g++ && echo "$source" | g++ -E -x c++ - -o /dev/null 2>/dev/null
}

_vex_has_libfuzzer() {
    local source='extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }'
    _vex_has_command clang++ &&
        echo "$source" | clang++ -fsanitize=fuzzer,address,undefined -x c++ - -o /dev/null 2>/dev/null
}
