# vpnctl on cli: its configuration, its start, its end.

VPNCTL=$build/qolmhelper/vpnctl
HELPER=$build/helper/vpnctl-helper
CONFIG=/root/config.qolm

# write_config KEY=VALUE...: a configuration; what is not given is pptp to the server with the usual account. An empty
# argument "KEY" without "=" leaves the key out. With protocol=l2tp the shared secret is the server's, too.
write_config() {
  local -A value=([protocol]=pptp [ip]=$SERVER [username]=$USER_NAME [password]=$PASSWORD [shared_secret]=)
  local argument key text
  PROTOCOL=pptp
  for argument in "$@"; do
    key=${argument%%=*}
    [ "$key" != protocol ] || PROTOCOL=${argument#*=}
    [ "$argument" != protocol=l2tp ] || value[shared_secret]=$SHARED_SECRET
    if [ "$key" = "$argument" ]; then unset "value[$key]"; else value[$key]=${argument#*=}; fi
  done
  for key in protocol ip username password shared_secret; do
    [ -n "${value[$key]+set}" ] || continue
    text=${value[$key]//\\/\\\\}
    printf '%s = "%s";\n' "$key" "$(escape_control "${text//\"/\\\"}")"
  done | put cli "$CONFIG" 600
}

# Control characters as the configuration's text writes them.
escape_control() {
  local text=$1 code character
  for ((code = 1; code < 128; code += code == 31 ? 96 : 1)); do
    printf -v code '%02x' "$code"
    printf -v character '%b' "\\x$code"
    text=${text//"$character"/\\x$code}
    code=$((16#$code))
  done
  printf %s "$text"
}

# start_vpnctl [ARGUMENT...]: starts the tool on cli (default: with the configuration of write_config). Everything that is
# different in the end from how it was at the first start has been left behind by it.
start_vpnctl() {
  [ $# -gt 0 ] || set -- -c "$CONFIG"
  [ -x "$VPNCTL" ] || fail "there is no $VPNCTL: build it first"
  [ -f "$work/hosts/cli/before" ] || baseline
  spawn vpnctl cli "$VPNCTL" "$@"
}

signal_tool() {
  say "SIG$1 to vpnctl"
  signal cli vpnctl "$1"
}

# wait_status TEXT [SECONDS]: until the tool has printed that line.
wait_status() {
  local text=$1 seconds=${2:-90}
  within "$seconds" printed_or_over "$text" || fail "no line \"$text\" within $seconds s"
  printed "$text" || fail "the tool ended without the line \"$text\""
}
printed() {
  local lines line
  mapfile -t lines <"$logs/vpnctl.err"
  for line in "${lines[@]}"; do [ "$line" != "$1" ] || return 0; done
  return 1
}
printed_or_over() {
  if ended vpnctl; then wait_end vpnctl; fi
  printed "$1" || [ -n "${EXITED[vpnctl]:-}" ]
}

# expect_exit STATUS [SECONDS]: the tool ends, with that status.
expect_exit() {
  wait_end vpnctl "${2:-90}"
  [ "$exit_status" = "$1" ] || fail "vpnctl ended with status $exit_status instead of $1"
  say "vpnctl ended with status $1"
}

# connect_usual: the beginning of most scenarios: server, configuration, tool, connected.
connect_usual() {
  start_pptpd
  write_config
  start_vpnctl
  wait_status "PPP Connected"
}

connect_l2tp() {
  start_l2tp_server
  write_config protocol=l2tp
  start_vpnctl
  wait_status "PPP Connected"
}

# disconnect_usual: the end of most scenarios.
disconnect_usual() {
  signal_tool USR1
  expect_exit 0
}

# A client without vpnctl: pppd over the pptp program, as one would do it by hand. by_hand [PPPD OPTION...]
by_hand() {
  account "$USER_NAME" "$PASSWORD" | put cli /etc/ppp/chap-secrets 600
  baseline
  spawn by-hand cli pppd nodetach pty "pptp $SERVER --nolaunchpppd --nohostroute" user "$USER_NAME" noauth refuse-eap \
    require-mppe-128 nodefaultroute "$@"
  within 60 has_address ppp0 || fail "the client by hand got no address"
}

# The same for L2TP: the daemon's own tool for IPSec, then xl2tpd as the client. by_hand_l2tp [PPPD OPTION...]
by_hand_l2tp() {
  prepare_by_hand_l2tp "$@"
  on cli swanctl --initiate --child by-hand || fail "IKE by hand failed"
  spawn by-hand cli xl2tpd -D -c /etc/xl2tpd/by-hand.conf -C /run/l2tp-control -p /run/xl2tpd.pid
  within 60 has_address ppp0 || fail "the client by hand got no address"
}

# All files and the daemon for it.
prepare_by_hand_l2tp() {
  account "$USER_NAME" "$PASSWORD" | put cli /etc/ppp/chap-secrets 600
  printf '%s\n' "user $USER_NAME" noauth refuse-eap noccp nodefaultroute "$@" | put cli /etc/ppp/by-hand-options
  put cli /etc/xl2tpd/by-hand.conf <<EOF
[global]
port = 1701
[lac by-hand]
lns = $SERVER
autodial = yes
pppoptfile = /etc/ppp/by-hand-options
EOF
  baseline
  start_charon cli
  load_ipsec cli <<EOF
connections {
  by-hand {
    version = 1
    remote_addrs = $SERVER
    proposals = aes256-sha256-modp2048
    local {
      auth = psk
    }
    remote {
      auth = psk
    }
    children {
      by-hand {
        mode = transport
        local_ts = dynamic[udp/1701]
        remote_ts = dynamic[udp/1701]
        esp_proposals = aes256-sha256
      }
    }
  }
}
secrets {
  ike-by-hand {
    $(secret_bytes "$SHARED_SECRET")
  }
}
EOF
}

# has_address LINK: cli has a route of that link, which it has as soon as the link has an address.
has_address() {
  local link
  while read -r link _; do
    [ "$link" != "$1" ] || return 0
  done <"/proc/${HOST[cli]}/net/route"
  return 1
}
has_no_address() { ! has_address "$1"; }
