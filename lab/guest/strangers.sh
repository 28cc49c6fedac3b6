# Servers and IKE daemons by other hands: libreswan, SoftEther. Sourced by the scenarios that are about them.

# start_pluto HOST SECRET: libreswan's daemon, with one secret for all its connections, ready for orders when this returns.
start_pluto() {
  local bytes
  lay_over libreswan "$1"
  put "$1" /etc/ipsec.conf <<'EOF'
config setup
	ikev1-policy=accept
	logfile=/var/log/pluto.log
include /etc/ipsec.d/*.conf
EOF
  bytes=$(secret_bytes "$2")
  put "$1" /etc/ipsec.secrets 600 <<<": PSK ${bytes#*= }"
  on "$1" certutil -N -d sql:/var/lib/ipsec/nss --empty-password
  mkdir "$(root_of "$1")/run/pluto"
  spawn "pluto-$1" "$1" /usr/libexec/ipsec/pluto --nofork --config /etc/ipsec.conf
  within 60 pluto_said "$1" "loading secrets" || fail "pluto on $1 does not listen"
}

# load_pluto HOST NAME: that daemon has the connection of that name, its lines on standard input, in place of an older one.
load_pluto() {
  { echo "conn $2" && sed 's/^/	/'; } | put "$1" "/etc/ipsec.d/$2.conf"
  on "$1" /usr/libexec/ipsec/addconn --config /etc/ipsec.conf "$2" >>"$logs/addconn-$1.log" 2>&1 ||
    fail "pluto on $1 does not take its connection: $(tail -n 3 "$logs/addconn-$1.log")"
}

# pluto_said HOST TEXT: in its log, since forget_pluto HOST.
declare -A PLUTO_READ
pluto_said() {
  local log
  log=$(root_of "$1")/var/log/pluto.log
  [ -f "$log" ] && log=$(<"$log") && [[ ${log:${PLUTO_READ[$1]:-0}} == *"$2"* ]]
}
forget_pluto() {
  local log
  log=$(<"$(root_of "$1")/var/log/pluto.log")
  PLUTO_READ[$1]=${#log}
}
expect_pluto() { # HOST TEXT...
  local text
  for text in "${@:2}"; do within 10 pluto_said "$1" "$text" || fail "pluto on $1 does not say \"$text\""; done
}

# start_libreswan_server: xl2tpd behind libreswan. PLUTO_OPTIONS holds more lines for its connection. Pluto's script for each
# association is left out: it has nothing to do for a single host, and takes seconds here.
start_libreswan_server() {
  start_pluto "$SERVER_HOST" "$SHARED_SECRET"
  refuse_clear_l2tp
  load_libreswan_server
  start_xl2tpd
}
load_libreswan_server() {
  load_pluto "$SERVER_HOST" l2tp <<EOF
type=transport
authby=secret
ikev2=no
left=$SERVER
leftprotoport=17/1701
right=%any
rightprotoport=17/%any
leftupdown=%disabled
${PLUTO_OPTIONS:-pfs=no}
EOF
  forget_pluto "$SERVER_HOST"
  baseline "$SERVER_HOST"
}

# start_softether_server: SoftEther speaks all of IKE, ESP, L2TP and PPP itself, and gives addresses from its SecureNAT, whose own is
# $TUNNEL_SERVER. It asks nobody outside for anything, and saves its configuration later than any scenario ends.
start_softether_server() {
  lay_over softether "$SERVER_HOST"
  put "$SERVER_HOST" /var/lib/softether/vpn_server.config 600 <<EOF
declare root
{
	declare DDnsClient
	{
		bool Disabled true
	}
	declare IPsec
	{
		string IPsec_Secret $SHARED_SECRET
		string L2TP_DefaultHub LAB
		bool L2TP_IPsec true
	}
	declare ListenerList
	{
		declare Listener0
		{
			bool Enabled true
			uint Port 5555
		}
	}
	declare ServerConfiguration
	{
		uint AutoSaveConfigSpan 3600
		bool DisableIPv6Listener true
		bool DisableNatTraversal true
		bool UseKeepConnect false
	}
	declare VirtualHUB
	{
		declare LAB
		{
			bool Online true
			declare SecureNAT
			{
				bool Disabled false
				declare VirtualDhcpServer
				{
					bool DhcpEnabled true
					string DhcpGatewayAddress $TUNNEL_SERVER
					string DhcpLeaseIPStart $TUNNEL_CLIENT
					string DhcpLeaseIPEnd ${TUNNEL_CLIENT%.*}.9
					string DhcpSubnetMask 255.255.255.0
				}
				declare VirtualHost
				{
					string VirtualHostIp $TUNNEL_SERVER
					string VirtualHostIpSubnetMask 255.255.255.0
				}
				declare VirtualRouter
				{
					bool NatEnabled false
				}
			}
		}
	}
}
EOF
  mkdir -p "$(root_of "$SERVER_HOST")"/{run,var/log}/softether
  # Before it listens it makes itself an RSA key, which takes as long as chance wants.
  spawn softether "$SERVER_HOST" vpnserver execsvc
  within 150 listens 5555 || fail "SoftEther does not listen"
  put "$SERVER_HOST" /root/account 600 <<EOF
UserCreate $USER_NAME /GROUP:none /REALNAME:none /NOTE:none
UserPasswordSet $USER_NAME /PASSWORD:$PASSWORD
EOF
  on "$SERVER_HOST" vpncmd localhost:5555 /SERVER /ADMINHUB:LAB /IN:/root/account >"$logs/vpncmd.log" 2>&1 ||
    fail "SoftEther does not take its account: $(tail -n 3 "$logs/vpncmd.log")"
  baseline "$SERVER_HOST"
}
