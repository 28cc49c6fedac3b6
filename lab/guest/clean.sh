# "Nothing left behind": snapshots of every host before and after, and the search for secrets.

# baseline [HOST...]: how the hosts are now is how they must be in the end.
baseline() {
  [ $# -gt 0 ] || set -- "${ALL_HOSTS[@]}"
  "$cache/bin/snapshot" "$work/hosts" before "$@"
}

# assert_clean: within two seconds the client is as it was, and when the server has found out, so are the other hosts.
assert_clean() {
  [ -f "$work/hosts/cli/before" ] || return 0
  "$cache/bin/snapshot" "$work/hosts" compare 2000 cli || fail "something was left behind"
  "$cache/bin/snapshot" "$work/hosts" compare 15000 rtr srv out || fail "something was left behind"
}

# assert_clean_since MOMENT [MILLISECONDS]: no later than that (two seconds) after that moment (of $EPOCHREALTIME) the client is as it was.
assert_clean_since() {
  local limit=${2:-2000} passed=$(((${EPOCHREALTIME/./} - ${1/./}) / 1000))
  [ "$passed" -lt "$limit" ] || fail "the check itself began $passed ms later"
  "$cache/bin/snapshot" "$work/hosts" compare "$((limit - passed))" cli || fail "something was left behind"
}

# expect_leak PATTERN...: the check sees differences, and these are among them. For the checks of the check.
expect_leak() {
  local different pattern
  ! different=$("$cache/bin/snapshot" "$work/hosts" compare 0 "${ALL_HOSTS[@]}") || fail "the check did not see what was planted"
  for pattern in "$@"; do
    grep -qE -- "$pattern" <<<"$different" || fail "the check did not see \"$pattern\" but: $different"
  done
}

# assert_over: the tool has ended, whatever it was that the steps asked for.
assert_over() {
  if [ -n "${SPAWNED[vpnctl]:-}" ] && running vpnctl; then fail "the tool still runs at the end of the steps"; fi
}

# The secrets that are looked for: the password and the shared secret, if none are given. In a file, lest the search finds
# itself.
secrets_file() {
  [ $# -gt 0 ] || set -- "$PASSWORD" "$SHARED_SECRET"
  printf '%s\0' "$@" >"$work/secrets"
}

# The search in every process's arguments and environment, and in everything that was written on cli, except the configuration
# that holds secrets on purpose. Answers whether they are nowhere.
secret_not_shown() {
  secrets_file "$@"
  on cli /usr/bin/python3 -S -B "$lab/guest/secrets.py" "$work/secrets" "$work/hosts/cli/layer" "$CONFIG"
}
# The search in the memory of every process of that name. Where there is none, there is no answer: a failure, status 2.
secret_not_in_memory() { # NAME [SECRET]...
  secrets_file "${@:2}"
  on cli "$cache/bin/memory" "$1" "$work/secrets"
}
# The same for the keys of cli's ESP, as its kernel has them now. A zero byte cuts a key; of pieces below eight bytes nothing is looked for.
esp_keys() { on cli ip xfrm state | sed -nE 's/^\s+(enc|auth-trunc) \S+ 0x([0-9a-f]+)\b.*/\2/p'; }
esp_keys_file() {
  local key piece
  for key in $(esp_keys); do
    for piece in $(sed 's/../\\x&/g; s/\\x00/ /g' <<<"$key"); do
      [ ${#piece} -lt 32 ] || printf '%b\0' "$piece"
    done
  done >"$work/secrets"
  [ -s "$work/secrets" ] || fail "the kernel has no keys of ESP"
}
esp_keys_not_in_memory() { # NAME
  esp_keys_file
  on cli "$cache/bin/memory" "$1" "$work/secrets"
}
# Not the tool's memory, which its settings stay in, nor that of pppd and an IKE daemon: what they must know to work, they know.
# While the tool runs there must be a helper to search.
secret_nowhere() {
  local status=0 condition=(--if-any)
  secret_not_shown "$@" || status=1
  if running_now vpnctl; then condition=(); fi
  secrets_file "$@"
  on cli "$cache/bin/memory" "${condition[@]}" vpnctl-helper "$work/secrets" || status=1
  return "$status"
}
assert_not_shown() { secret_not_shown "$@" || fail "the secret can be seen"; }
assert_no_secret() { secret_nowhere "$@" || fail "the secret can be seen"; }
