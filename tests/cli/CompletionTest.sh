#!/bin/bash
# Has each shell that is here complete command lines with the example's script: CompletionTest.sh PRINT_COMPLETION
set -euo pipefail
print=$(readlink -f "$1")
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
mkdir work work/a-folder
touch work/a-file "work/a b"
failed=0
shells=0
for shell in bash zsh fish; do "$print" $shell >"$shell"; done
if "$print" csh; then echo "csh is no shell that we know" && exit 1; fi

# expect SHELL LINE WORDS, of which each is there, and no other: what may follow LINE, sorted.
expect() {
  local found
  found=$(cd work && "complete_$1" "$2" | sort | tr '\n' ' ')
  [ "$found" = "$3" ] || { echo "$1: '$2' has '$found', not '$3'" && failed=1; }
}

complete_bash() { # LINE, of which the last word is completed, cut at "=" as readline does
  bash --norc -c '
    source ../bash
    read -ra COMP_WORDS <<<"${1//=/ = }"
    [[ $1 == *[\ =] ]] && COMP_WORDS+=("")
    [[ $1 == *= ]] && unset "COMP_WORDS[-1]"
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    _my_tool
    printf "%s\n" "${COMPREPLY[@]}"' bash "$1"
}
expect bash "my-tool st" "start stop "
expect bash "my-tool " "start stop "
expect bash "my-tool --v" "--verbose --version "
expect bash "my-tool --no" "--no-verbose "
expect bash "my-tool --mode " "fast slow very\\ slow "
expect bash "my-tool --mode=s" "slow "
expect bash "my-tool --mode=" "fast slow very\\ slow "
expect bash "my-tool -m f" "fast "
expect bash "my-tool --level st" "start stop "
expect bash "my-tool --mode start s" "start stop "
expect bash "my-tool -v start --f" "--folder "
expect bash "my-tool start --folder " "a-folder "
expect bash "my-tool start --config a" "a b a-file a-folder "
expect bash "my-tool start --port " " "
expect bash "my-tool start a-f" "a-file a-folder "
expect bash "my-tool start --s" " "
expect bash "my-tool --level=1 stop -" "--after --help --level --mode --no-verbose --quiet --verbose --version -a -h -l -m -q -v "
shells=$((shells + 1))

if command -v fish >/dev/null; then
  complete_fish() { HOME=$folder XDG_CONFIG_HOME=$folder fish --no-config -c 'source ../fish; complete -C $argv[1]' -- "$1" | cut -f 1; }
  expect fish "my-tool st" "start stop "
  expect fish "my-tool --no" "--no-verbose "
  expect fish "my-tool --mode " "fast slow very slow "
  expect fish "my-tool --mode=s" "--mode=slow "
  expect fish "my-tool start --fo" "--folder "
  expect fish "my-tool start --folder " "a-folder/ "
  expect fish "my-tool start --config a-fi" "a-file "
  expect fish "my-tool start a-fi" "a-file "
  expect fish "my-tool --fo" ""
  expect fish "my-tool stop --af" "--after "
  expect fish "my-tool start --sec" ""
  shells=$((shells + 1))
fi

if command -v zsh >/dev/null; then
  # What zsh's own helpers are asked for: one line for each argument.
  asked=$(zsh -f -c '
    compdef() { print -r -- "compdef $*" }
    _arguments() { print -rl -- "$@" }
    source ./zsh
    _my_tool
    _my_tool_start')
  grepped() { grep -qxF -e "$1" <<<"$asked" || { echo "zsh: no line '$1' in" && echo "$asked" && failed=1; }; }
  grepped "compdef _my_tool my-tool"
  grepped "(-q --quiet)--quiet[Say nothing]"
  grepped "(-v --verbose --no-verbose)--no-verbose[Say what is done]"
  grepped "(-m --mode)-m+[How it is done, in a sentence that is too long for what is left of the line]:MODE:(fast slow very\\ slow)"
  grepped "(--folder)--folder=[Where it \\[it's\\] is\\: here]:FOLDER:_files -/"
  grepped "1: :->command"
  grepped "*: :_files"
  # Its own words for a whole line, as a terminal gets them. What is typed before the line editor runs is the terminal's own
  # to edit, so each waits for the other; the limit is for what hangs.
  complete_zsh() {
    (cd work && ZDOTDIR=$folder timeout 120 zsh -f ../drive "$1")
  }
  cat >.zshrc <<'ZSHRC'
PROMPT=
autoload -Uz compinit
compinit -D -u
source ../zsh
compadd() {
  local -a shown
  builtin compadd -O shown "$@"
  print -rl -- "${shown[@]/#/WORD:}"
  builtin compadd "$@"
}
zle-line-init() { print READY }
zle -N zle-line-init
complete-and-tell() { zle complete-word; print DONE }
zle -N complete-and-tell
bindkey "^I" complete-and-tell
ZSHRC
  cat >drive <<'DRIVE'
zmodload zsh/zpty
zpty z zsh -d -i
until [[ $line == *READY* ]]; do zpty -r z line || exit 1; done
zpty -n -w z "$1"$'\t'
until [[ $line == *DONE* ]]; do
  zpty -r z line || exit 1
  line=${line//$'\r'/}
  [[ $line == *WORD:* ]] && print -r -- "${${line##*WORD:}%%$'\n'*}"
done
exit 0
DRIVE
  for line in "my-tool st:start stop" "my-tool start --fo:--folder"; do
    found=$(complete_zsh "${line%%:*}" | sort -u | tr '\n' ' ') || { echo "zsh: '${line%%:*}' has no end" && failed=1; }
    [[ " $found" == *" ${line#*:} "* ]] || { echo "zsh: '${line%%:*}' has '$found'" && failed=1; }
  done
  shells=$((shells + 1))
fi
echo "$shells shells"
exit $failed
