# A second server with an account of its own, on out, and a second vpnctl on cli. Sourced after dns.sh.

SECOND=$ELSEWHERE          # where the second server listens
SECOND_TUNNEL=10.98.0.1    # its end of the tunnel
SECOND_BEHIND=192.168.78.1 # a network behind it, with a name server
SECOND_INSIDE=192.0.2.88   # which answers so
FAR=198.51.100.1           # somewhere, over whatever carries everything

start_second_server() {
  local options
  on out ip link add lan type dummy
  configure out <<EOF
addr add $SECOND_BEHIND/24 dev lan
link set lan up
EOF
  start_nameserver dns-second out "$SECOND_BEHIND" "$SECOND_INSIDE"
  account bob 'Brown-Hare#3' | put out /etc/ppp/chap-secrets 600
  printf 'option /etc/ppp/pptpd-options\nlocalip %s\nremoteip 10.98.0.2-9\nlisten %s\n' "$SECOND_TUNNEL" "$SECOND" |
    put out /etc/pptpd.conf
  options=$(<"$(root_of srv)/etc/ppp/pptpd-options")
  echo "${options//ms-dns $BEHIND/ms-dns $SECOND_BEHIND}" | put out /etc/ppp/pptpd-options
  spawn pptpd-second out pptpd -f -c /etc/pptpd.conf
  within 60 listens_on out 1723 || fail "the second server does not listen"
}
# listens_on HOST PORT: TCP.
listens_on() {
  local port line
  printf -v port ':%04X' "$2"
  while read -r line; do
    [[ $line == *"$port "*" 0A "* ]] && return
  done <"/proc/${HOST[$1]}/net/tcp"
  return 1
}

# write_second, start_second [ADDRESS]: the other vpnctl; what it prints is in $logs/second.err.
write_second() {
  printf 'protocol = "pptp";\nip = "%s";\nusername = "bob";\npassword = "Brown-Hare#3";\nshared_secret = "";\n' \
    "${1:-$SECOND}" | put cli /root/second.qolm 600
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
expect_carrier() {
  expect_first_hop "$FAR" "$1"
  expect_answer "$2"
}

# Both up, one after the other: the newest carries everything, and each server is reached past both tunnels.
both_up() {
  start_vpnctl
  wait_status "PPP Connected"
  expect_first_carries
  start_second
  wait_said second "PPP Connected"
  expect_second_carries
  expect_ping "$TUNNEL_SERVER"
  expect_first_hop "$SERVER" "$ROUTER"
  expect_first_hop "$SECOND" "$ROUTER"
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
