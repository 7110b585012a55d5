#!/bin/sh
# Inspects the two built libraries: what they need, what they export, how they are hardened.
#
#   CheckLibraries.sh <libTAVClientJNI.so> <libVEXClientTKDll64.so> <run path of the bridge>
#
# Prints every difference; exit status 1 when there is one.
set -u
export LC_ALL=C

bridge=$1
toolkit=$2
run_path=$3

bridge_needs='
libVEXClientTKDll64.so
libpthread.so.0
libstdc++.so.6
libgcc_s.so.1
libc.so.6'

natives='
Java_vex_jni_TAVClientJNI_AddFilter
Java_vex_jni_TAVClientJNI_ClearFilter
Java_vex_jni_TAVClientJNI_Finalize
Java_vex_jni_TAVClientJNI_GetCertList
Java_vex_jni_TAVClientJNI_GetLastError
Java_vex_jni_TAVClientJNI_GetLastErrorMessage
Java_vex_jni_TAVClientJNI_GetSignCert
Java_vex_jni_TAVClientJNI_GetSignVersion
Java_vex_jni_TAVClientJNI_Initialize
Java_vex_jni_TAVClientJNI_P1Sign
Java_vex_jni_TAVClientJNI_P1SignString
Java_vex_jni_TAVClientJNI_P7Sign
Java_vex_jni_TAVClientJNI_P7SignString
Java_vex_jni_TAVClientJNI_SetChooseSingleCert
Java_vex_jni_TAVClientJNI_SetDigestAlg'

bridge_exports="$natives
_Z10stoJstringP7JNIEnv_PKc
_Z16JstringToWindowsB5cxx11P7JNIEnv_P8_jstring
_Z16WindowsToJstringP7JNIEnv_RKNSt7__cxx1112basic_stringIwSt11char_traitsIwESaIwEEE
_Z11pv_init_logv
_Z9pv_uninitP8_IO_FILE
pv_log"

bridge_functions="$natives
JstringToWindows[abi:cxx11](JNIEnv_*, _jstring*)
WindowsToJstring(JNIEnv_*, std::__cxx11::basic_string<wchar_t, std::char_traits<wchar_t>, std::allocator<wchar_t> > const&)
pv_init_log()
pv_log
pv_uninit(_IO_FILE*)
stoJstring(JNIEnv_*, char const*)"

toolkit_exports='
VCTK_AddFilter
VCTK_CallQueueEnable
VCTK_ClearFilter
VCTK_Finalize
VCTK_GetCertList
VCTK_GetLastError
VCTK_GetLastErrorMessage
VCTK_GetP1SignResult
VCTK_GetP7SignResult
VCTK_GetSignCert
VCTK_Initialize
VCTK_P1Sign
VCTK_P7Sign
VCTK_SetChooseSingleCert
VCTK_SetDigestAlg
CloseHandle
FlushFileBuffers
GetFileSizeEx
GetLastError
GetPrivateProfileIntA
GetProcessHeap
GetTickCount
HeapAlloc
HeapFree
HeapReAlloc
HeapSize
MultiByteToWideChar
PathIsDirectoryW
PathRemoveFileSpecW
ReadFile
SHCreateDirectoryExW
SetEndOfFile
SetFilePointerEx
VexCreateFile
WideCharToMultiByte
WriteFile
lstrlenW
memcpy_x
wcscpy_s'

failures=0

fail() {
    printf '%s\n' "$*" >&2
    failures=$((failures + 1))
}

# expect <what> <expected lines> <lines found>: empty lines do not count.
expect() {
    expected=$(printf '%s\n' "$2" | sed '/^$/d')
    found=$(printf '%s\n' "$3" | sed '/^$/d')
    if [ "$expected" != "$found" ]; then
        fail "$1
--- expected
$expected
--- found
$found"
    fi
}

# Prints the values in brackets of the dynamic section's entries of a kind (a regular expression).
dynamic() { readelf -dW "$1" | sed -nE "s/^.*\(($2)\).*\[(.*)\]\$/\2/p"; }

# Prints the value of an entry without brackets in the dynamic section that readelf printed.
entry() { printf '%s\n' "$1" | sed -nE "s/^.*\(($2)\) *//p"; }

# Every symbol that others can bind to: global, weak and unique ones, functions and data.
exports() {
    readelf --dyn-syms -W "$1" |
        awk '$1 ~ /^[0-9]+:$/ && $7 != "UND" && $5 != "LOCAL" && $6 != "HIDDEN" && $6 != "INTERNAL" { print $8 }' |
        sort
}

needs_symbol() { readelf --dyn-syms -W "$1" | awk '$7 == "UND" { print $8 }' | grep >/dev/null "^$2\(@\|\$\)"; }

sorted() { printf '%s\n' "$1" | sort; }

expect "$bridge: needed libraries" "$bridge_needs" "$(dynamic "$bridge" NEEDED)"
expect "$bridge: run path entries" "$run_path" "$(dynamic "$bridge" 'RPATH|RUNPATH' | tr ':' '\n')"
expect "$bridge: exported symbols" "$(sorted "$bridge_exports")" "$(exports "$bridge")"
expect "$bridge: exported functions" "$(sorted "$bridge_functions")" "$(exports "$bridge" | c++filt | sort)"
expect "$toolkit: soname" 'libVEXClientTKDll64.so' "$(dynamic "$toolkit" SONAME)"
expect "$toolkit: exported symbols" "$(sorted "$toolkit_exports")" "$(exports "$toolkit")"

for library in "$bridge" "$toolkit"; do
    section=$(readelf -dW "$library")
    segments=$(readelf -lW "$library")

    case $(entry "$section" FLAGS) in *BIND_NOW*) ;; *) fail "$library: not bound at load time (FLAGS)" ;; esac
    case " $(entry "$section" FLAGS_1) " in *' NOW '*) ;; *) fail "$library: not bound at load time (FLAGS_1)" ;; esac
    case $(entry "$section" FLAGS_1) in *NODELETE*) ;; *) fail "$library: not marked to stay loaded" ;; esac
    case $section in *TEXTREL*) fail "$library: relocations in its code" ;; esac
    case $segments in *GNU_RELRO*) ;; *) fail "$library: no segment made read-only after relocation" ;; esac
    expect "$library: flags of the stack" 'RW' "$(printf '%s\n' "$segments" | awk '$1 == "GNU_STACK" { print $7 }')"
    needs_symbol "$library" __stack_chk_fail || fail "$library: built without stack protector"
done

[ "$failures" -eq 0 ]
