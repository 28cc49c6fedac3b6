#!/bin/bash
# Installs the library alone, builds the example against what was installed, once through the CMake package and once
# through pkg-config, and compares what it prints with the expected files:
# InstalledPackageTest.sh CMAKE BUILD_FOLDER EXAMPLES CXX SANITIZERS EXPECTED_FOLDER
set -euo pipefail
cmake=$1 build=$2 examples=$3 cxx=$4 sanitize=$5 expected=$6
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
flags=()
[ -z "$sanitize" ] || flags=("-fsanitize=$sanitize")

"$cmake" --install "$build" --component cli --prefix "$root/first" >/dev/null
# A tree that was moved is found all the same, and nothing in it leads back to the build.
mv "$root/first" "$root/installed"
if grep -rlI -e "$build" -e "$root/first" "$root/installed"; then
  echo "The files above name the build folder or the prefix." >&2
  exit 1
fi

# Its headers stand in the library's own folder, and include nothing by the names of this project's rooms.
if find "$root/installed/include" -type f ! -path '*/include/vpnctl/cli/*' | grep . ||
  grep -rnE '#include "' "$root/installed/include"; then
  echo "The headers above are not the library's own." >&2
  exit 1
fi

"$cmake" -G Ninja -S "$examples" -B "$root/build" -DCMAKE_PREFIX_PATH="$root/installed" -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_CXX_FLAGS="${flags[*]-}" >"$root/log" || { cat "$root/log" >&2; exit 1; }
"$cmake" --build "$root/build" >"$root/log" || { cat "$root/log" >&2; exit 1; }

pc=$(find "$root/installed" -name vpnctl_cli.pc)
read -ra package < <(PKG_CONFIG_PATH=${pc%/*} pkg-config --cflags --libs vpnctl_cli)
"$cxx" -std=c++20 "${flags[@]}" -o "$root/by-pkg-config" "$examples/copier.cpp" "${package[@]}"

cat >"$root/printer.c" <<'C'
#include <vpnctl/cli/GBPrint.h>
int main(void) {
  gbprintln("%s: %5.1f", "C", 2.5);
  return 0;
}
C
${CC:-cc} -std=c11 -Wall -Wextra -Wpedantic -Werror "${flags[@]}" -o "$root/printer" "$root/printer.c" "${package[@]}"
[ "$("$root/printer")" = "C:   2.5" ]

cat >"$root/settings.plist" <<'PLIST'
{ Copying = { "--output" = "/gr\U00fcn"; "--retries" = 5; }; }
PLIST
cd "$root"
for program in build/copier ./by-pkg-config; do
  "$program" --help | cmp - "$expected/copier-help.txt"
  "$program" --version | cmp - "$expected/copier-version.txt"
  "$program" -c settings.plist --retries=7 -v verify --strict a.txt --b | cmp - "$expected/copier-values.txt"
  status=0
  "$program" --nonsense 2>errors || status=$?
  [ "$status" = 1 ]
  [ "$(cat errors)" = "Unknown command line option --nonsense, try --help!" ]
  status=0
  "$program" -c none.plist 2>errors || status=$?
  [ "$status" = 1 ]
  [ "$(cat errors)" = "copier: none.plist: there is no such file" ]
done
