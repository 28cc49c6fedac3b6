#!/bin/bash
# What is installed for the completion of a program: each shell that is here offers its options, and it knows all that are
# offered: CompletionTest.sh PRINT_COMPLETION PROGRAM
set -euo pipefail
print=$(readlink -f "$1") program=$(readlink -f "$2")
name=$(basename "$program")
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
for shell in bash zsh fish; do "$print" $shell >"$shell"; done
if "$print" csh; then echo "csh is no shell that we know" && exit 1; fi
mkdir work
touch work/office.conf
failed=0
shells=0

# expect SHELL LINE WORDS, of which each is there, and no other: what may follow LINE, sorted.
expect() {
  local found
  found=$(cd work && "complete_$1" "$2" | LC_ALL=C sort | tr '\n' ' ')
  [ "$found" = "$3" ] || { echo "$1: '$2' has '$found', not '$3'" && failed=1; }
}

complete_bash() {
  bash --norc -c '
    source ../bash
    read -ra COMP_WORDS <<<"$1"
    [[ $1 == *" " ]] && COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    "_${2//-/_}"
    printf "%s\n" "${COMPREPLY[@]}"' bash "$1" "$name"
}
# What every shell offers for the beginning of some long options.
case $name in
  vpnctl-run) begun=--reconnect- offered="--reconnect-limit --reconnect-pause " negated="--no-progress " files="-c --up" ;;
  vpnctl-doctor) begun=--co offered="--color --config " negated="--no-color " files=-c ;;
esac
expect bash "$name $begun" "$offered"
expect bash "$name --no" "$negated"
for option in $files; do expect bash "$name $option o" "office.conf "; done
shells=$((shells + 1))
while read -r option; do
  said=$("$program" "$option" 2>&1) || true
  [[ $said != *"there is no option"* ]] || { echo "the program does not know $option: $said" && failed=1; }
done < <(cd work && complete_bash "$name -")
[[ $("$program" --bogus 2>&1) == *"there is no option"* ]] || { echo "the program knows --bogus" && failed=1; }

if command -v fish >/dev/null; then
  complete_fish() { HOME=$folder XDG_CONFIG_HOME=$folder fish --no-config -c 'source ../fish; complete -C $argv[1]' -- "$1" | cut -f 1; }
  expect fish "$name $begun" "$offered"
  shells=$((shells + 1))
fi
if command -v zsh >/dev/null; then
  zsh -n zsh || { echo "zsh cannot read its file" && failed=1; }
  [ "$(head -n 1 zsh)" = "#compdef $name" ] || { echo "zsh does not know whom the file is for" && failed=1; }
  shells=$((shells + 1))
fi
echo "$shells shells"
exit $failed
