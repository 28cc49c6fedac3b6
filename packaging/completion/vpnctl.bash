# bash completion for vpnctl

_vpnctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  # bash splits "--config=file" into three words, of which "=" is one.
  if [[ $current == = ]]; then
    current=
  elif [[ $previous == = ]]; then
    previous=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  COMPREPLY=()
  local word
  case $previous in
    -c | --config)
      compopt -o filenames 2>/dev/null
      while IFS= read -r word; do COMPREPLY+=("$word"); done < <(compgen -f -- "$current") ;;
    *)
      while IFS= read -r word; do COMPREPLY+=("$word"); done < <(compgen -W "-c --config" -- "$current") ;;
  esac
}

complete -F _vpnctl vpnctl
