# A second server with an account of its own, on out, and a second vpnctl on cli. Sourced after dns.sh.

SECOND=$ELSEWHERE          # where the second server listens
SECOND_TUNNEL=10.98.0.1    # its end of the tunnel
SECOND_BEHIND=192.168.78.1 # a network behind it, with a name server
SECOND_INSIDE=192.0.2.88   # which answers so
SECOND_USER=(bob 'Brown-Hare#3')
FAR=198.51.100.1           # somewhere, over whatever carries everything

# start_second_server KIND: pptpd or l2tp_server.
start_second_server() {
  local SERVER_HOST=out SERVER=$SECOND TUNNEL_SERVER=$SECOND_TUNNEL TUNNEL_CLIENT=${SECOND_TUNNEL%.*}.2
  on out ip link add lan type dummy
  configure out <<EOF
addr add $SECOND_BEHIND/24 dev lan
link set lan up
EOF
  start_nameserver dns-second out "$SECOND_BEHIND" "$SECOND_INSIDE"
  PPTPD_OPTIONS="ms-dns $SECOND_BEHIND" L2TP_OPTIONS="ms-dns $SECOND_BEHIND" "start_$1" "${SECOND_USER[@]}"
}

# write_second, start_second [ADDRESS]: the other vpnctl, over the same protocol; what it prints is in $logs/second.err.
write_second() {
  local secret=
  [ "$PROTOCOL" != l2tp ] || secret=$SHARED_SECRET
  printf 'protocol = "%s";\nip = "%s";\nusername = "%s";\npassword = "%s";\nshared_secret = "%s";\n' \
    "$PROTOCOL" "${1:-$SECOND}" "${SECOND_USER[@]}" "$secret" | put cli /root/second.qolm 600
}
start_second() {
  write_second "$@"
  [ -f "$work/hosts/cli/before" ] || baseline
  spawn second cli "$VPNCTL" -c /root/second.qolm
}
# said NAME TEXT: that tool has printed a line that begins so.
said() { grep -q -- "^$2" "$logs/$1.err"; }
# wait_said NAME TEXT
wait_said() {
  within 90 said_or_over "$1" "$2" || fail "$1 does not say \"$2\""
  said "$1" "$2" || fail "$1 ended without \"$2\""
}
said_or_over() { said "$1" "$2" || ended "$1"; }

stop_tool() { # NAME
  signal cli "$1" USR1
  wait_end "$1" 90
  [ "$exit_status" = 0 ] || fail "$1 ended with status $exit_status"
}
# helper_of NAME: the process number, on cli, of that tool's helper.
helper_of() {
  # shellcheck disable=SC2016 # expanded on the host
  on cli bash -c 'for p in /proc/[0-9]*; do
    read -r name <"$p/comm" && [ "$name" = vpnctl-helper ] && grep -qx "PPid:	$0" "$p/status" && echo "${p#/proc/}"
  done
  true' "$(<"$logs/$1.pid")"
}

# Everything goes through the first, or the second: traffic and names. Each server's own packets go past both tunnels.
expect_first_carries() { expect_carrier "$TUNNEL_SERVER" "$INSIDE"; }
expect_second_carries() { expect_carrier "$SECOND_TUNNEL" "$SECOND_INSIDE"; }
# Both at once: whichever came up last carries traffic and names.
expect_one_carries() {
  if [ "$(first_hop "$FAR")" = "$SECOND_TUNNEL" ]; then expect_second_carries; else expect_first_carries; fi
}
expect_carrier() {
  expect_first_hop "$FAR" "$1"
  expect_answer "$2"
}

# expect_ping_over LINK ADDRESS: an answer comes through that link.
expect_ping_over() {
  within 20 on cli ping -n -q -c 1 -W 2 -I "$1" "$2" >/dev/null 2>&1 || fail "no answer from $2 over $1"
  say "ping: $2 answers over $1"
}
expect_associations() { # N: for so many links cli's kernel has ESP both ways, and a process speaks IKE
  local states processes
  states=$(on cli ip xfrm state | grep -c 'proto esp') || true
  processes=$(on cli pidof vpnctl-ike | wc -w) || true
  [ "$states $processes" = "$((2 * $1)) $1" ] || fail "$states states and $processes processes are not those of $1 links"
}

# Both up, one after the other: the newest carries everything, and each server is reached past both tunnels.
both_up() {
  start_vpnctl
  wait_status "PPP Connected"
  expect_first_carries
  [ "$PROTOCOL" = pptp ] || expect_l2tp_port own
  start_second
  wait_said second "PPP Connected"
  expect_second_carries
  grep -q "^\[$SECOND\] Using interface ppp" "$(root_of cli)/var/log/ppp.log" || fail "the log does not say whose lines are whose"
  expect_ping "$TUNNEL_SERVER"
  expect_first_hop "$SERVER" "$ROUTER"
  expect_first_hop "$SECOND" "$ROUTER"
  if [ "$PROTOCOL" = l2tp ]; then
    expect_l2tp_port other xl2tpd-out
    expect_associations 2
    expect_ping_over ppp0 "$TUNNEL_SERVER"
    expect_ping_over ppp1 "$SECOND_TUNNEL"
  fi
}
first_ends_first() {
  say "The first ends first."
  both_up
  disconnect_usual
  expect_second_carries
  expect_ping "$SECOND_BEHIND"
  stop_tool second
  expect_resolver_as_before
  expect_answer "$OUTSIDE"
  assert_clean
}
second_ends_first() {
  say "The second ends first."
  both_up
  stop_tool second
  expect_first_carries
  expect_ping "$BEHIND"
  disconnect_usual
  expect_resolver_as_before
  expect_answer "$OUTSIDE"
  assert_clean
}
second_dies() {
  say "The second's helper dies; the next run repairs what it left, and leaves the first alone."
  both_up
  on cli kill -KILL "$(helper_of second)"
  wait_end second 90
  expect_ping "$BEHIND"
  PROTOCOL=pptp start_second 127.0.0.1 # nobody listens there
  wait_end second 90
  write_second
  expect_first_carries
  [ "$PROTOCOL" = pptp ] || expect_associations 1
  disconnect_usual
  expect_resolver_as_before
  assert_clean_since "$EPOCHREALTIME" # the server of L2TP has not found out
}
first_dies() {
  say "The first's helper dies."
  both_up
  on cli kill -KILL "$(helper_of vpnctl)"
  expect_exit 0
  expect_second_carries
  stop_tool second
  write_config ip=127.0.0.1
  start_vpnctl
  expect_exit 0
  expect_resolver_as_before
  expect_answer "$OUTSIDE"
}

# All of that with two L2TP servers.
two_l2tp_links() {
  start_nameservers
  tap_wire
  L2TP_OPTIONS="ms-dns $BEHIND" start_l2tp_server
  start_second_server l2tp_server
  write_config protocol=l2tp
  write_second
  remember_resolver
  first_ends_first
  second_ends_first
  second_dies
  first_dies
  # The L2TP sides of both were told nothing by the helpers that died.
  kill_server
  SERVER_HOST=out kill_server
  assert_nothing_in_clear
}
