# A scripted peer that says what it should not, one way after another, to one vpnctl after another on the same hosts. Sourced by the
# scenarios that need it, after write_config. What the ways are stands in guest/peer.py and guest/l2tp_peer.py.

case $PROTOCOL in
  pptp) PEER=peer ALL_UP=("${UP[@]}") ;;
  l2tp) PEER=l2tp-peer ALL_UP=("${UP_L2TP[@]}") ;;
esac

# each COMMAND ROW...: a peer plays the rows in turn, each "MESSAGE HOW...|PATTERN"; COMMAND is what holds, and gets the pattern.
each() {
  local holds=$1 row parts=()
  shift
  for row in "$@"; do parts+=("mangle ${row%%|*}"); done
  start_parts "${parts[@]}"
  for row in "$@"; do
    say "mangled: ${row%%|*}"
    start_vpnctl
    "$holds" "${row#*|}"
    assert_clean_since "$EPOCHREALTIME"
  done
}
start_parts() {
  if [ "$PROTOCOL" = pptp ]; then start_peer "$@"; else start_l2tp_peer "$@"; fi
  answered=0
}

# prompt: the peer says what its part keeps for a link that is up.
prompt() {
  wait_status "PPP Connected"
  signal srv "$PEER" USR1
}

# The link comes up in spite of it, bears what it hears then, and ends as always.
comes_up() {
  prompt
  answered=$((answered + 1))
  within 30 has_answered "$answered" || fail "the client does not answer any more"
  expect_ping "$TUNNEL_SERVER"
  disconnect_usual
  expect_status_lines "${ALL_UP[@]}" "${DOWN[@]}"
}
has_answered() { [ "$(grep -c ^answered "$logs/$PEER.out")" -ge "$1" ]; }

# no_call PATTERN: the call does not come up, and the sentence about the server says why.
no_call() {
  expect_exit 0
  expect_tunnel_failure "The ${PROTOCOL^^} server $SERVER $1"
}

# is_lost PATTERN: the link was up and is gone, and the sentence about the server says why.
is_lost() {
  prompt
  expect_lost "The ${PROTOCOL^^} server $SERVER $1"
}

# no_echo: the other end of PPP does not answer any more: cause 15.
no_echo() {
  expect_exit 0
  expect_lines_in_order "PPP Connected" "Disconnecting PPP link" "$(last_cause 15)" "PPP Network connection disconnected" "Exit."
  expect_sentence "The server no longer answers"
}
