#!/bin/bash
# Compiles calls of the typed print functions, of which some must not: GBPrintCompileTest.sh CXX SOURCES
set -uo pipefail
cxx=$1 sources=$2
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
failed=0

# The header is most of the work. GCC takes what was read once; another compiler does not look there.
mkdir "$folder/cli"
"$cxx" -std=c++20 -I"$sources" -x c++-header "$sources/cli/GBPrint.h" -o "$folder/cli/GBPrint.h.gch"

# compiles STATEMENT
compiles() {
  printf '#include "cli/GBPrint.h"\nint main() {\n  const std::string text;\n  const vpnctl::Value value;\n  %s;\n}\n' \
    "$1" >"$folder/main.cpp"
  "$cxx" -std=c++20 -fsyntax-only -I"$folder" -I"$sources" "$folder/main.cpp" 2>"$folder/errors"
}

while IFS= read -r statement; do
  compiles "$statement" || { echo "does not compile: $statement" && cat "$folder/errors" && failed=1; }
done <<'GOOD'
GB::gbprint("%@ %@ %d %s %% %5.1f %n", text, value, 3L, text, 1.5f)
GB::gbprint(GB::RuntimeFormat(text.c_str()), 1)
GOOD

# must_not REASON STATEMENT: without the reason, it is for another reason that it does not compile.
must_not() {
  if compiles "$2"; then
    echo "compiles: $2"
    failed=1
  elif ! grep -q "$1" "$folder/errors"; then
    echo "no word of $1: $2"
    cat "$folder/errors"
    failed=1
  fi
}
must_not theFormatHasMoreConversionsThanArguments 'GB::gbprint("%@ %@", value)'
must_not theFormatHasMoreConversionsThanArguments 'GB::gbprintln("%*d", 3)'
must_not theFormatHasAConversionThatDoesNotTakeItsArgument 'GB::gbprintln("%s", 5)'
must_not theFormatHasAConversionThatDoesNotTakeItsArgument 'GB::gbfprint(stderr, "%2$d %1$d", 1, value)'
must_not "an argument of this type cannot be printed" 'struct Other {}; GB::gbfprintln(stderr, "%@", Other())'
must_not "constant expression" 'GB::gbprint(text.c_str())'
exit $failed
