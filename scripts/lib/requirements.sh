# shellcheck shell=bash
# The packages that this project's scripts need.
#
#   vex_require STAGE...   makes sure that the machine has everything that the stages need. Prints the names of missing
#                          packages of Debian or Ubuntu and installs them with apt-get (with sudo unless it runs as
#                          root). Ends the script if something is still missing.
#
# Stages: build, package, demo, test, fuzz, soak, bench, coverage, lint, reproducible.

# One requirement a line: the stages that need it, its package, the function (with its argument) that checks for it,
# and after "#" its name for messages. The functions look for programs and files, not for packages: a compiler from
# elsewhere will do. Packages that every Debian has (marked Essential, such as coreutils, util-linux, gzip, tar and
# libc-bin) are not in the list.
_vex_requirements() {
    cat <<'LIST'
build                       g++                       _vex_has_gxx                    # g++ 12 or newer
build                       cmake                     _vex_has_cmake                  # CMake 3.25 or newer
build                       ninja-build               _vex_has_command ninja          # Ninja
build                       libssl-dev                _vex_has_openssl_headers        # the headers of OpenSSL 3
build                       libcli11-dev              _vex_has_header CLI/CLI.hpp     # CLI11
build                       zlib1g-dev                _vex_has_header zlib.h          # zlib
build                       libp11-kit-dev            _vex_has_pkcs11_header          # the declarations of PKCS #11
build                       default-jdk-headless      _vex_has_jdk                    # a JDK of Java 17.0.3 or newer
build                       libasio-dev               _vex_has_header asio.hpp        # asio, the standalone kind
package,test,reproducible   dpkg-dev                  _vex_has_command dpkg-shlibdeps # dpkg-shlibdeps
package,test,reproducible   file                      _vex_has_command file           # file
package,test,bench,coverage,reproducible python3     _vex_has_command python3        # Python 3
demo,test,bench             openssl                   _vex_has_command openssl        # the openssl command
test                        binutils                  _vex_has_command readelf        # readelf
test                        gnutls-bin                _vex_has_command certtool       # certtool, of GnuTLS
test                        libgnutls28-dev           _vex_has_header gnutls/gnutls.h # the headers of GnuTLS
test,fuzz                   libgtest-dev              _vex_has_header gtest/gtest.h   # GoogleTest
test                        libgmock-dev              _vex_has_header gmock/gmock.h   # GoogleMock
test,bench                  softhsm2                  _vex_has_command softhsm2-util  # SoftHSM 2
test                        opensc                    _vex_has_command pkcs11-tool    # pkcs11-tool
test,bench                  strace                    _vex_has_command strace         # strace
test                        chromium                  _vex_has_chromium               # Chromium
test                        junit5                    _vex_has_junit                  # JUnit 5
test                        libopentest4j-java        _vex_has_jar opentest4j         # JUnit 5, opentest4j
test                        libapiguardian-java       _vex_has_jar apiguardian-api    # JUnit 5, API Guardian
test                        libunivocity-parsers-java _vex_has_jar univocity-parsers  # JUnit 5, univocity-parsers
test,bench                  libbcprov-java            _vex_has_jar bcprov             # Bouncy Castle, provider
test,bench                  libbcpkix-java            _vex_has_jar bcpkix             # Bouncy Castle, CMS
test,bench                  libbcutil-java            _vex_has_jar bcutil             # Bouncy Castle, ASN.1
test                        libpdfbox2-java           _vex_has_jar pdfbox2            # PDFBox 2
test                        xmlsec1                   _vex_has_command xmlsec1        # xmlsec1
test                        python3-jwt               _vex_has_python_module jwt      # PyJWT
test                        python3-cryptography      _vex_has_python_module cryptography # cryptography, for PyJWT
test,soak                   python3-clang             _vex_has_python_module clang.cindex # clang's syntax tree for Python
test                        maven                     _vex_has_command mvn            # Maven
test                        libmaven-compiler-plugin-java _vex_has_maven_plugin maven-compiler-plugin # Maven, compiler plugin
test                        libmaven-resources-plugin-java _vex_has_maven_plugin maven-resources-plugin # Maven, resources plugin
test                        lintian                   _vex_has_command lintian        # lintian
test                        systemd                   _vex_has_systemd                # systemd, systemd-analyze, systemd-socket-activate
test                        pkg-config                _vex_has_command pkg-config     # pkg-config
test                        locales                   _vex_has_locale_source POSIX    # the sources that localedef reads
test                        iproute2                  _vex_has_command ip             # ip, which brings up a network of its own
test                        tzdata                    _vex_has_time_zones            # time zones
test                        xz-utils                  _vex_has_command xz             # xz
test                        procps                    _vex_has_command kill           # kill, as a program
test                        bsdutils                  _vex_has_command script         # script, of util-linux
fuzz,soak                   clang                     _vex_has_command clang++        # clang
fuzz,soak                   libclang-rt-dev           _vex_has_libfuzzer              # libFuzzer and clang's sanitizers
soak,bench                  valgrind                  _vex_has_command valgrind       # valgrind
soak                        gdb                       _vex_has_command gcore          # gdb, for gcore
bench                       libspdlog-dev             _vex_has_header spdlog/spdlog.h # spdlog
bench                       libgoogle-glog-dev        _vex_has_header glog/logging.h  # glog
test,bench                  time                      _vex_has_command time           # GNU time
coverage                    gcovr                     _vex_has_command gcovr          # gcovr
soak,lint,reproducible      git                       _vex_has_command git            # git
reproducible                faketime                  _vex_has_command faketime       # faketime
soak                        debootstrap               _vex_has_command debootstrap    # debootstrap
lint                        clang-format              _vex_has_command clang-format   # clang-format
lint                        clang-tidy                _vex_has_command clang-tidy     # clang-tidy
lint                        shellcheck                _vex_has_command shellcheck     # shellcheck
LIST
}

vex_require() {
    local missing=() names=()
    _vex_find_missing "$@"
    if [ "${#missing[@]}" -eq 0 ]; then
        return
    fi
    _vex_install "${missing[@]}"

    # The installed version may still be too old.
    missing=() names=()
    hash -r
    _vex_find_missing "$@"
    if [ "${#missing[@]}" -gt 0 ]; then
        printf 'Still missing: %s\n' "${names[@]}" >&2
        exit 1
    fi
}

# Fills the caller's arrays "missing" (packages) and "names" (for messages).
_vex_find_missing() {
    local stages package probe name wanted
    while read -r stages package probe; do
        name=${probe##*# }
        probe=${probe%%#*}
        for wanted in "$@"; do
            # $probe is a function with its arguments, so the shell has to split it.
            # shellcheck disable=SC2086
            if [[ ,$stages, = *,$wanted,* && " ${missing[*]} " != *" $package "* ]] && ! $probe; then
                missing+=("$package")
                names+=("$name")
            fi
        done
    done < <(_vex_requirements)
}

_vex_install() {
    local as_root=()
    echo "Installing missing packages with apt-get: $*" >&2
    if ! _vex_has_command apt-get; then
        echo "There is no apt-get here. Install the equivalents of these packages and start again." >&2
        exit 1
    fi
    if [ "$(id -u)" -ne 0 ]; then
        if ! _vex_has_command sudo; then
            echo "There is no sudo here. Run this as root: apt-get install --no-install-recommends $*" >&2
            exit 1
        fi
        as_root=(sudo)
    fi
    # apt-get must not read the script's standard input.
    if ! "${as_root[@]}" apt-get update </dev/null || ! "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y --no-install-recommends "$@" </dev/null; then
        echo "apt-get failed." >&2
        exit 1
    fi
}

# A program, not a builtin of the shell.
_vex_has_command() {
    type -P "$1" >/dev/null
}

# _vex_is_version FOUND LEAST: whether FOUND is a version and at least LEAST.
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
        _vex_is_version "$(javac -version 2>&1 | sed -n 's/^javac //p')" 17.0.3
}

_vex_has_jar() {
    [ -e "/usr/share/java/$1.jar" ]
}

# A plugin in the Maven repository of Debian's packages, which the tests use offline.
_vex_has_maven_plugin() {
    [ -d "/usr/share/maven-repo/org/apache/maven/plugins/$1" ]
}

# A module of Debian's Python, which the tests start by its path.
_vex_has_python_module() {
    /usr/bin/python3 -c "import $1" 2>/dev/null
}

_vex_has_junit() {
    local part
    for part in jupiter-api jupiter-params jupiter-engine platform-commons platform-engine platform-launcher; do
        _vex_has_jar "junit-$part" || return 1
    done
}

# The program that starts as the first process.
_vex_has_systemd() {
    _vex_has_command systemd-analyze && _vex_has_command systemd-socket-activate &&
        { [ -x /usr/lib/systemd/systemd ] || [ -x /lib/systemd/systemd ]; }
}

# An input of "localedef -i". The package libc-bin only has the program.
_vex_has_locale_source() {
    [ -e "/usr/share/i18n/locales/$1" ] || [ -e "/usr/share/i18n/locales/$1.gz" ]
}

_vex_has_time_zones() {
    [ -e /usr/share/zoneinfo/Europe/Berlin ]
}

# Ubuntu has Chromium only as a snap, which apt-get cannot install. The tests that need it are skipped there.
_vex_has_chromium() {
    _vex_has_command chromium || _vex_has_command chromium-browser || grep -qx 'ID=ubuntu' /etc/os-release
}

# _vex_preprocesses OPTION...: whether g++ accepts the directives on standard input.
_vex_preprocesses() {
    _vex_has_command g++ && g++ -E -x c++ "$@" - -o /dev/null 2>/dev/null
}

# _vex_has_header HEADER OPTION...
_vex_has_header() {
    _vex_preprocesses "${@:2}" <<<"#include <$1>"
}

_vex_has_pkcs11_header() {
    _vex_has_header p11-kit/pkcs11.h -I/usr/include/p11-kit-1
}

_vex_has_openssl_headers() {
    _vex_preprocesses <<'DIRECTIVES'
#include <openssl/opensslv.h>
#if OPENSSL_VERSION_MAJOR < 3
#error too old
#endif
DIRECTIVES
}

_vex_has_libfuzzer() {
    local source='extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }'
    _vex_has_command clang++ &&
        echo "$source" | clang++ -fsanitize=fuzzer,address,undefined -x c++ - -o /dev/null 2>/dev/null
}
