# What goes past the tunnel, and other ways that a client's packets may take. Sourced by the scenarios that need it.

ELSEWHERE6=fd01:$slot::2
ROUTER6=fd00:$slot::1

# give_ipv6: the client has an IPv6 network and a default route, and reaches elsewhere over it.
give_ipv6() {
  on rtr /bin/sh -c 'echo 1 >/proc/sys/net/ipv6/conf/all/forwarding'
  configure rtr <<EOF
addr add $ROUTER6/64 dev cli nodad
addr add fd01:$slot::1/64 dev out nodad
EOF
  configure out <<EOF
addr add $ELSEWHERE6/64 dev eth0 nodad
route add default via fd01:$slot::1
EOF
  configure cli <<EOF
addr add fd00:$slot::2/64 dev eth0 nodad
route add default via $ROUTER6
EOF
  expect_ping "$ELSEWHERE6"
}

# From now on the router counts what the client sends elsewhere without a tunnel; nothing_past: that was nothing.
count_past() {
  on rtr nft -f - <<EOF
table inet past {
  counter elsewhere {}
  chain in {
    type filter hook prerouting priority -300
    iifname cli ip daddr $ELSEWHERE counter name elsewhere
    iifname cli ip6 daddr $ELSEWHERE6 counter name elsewhere
  }
}
EOF
  baseline rtr
}
gone_past() { on rtr nft list counter inet past elsewhere | sed -n 's/.*packets \([0-9]*\) .*/\1/p'; }
nothing_past() {
  local count
  count=$(gone_past)
  [ "$count" = "${1:-0}" ] || fail "$count packets went past the tunnel"
  say "nothing went past the tunnel"
}

# After prompt, a server that ends it: until the tool begins to end, within 90 s, nothing goes past. What is sent after that goes as
# before the connection.
is_ending() { printed_or_over "Terminating PPP connection" || printed "Disconnecting PPP link"; }
ends_with_nothing_past() { # COUNT, as gone_past said it while the link was up
  local past=$1 count end=$((SECONDS + 90))
  while :; do
    count=$(gone_past)
    ! is_ending || break
    past=$count
    [ "$SECONDS" -lt "$end" ] || fail "it does not end"
  done
  expect_exit 0
  stop_pinging
  [ "$past" = "$1" ] || fail "$((past - $1)) packets went past the tunnel"
}

# refused6 ADDRESS: IPv6 to it is refused, and that at once.
refused6() {
  local said
  said=$(on cli ping -n -q -c 1 -W 5 "$1" 2>&1) && fail "$1 answers"
  [[ $said == *"No route to host"* || $said == *unreachable* ]] || fail "$1 is not refused at once: $said"
}

# Pings elsewhere, 20 a second, until stop_pinging; then LOST is how many seconds' worth of them got no answer.
start_pinging() {
  spawn pinging cli stdbuf -oL ping -n -i 0.05 "$ELSEWHERE"
  # It looks for a route once, and must have found one before the server is asked to take it away.
  within 30 grep -q "^PING" "$logs/pinging.out" || fail "the pings do not begin"
}
stop_pinging() {
  local sent got
  signal cli pinging INT
  wait_end pinging
  read -r sent got < <(sed -n 's/^\([0-9]*\) packets transmitted, \([0-9]*\) received.*/\1 \2/p' "$logs/pinging.out")
  LOST=$(((sent - got) / 20))
  say "pings: $got answers to $sent, $LOST s without"
}

# Its own lines about this machine's rules: the table of the first link.
rules() { on cli ip rule; }
TABLE=7001
has_rules() { [[ $(rules) == *"lookup $TABLE"* ]]; }

# WireGuard between the client and the router, as wg-quick sets it up for a peer that may carry everything.
make_wireguard() {
  local host
  for host in cli rtr; do
    on "$host" /bin/sh -c 'umask 077; wg genkey | tee /root/wg.key | wg pubkey >/root/wg.pub'
    on "$host" ip link add wg0 type wireguard
  done
  on rtr wg set wg0 private-key /root/wg.key listen-port 51820 peer "$(<"$(root_of cli)/root/wg.pub")" allowed-ips 10.77.0.2/32
  on cli wg set wg0 private-key /root/wg.key fwmark 51820 peer "$(<"$(root_of rtr)/root/wg.pub")" allowed-ips 0.0.0.0/0 \
    endpoint "$ROUTER:51820"
  configure rtr <<EOF
addr add 10.77.0.1/24 dev wg0
link set wg0 up
EOF
  rm "$(root_of cli)/root/wg.key" "$(root_of rtr)/root/wg.key"
}
wireguard_up() {
  configure cli <<EOF
addr add 10.77.0.2/24 dev wg0
link set wg0 up
route add default dev wg0 table 51820
rule add not fwmark 51820 table 51820
rule add table main suppress_prefixlength 0
EOF
}
wireguard_down() {
  configure cli <<EOF
rule del not fwmark 51820 table 51820
rule del table main suppress_prefixlength 0
addr del 10.77.0.2/24 dev wg0
link set wg0 down
EOF
}
