# The steps of pptp-with-wireguard and l2tp-with-wireguard, after past.sh and write_config.
make_wireguard

say "inside"
wireguard_up
expect_first_hop "$ELSEWHERE" 10.77.0.1
baseline
start_vpnctl
wait_status "PPP Connected"
expect_ping "$BEHIND"
expect_first_hop "$ELSEWHERE" "$TUNNEL_SERVER"
expect_first_hop "$SERVER" 10.77.0.1
disconnect_usual
expect_first_hop "$ELSEWHERE" 10.77.0.1
wireguard_down
baseline cli

say "beside"
start_vpnctl
wait_status "PPP Connected"
wireguard_up
expect_ping "$BEHIND"
expect_ping 10.77.0.1
expect_first_hop "$ELSEWHERE" "$TUNNEL_SERVER"
wireguard_down
expect_ping "$BEHIND"
expect_first_hop "$ELSEWHERE" "$TUNNEL_SERVER"

say "ours first"
wireguard_up
baseline cli
disconnect_usual
expect_first_hop "$ELSEWHERE" 10.77.0.1
wireguard_down
baseline cli
