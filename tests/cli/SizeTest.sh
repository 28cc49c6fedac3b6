#!/bin/bash
# A program that only parses carries no property lists: SizeTest.sh OPTIMISED PROGRAM...
# Each program, stripped, has at most 200 KB (where the build is OPTIMISED), does not need expat, and holds nothing of it.
set -euo pipefail
optimised=$1
shift
limit=200000
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
failed=0
for program in "$@"; do
  symbols=$(nm -C "$program")
  if grep -E 'propertyList|XML_|expat' <<<"$symbols"; then
    echo "${program##*/} carries property lists" && failed=1
  fi
  if readelf -d "$program" | grep -E 'NEEDED.*expat'; then
    echo "${program##*/} needs expat" && failed=1
  fi
  strip -o "$folder/stripped" "$program"
  size=$(stat -c %s "$folder/stripped")
  echo "${program##*/}: $size bytes"
  if [ "$optimised" = yes ] && [ "$size" -gt "$limit" ]; then
    echo "${program##*/} has more than $limit bytes" && failed=1
  fi
done
exit $failed
