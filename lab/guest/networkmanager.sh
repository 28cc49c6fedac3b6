# NetworkManager on a host of its own, so that it meddles with nobody else's links: nm, beside cli.

NM_CLIENT=10.$slot.3.2
NM_ROUTER=10.$slot.3.1

# The host stands, the daemon is up, manages its wire, and knows the connections "pptp" and "l2tp" to the usual server.
start_networkmanager() {
  make_nm_host
  nm_files
  mkdir "$(root_of nm)/run/dbus"
  spawn dbus nm dbus-daemon --config-file=/etc/dbus-lab.conf --nofork --nopidfile
  within 30 test -S "$(root_of nm)/run/dbus/system_bus_socket" || fail "there is no bus"
  spawn networkmanager-daemon nm NetworkManager --no-daemon
  within 60 nm_wire_up || fail "NetworkManager does not manage its wire"
}
nm_wire_up() { grep -q $'^eth0\t00000000\t' "/proc/${HOST[nm]}/net/route"; }

make_nm_host() {
  local folder=$work/more
  mkdir -p "$folder/nm/files/etc"
  echo nm >"$folder/nm/files/etc/hostname"
  "$cache/bin/hosts" "$folder" nm || fail "the host of NetworkManager did not come up"
  HOST[nm]=$(<"$folder/nm/pid")
  # Its programs lie over what all hosts share, here only.
  on nm mount -t overlay -o "lowerdir=$cache/bench/root/usr:/usr" usr /usr
  on nm cp -a "$cache/bench/root/etc/." /etc
  ip -batch - <<<"link add eth0 netns ${HOST[nm]} type veth peer name nm netns ${HOST[rtr]}"
  configure rtr <<EOF
addr add $NM_ROUTER/24 dev nm
link set nm up
rule add iif nm to 10.99.0.0/16 blackhole
EOF
}

# An active connection on the wire is what a VPN needs to be activated on.
nm_files() {
  local wire=$'[connection]\nid=wire\ntype=ethernet\ninterface-name=eth0\n[ipv6]\nmethod=link-local\n[ipv4]\nmethod=manual'
  put nm /etc/dbus-lab.conf <<'EOF'
<busconfig>
  <type>system</type>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
EOF
  put nm /etc/NetworkManager/NetworkManager.conf <<'EOF'
[main]
plugins=keyfile
no-auto-default=*
auth-polkit=false
hostname-mode=none
EOF
  printf '%s\naddresses=%s/24\ngateway=%s\n' "$wire" "$NM_CLIENT" "$NM_ROUTER" | nm_connection wire
  nm_vpn pptp require-mppe=yes | nm_connection pptp
  nm_vpn l2tp ipsec-enabled=yes machine-auth-type=psk ipsec-psk-flags=0 | nm_connection l2tp
}
nm_connection() { put nm "/etc/NetworkManager/system-connections/$1.nmconnection" 600; }
nm_vpn() { # TYPE LINE...
  printf '%s\n' '[connection]' "id=$1" 'type=vpn' 'autoconnect=false' '[vpn]' "service-type=org.freedesktop.NetworkManager.$1" \
    "gateway=$SERVER" "user=$USER_NAME" 'password-flags=0' 'refuse-eap=yes' "${@:2}" '[vpn-secrets]' "password=$PASSWORD"
  [ "$1" = pptp ] || echo "ipsec-psk=$SHARED_SECRET"
  printf '%s\n' '[ipv4]' 'method=auto'
}
