#!/bin/bash
# What is installed for the completion of shells: each that is here offers the tool's options and files behind them, and the tool knows
# every option that is offered: CompletionTest.sh COMPLETION_FOLDER VPNCTL
set -euo pipefail
scripts=$(readlink -f "$1") tool=$(readlink -f "$2")
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
mkdir a-folder
touch a-file "a b"
failed=0
shells=0

# expect SHELL LINE WORDS, of which each is there, and no other: what may follow LINE, sorted.
expect() {
  local found
  found=$("complete_$1" "$2" | LC_ALL=C sort | tr '\n' ' ')
  [ "$found" = "$3" ] || { echo "$1: '$2' has '$found', not '$3'" && failed=1; }
}

complete_bash() { # LINE, of which the last word is completed, cut at "=" as readline does
  bash --norc -c '
    source "$2/vpnctl.bash"
    read -ra COMP_WORDS <<<"${1//=/ = }"
    [[ $1 == *" " ]] && COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    _vpnctl
    printf "%s\n" "${COMPREPLY[@]}"' bash "$1" "$scripts"
}
expect bash "vpnctl " "--config -c "
expect bash "vpnctl --c" "--config "
expect bash "vpnctl -c " "a b a-file a-folder "
expect bash "vpnctl --config a-fi" "a-file "
expect bash "vpnctl --config=a-fo" "a-folder "
expect bash "vpnctl --config=" "a b a-file a-folder "
shells=$((shells + 1))

if command -v fish >/dev/null; then
  complete_fish() {
    HOME=$folder XDG_CONFIG_HOME=$folder fish --no-config -c 'source $argv[1]/vpnctl.fish; complete -C $argv[2]' -- "$scripts" "$1" | cut -f 1
  }
  expect fish "vpnctl --c" "--config "
  expect fish "vpnctl -c a-fi" "a-file "
  expect fish "vpnctl --config=a-fi" "--config=a-file "
  expect fish "vpnctl a-fi" ""
  shells=$((shells + 1))
fi

if command -v zsh >/dev/null; then
  # What zsh's own helper is asked for.
  asked=$(zsh -f -c '_arguments() { print -rl -- "$@" }; source $1/_vpnctl' zsh "$scripts")
  for line in '(-c --config)-c+[Read the connection from FILE]:FILE:_files' \
    '(-c --config)--config=[Read the connection from FILE]:FILE:_files'; do
    grep -qxF -e "$line" <<<"$asked" || { echo "zsh: no line '$line' in" && echo "$asked" && failed=1; }
  done
  [ "$(head -n 1 "$scripts/_vpnctl")" = "#compdef vpnctl" ] || { echo "zsh does not know whom the file is for" && failed=1; }
  shells=$((shells + 1))
fi

while read -r option; do
  said=$("$tool" "$option" missing 2>&1) && { echo "the tool ends well with $option missing" && failed=1; }
  [[ $said == "error parse config: missing"* ]] || { echo "the tool does not know $option: $said" && failed=1; }
done < <(complete_bash "vpnctl ")
echo "$shells shells"
exit $failed
