# Name servers on both sides, and the client's own arrangements for names. Sourced by the scenarios that need it.

OUTSIDE=192.0.2.1  # what the name server at the router answers, whatever it is asked
INSIDE=192.0.2.77  # and the one behind the server

start_nameserver() { # NAME HOST ADDRESS ANSWER
  spawn "$1" "$2" /usr/bin/python3 -S -B "$lab/guest/nameserver.py" "$3" "$4"
  within 30 hears "$2" 53 || fail "$1 does not listen on UDP 53"
}
# hears HOST PORT: somebody there has that UDP port (read from the kernel's table).
hears() {
  local port line
  printf -v port ':%04X ' "$2"
  while read -r line; do
    [[ $line == *"$port"* ]] && return
  done <"/proc/${HOST[$1]}/net/udp"
  return 1
}

start_nameservers() {
  start_nameserver dns-outside rtr "$ROUTER" "$OUTSIDE"
  start_nameserver dns-inside srv "$BEHIND" "$INSIDE"
}

# answers ADDRESS: a program on cli that asks for a name, one that was never asked for before, gets that answer.
asked=0
answers() {
  local answer
  asked=$((asked + 1))
  answer=$(on cli timeout 20 getent ahostsv4 "name$asked.where.test" | head -n 1) || true
  [ "${answer%% *}" = "$1" ]
}
expect_answer() {
  within 30 answers "$1" || fail "names are not answered by $1"
  say "names are answered by $1"
}

# What /etc/resolv.conf is: its kind, mode and owner, where it leads, every byte.
resolver_state() {
  # shellcheck disable=SC2016 # expanded on the host
  on cli bash -c 'stat -c "%F %a %u %g" /etc/resolv.conf; readlink /etc/resolv.conf; od -An -c /etc/resolv.conf'
}
remember_resolver() { resolver_before=$(resolver_state); }
resolver_as_before() { [ "$(resolver_state)" = "$resolver_before" ]; }
expect_resolver_as_before() {
  resolver_as_before || {
    diff <(echo "$resolver_before") <(resolver_state) || true
    fail "/etc/resolv.conf is not as it was"
  }
  say "/etc/resolv.conf is as it was"
}

# Names while connected, after the end, and after a helper's sudden death and the next run, which need not connect.
names_come_and_go() {
  expect_answer "$OUTSIDE"
  remember_resolver
  PPTPD_OPTIONS="ms-dns $BEHIND" connect_usual
  expect_answer "$INSIDE"
  disconnect_usual
  expect_resolver_as_before
  expect_answer "$OUTSIDE"
  start_vpnctl
  wait_status "PPP Connected"
  expect_answer "$INSIDE"
  kill_named cli vpnctl-helper
  expect_exit 0
  within 20 no_process cli pppd || fail "pppd does not end with its helper"
  write_config ip=127.0.0.1 # nobody listens there
  start_vpnctl
  expect_exit 0
  expect_resolver_as_before
  expect_answer "$OUTSIDE"
}

# resolvconf, as its package sets it up.
set_up_resolvconf() {
  lay_over resolvconf
  on cli bash -e -c 'mkdir -p /run/resolvconf/interface
    ln -sf ../run/resolvconf/resolv.conf /etc/resolv.conf
    resolvconf --enable-updates
    echo "nameserver $0" | resolvconf -a eth0.dhclient' "$ROUTER"
}

# systemd-resolved and a bus, as their packages and the init system would start them.
set_up_resolved() {
  lay_over resolved
  put cli /etc/systemd/resolved.conf <<EOF
[Resolve]
DNS=$ROUTER
FallbackDNS=
DNSSEC=no
LLMNR=no
MulticastDNS=no
EOF
  put cli /etc/lab-bus.conf <<EOF
<busconfig>
  <type>system</type>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>
  <includedir>/usr/share/dbus-1/system.d</includedir>
</busconfig>
EOF
  on cli bash -e -c 'echo "systemd-resolve:x:991:991::/:/usr/sbin/nologin" >>/etc/passwd
    echo "systemd-resolve:x:991:" >>/etc/group
    mkdir -p /run/dbus /run/systemd/resolve/netif
    chown -R 991:991 /run/systemd/resolve
    ln -sf "../run/systemd/resolve/$0" /etc/resolv.conf' "${1:-stub-resolv.conf}"
  spawn bus cli dbus-daemon --config-file=/etc/lab-bus.conf --nofork --nopidfile
  within 30 test -S "$(root_of cli)/run/dbus/system_bus_socket" || fail "the bus does not listen"
  start_resolved
}
start_resolved() {
  spawn resolved cli env SYSTEMD_LOG_TARGET=console /lib/systemd/systemd-resolved
  within 30 test -f "$(root_of cli)/run/systemd/resolve/stub-resolv.conf" || fail "systemd-resolved does not start"
}
