# The steps of pptp-nothing-past and l2tp-nothing-past, after past.sh and write_config.
give_ipv6
# Somebody else's rule, which leads everything to the router, before the main table is asked.
on cli ip route add default via "$ROUTER" table 50
on cli ip rule add lookup 50
count_past
start_vpnctl
wait_status "PPP Connected"
expect_first_hop "$ELSEWHERE" "$TUNNEL_SERVER"
refused6 "$ELSEWHERE6"
expect_ping "$ROUTER6"
expect_ping "$ROUTER"

say "a rule that comes later"
on cli ip rule add lookup 50
expect_first_hop "$ELSEWHERE" "$TUNNEL_SERVER"
on cli ip rule del pref 0 lookup 50
nothing_past

say "rules that are thrown away"
on cli ip rule del lookup $TABLE
on cli ip -6 rule del lookup $TABLE
within 2 has_rules || fail "the rules do not come back"
expect_sentence "Another program has thrown away routing rules of the connection; they are back."
expect_first_hop "$ELSEWHERE" "$TUNNEL_SERVER"
refused6 "$ELSEWHERE6"

disconnect_usual
expect_first_hop "$ELSEWHERE" "$ROUTER"
expect_ping "$ELSEWHERE6"
