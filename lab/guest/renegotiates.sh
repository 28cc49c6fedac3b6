# A server that negotiates PPP once more while the link is up, its addresses or all of it, and one that falls silent then. Whatever
# happens, nothing goes past the tunnel. Sourced after mangled.sh and past.sh.
through_tunnel() { [[ $(on cli ip -o route get "$ELSEWHERE") == *" dev ppp0 "* ]]; }
has_address_again() { [ "$(grep -c "local  IP address" "$logs/vpnctl.err")" = 2 ]; }
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
for part in renegotiate-mute restart-mute; do
  say "$part"
  start_vpnctl
  wait_status "PPP Connected"
  before=$(gone_past)
  start_pinging
  prompt
  ends_with_nothing_past "$before"
done
