# A server that negotiates anew, falls silent, gives another address, says nonsense, in any order, to one vpnctl after another. While
# a link is up, and until it ends, nothing goes past the tunnel. Sourced after mangled.sh and past.sh. How often stands in the
# scenario's file "sequences" (default 3): copy the folder elsewhere for a long run, with a "deadline" of its own.
is_ending() { printed_or_over "Terminating PPP connection" || printed "Disconnecting PPP link"; }
sequences=$(cat "$folder/sequences" 2>/dev/null || echo 3)
start_parts "wild 1"
count_past
for ((sequence = 1; sequence <= sequences; ++sequence)); do
  say "sequence $sequence"
  start_vpnctl
  wait_status "PPP Connected"
  before=$(gone_past) past=$before
  start_pinging
  prompt
  end=$((SECONDS + 90))
  while :; do
    count=$(gone_past)
    ! is_ending || break
    past=$count
    [ "$SECONDS" -lt "$end" ] || fail "it does not end"
  done
  expect_exit 0
  stop_pinging
  [ "$past" = "$before" ] || fail "$((past - before)) packets went past the tunnel"
done
