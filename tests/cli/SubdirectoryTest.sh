#!/bin/bash
# The library as part of somebody's project, and shared: SubdirectoryTest.sh CMAKE SOURCE CXX
set -euo pipefail
cmake=$1 source=$2 cxx=$3
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
logged() { "$@" >"$root/log" 2>&1 || { cat "$root/log" >&2; exit 1; }; }

mkdir "$root/theirs"
cat >"$root/theirs/CMakeLists.txt" <<LISTS
cmake_minimum_required(VERSION 3.25)
project(theirs LANGUAGES C CXX)
add_subdirectory($source library)
add_executable(copier $source/cli/examples/copier.cpp)
target_link_libraries(copier PRIVATE vpnctl::cli)
# What a compiler says of the library's headers is not theirs to mend.
target_compile_options(copier PRIVATE -Wall -Wextra -Werror -Wuseless-cast -Wswitch-enum)
file(GENERATE OUTPUT folders CONTENT "\$<TARGET_PROPERTY:vpnctl_cli,INTERFACE_INCLUDE_DIRECTORIES>\n")
LISTS
logged "$cmake" -G Ninja -S "$root/theirs" -B "$root/build" -DBUILD_SHARED_LIBS=ON -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_BUILD_TYPE=None -DCMAKE_INSTALL_LIBDIR=lib
logged "$cmake" --build "$root/build"
"$root/build/copier" --help >"$root/help"
grep -q -- --retries "$root/help"
# One folder, which holds the library's headers and nothing else.
[ "$(ls "$(cat "$root/build/folders")")" = vpnctl ]

logged "$cmake" --install "$root/build" --prefix "$root/installed"
readelf -d "$root/installed/lib/libvpnctl_cli.so" | grep -q 'SONAME.*\[libvpnctl_cli\.so\.[0-9]*\.[0-9]*\]'
cat >"$root/printer.c" <<'C'
#include <vpnctl/cli/GBPrint.h>
int main(void) {
  gbprintln("%d", 7);
  return 0;
}
C
read -ra package < <(PKG_CONFIG_PATH=$root/installed/lib/pkgconfig pkg-config --cflags --libs vpnctl_cli)
${CC:-cc} -std=c11 -o "$root/printer" "$root/printer.c" "${package[@]}"
[ "$(LD_LIBRARY_PATH=$root/installed/lib "$root/printer")" = 7 ]
readelf -d "$root/printer" | grep -q 'NEEDED.*libvpnctl_cli'
! readelf -d "$root/printer" | grep -E 'NEEDED.*(expat|stdc)' || exit 1
