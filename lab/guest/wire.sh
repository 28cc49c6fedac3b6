# What goes over the wires: probes, and breaking the wires.

# The first answering hop on cli's way to an address: the router's address outside the tunnel, the server's end inside.
first_hop() {
  on cli ping -n -c 1 -W 5 -t 1 "$1" 2>&1 | sed -n 's/^From \([0-9.]*\).*/\1/p;s/^[0-9]* bytes from \([0-9.]*\).*/\1/p' | head -n 1
}
pings() { on cli ping -n -q -c 1 -W 2 "$1" >/dev/null 2>&1; }

# A silent wire: from now on the router drops everything between the client and the server, without telling either.
silence() {
  configure rtr <<EOF
route add blackhole $SERVER/32
route add blackhole $CLIENT/32
EOF
  baseline rtr
}

# Only GRE is dropped, as many routers at home do it: the control connection works, no PPP frame ever arrives.
block_gre() {
  on rtr ip rule add ipproto gre blackhole
  baseline rtr
}

# tap_wire: from now on the router listens for L2TP in clear, between all hosts.
tap_wire() {
  spawn tap rtr "$cache/bin/wiretap"
  within 30 grep -q listening "$logs/tap.out" || fail "the router does not listen"
}
# assert_nothing_in_clear: it has heard ESP since then, and no L2TP outside it.
assert_nothing_in_clear() {
  signal rtr tap TERM
  within 20 grep -q ^heard "$logs/tap.out" || fail "the router could not listen: $(<"$logs/tap.err")"
  ! grep -q ^clear "$logs/tap.out" || fail "L2TP in clear was on the wire: $(grep -m 1 ^clear "$logs/tap.out")"
  grep -q "^heard [1-9]" "$logs/tap.out" || fail "the router has heard no ESP at all"
  wait_end tap # it is over before it is gone
  baseline rtr
}

# masquerade: the client sits behind the router, which puts its own address and ports into what goes to the server.
masquerade() {
  on rtr nft -f - <<'EOF'
table ip lab {
  chain out {
    type nat hook postrouting priority srcnat
    oifname srv masquerade random
  }
}
EOF
}

# forward_ipsec: the server sits behind the router, which hands on to it what comes from the client for IKE and its ESP; there is
# no other way to it.
forward_ipsec() {
  on rtr nft -f - <<EOF
table ip lab {
  chain in {
    type nat hook prerouting priority dstnat
    iifname cli ip daddr $ROUTER udp dport { 500, 4500 } dnat to $SERVER
  }
  chain through {
    type filter hook forward priority filter
    iifname cli ip daddr $SERVER ct status & dnat == 0 drop
  }
}
EOF
}
