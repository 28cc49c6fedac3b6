# The steps of pptp-network-changes and l2tp-network-changes, after past.sh and write_config.
OTHER=10.$slot.1.7 # another router, on the same wire
on rtr ip addr add $OTHER/24 dev cli
count_past
start_vpnctl
wait_status "PPP Connected"
start_pinging
configure cli <<EOF
route add default via $OTHER metric 5
route del default via $ROUTER
EOF
expect_ping "$BEHIND"
moment && expect_ping "$BEHIND"
stop_pinging
[ "$LOST" -lt 3 ] || fail "$LOST s without an answer"
nothing_past
on cli ip addr add 10.$slot.1.8/24 dev eth0
on cli ip addr del 10.$slot.1.8/24 dev eth0
expect_ping "$BEHIND"

say "the address goes"
began=$EPOCHREALTIME
on cli ip addr del $CLIENT/24 dev eth0
wait_end vpnctl 20
took=$(((${EPOCHREALTIME/./} - ${began/./}) / 1000))
say "it took $took ms"
[ "$took" -lt 3000 ] || fail "it took $took ms" # one second, where starting a process takes none
expect_lost "The network has changed: this machine no longer has the address $CLIENT, from which it spoke to the server"
configure cli <<EOF
addr add $CLIENT/24 dev eth0
route add default via $ROUTER
EOF
kill_server # it was told nothing
