# A server that negotiates PPP once more while the link is up, its addresses or all of it, and one that falls silent then. Whatever
# happens, nothing goes past the tunnel. Sourced after mangled.sh and past.sh.
through_tunnel() { [[ $(on cli ip -o route get "$ELSEWHERE") == *" dev ppp0 "* ]]; }
has_address_again() { [ "$(grep -c "local  IP address" "$logs/vpnctl.err")" = 2 ]; }
is_ending() { printed_or_over "Terminating PPP connection" || printed "Disconnecting PPP link"; }
start_parts renegotiate restart renegotiate-mute restart-mute
count_past
for part in renegotiate restart; do
  say "$part"
  start_vpnctl
  wait_status "PPP Connected"
  through_tunnel || fail "the link carries nothing"
  start_pinging
  prompt
  within 30 has_address_again || fail "the addresses are not negotiated once more"
  within 10 through_tunnel || fail "everything goes past the link"
  expect_ping "$TUNNEL_SERVER"
  stop_pinging
  nothing_past
  disconnect_usual
  expect_status_lines "${ALL_UP[@]}" "${DOWN[@]}"
done
before=0
for part in renegotiate-mute restart-mute; do
  say "$part"
  start_vpnctl
  wait_status "PPP Connected"
  start_pinging
  prompt
  # It ends by itself, when PPP gives up; what is sent after that goes as before.
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
  before=$(gone_past)
done
