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
