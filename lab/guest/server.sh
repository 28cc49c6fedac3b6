# The servers: on SERVER_HOST, at the addresses that hosts.sh names. A scenario with a second one has them say something else meanwhile.

SERVER_HOST=srv
USER_NAME=alice
PASSWORD='Gr33n-Turtle#7' # looked for by the secret scan: keep it unlike anything else on a machine

# account NAME PASSWORD: one line for pppd's secrets, with what its parser takes for syntax made harmless.
account() {
  local name=${1//\\/\\\\} secret=${2//\\/\\\\}
  printf '"%s" * "%s" *\n' "${name//\"/\\\"}" "${secret//\"/\\\"}"
}

# accounts [NAME PASSWORD]...: who may connect (default: the usual one).
accounts() {
  [ $# -gt 0 ] || set -- "$USER_NAME" "$PASSWORD"
  while [ $# -gt 0 ]; do
    account "$1" "$2"
    shift 2
  done | put "$SERVER_HOST" /etc/ppp/chap-secrets 600
}

# What both kinds of server ask of a client. ppp_options NAME
ppp_options() {
  cat <<EOF
name $1
refuse-pap
refuse-chap
refuse-mschap
require-mschap-v2
novj
novjccomp
nodefaultroute
nologfd
logfile /var/log/$1-ppp.log
debug
EOF
}

# start_pptpd [NAME PASSWORD]...: a PPTP server with these accounts, listening when this returns.
start_pptpd() {
  accounts "$@"
  put "$SERVER_HOST" /etc/pptpd.conf <<EOF
option /etc/ppp/pptpd-options
localip $TUNNEL_SERVER
remoteip $TUNNEL_CLIENT-9
listen $SERVER
EOF
  {
    ppp_options pptpd
    printf '%s\n' require-mppe-128 nobsdcomp lock "${PPTPD_OPTIONS:-}"
  } | put "$SERVER_HOST" /etc/ppp/pptpd-options
  start_server pptpd tcp 1723 pptpd -f -c /etc/pptpd.conf
}

# start_peer ARGUMENTS...: the scripted PPTP peer instead of a server; lab/guest/peer.py says what it can play.
start_peer() { start_server peer tcp 1723 /usr/bin/python3 -S -B "$lab/guest/peer.py" "$SERVER" "$@"; }

# start_l2tp_server [NAME PASSWORD]...: an L2TP server behind IPSec with these accounts, ready when this returns.
start_l2tp_server() {
  start_ipsec_server
  start_xl2tpd "$@"
}

# start_l2tp_peer PART: the scripted L2TP peer behind IPSec instead; lab/guest/l2tp_peer.py says what it can play.
start_l2tp_peer() {
  running_now charon-srv || start_ipsec_server
  start_server l2tp-peer udp 1701 /usr/bin/python3 -S -B "$lab/guest/l2tp_peer.py" "$SERVER" "$@"
}

# The IPSec side of such a server, in the temper that these say: IKE_PROPOSALS, ESP_PROPOSALS, IKE_REKEY, ESP_REKEY, ESP_LIFE (seconds),
# SERVER_IDENTITY, SERVER_SECRET, CLIENT_PORTS (A-B).
start_ipsec_server() {
  start_charon "$SERVER_HOST"
  refuse_clear_l2tp
  load_ipsec_server
  baseline "$SERVER_HOST"
}
# From now on the server neither hears nor says L2TP in clear, whoever protects it.
refuse_clear_l2tp() {
  on "$SERVER_HOST" ip -batch - <<EOF
xfrm policy add dir in proto udp dport 1701 action block priority 4000000000
xfrm policy add dir out proto udp sport 1701 action block priority 4000000000
EOF
}
load_ipsec_server() {
  load_ipsec "$SERVER_HOST" <<EOF
connections {
  l2tp {
    version = 1
    local_addrs = $SERVER
    proposals = ${IKE_PROPOSALS:-aes256-sha256-modp2048,aes256-sha1-modp1024,3des-sha1-modp1024}
    rekey_time = ${IKE_REKEY:-3600}s
    over_time = ${IKE_REKEY:-3600}s
    rand_time = 0s
    local {
      auth = psk
      id = ${SERVER_IDENTITY:-$SERVER}
    }
    remote {
      auth = psk
    }
    children {
      l2tp {
        mode = transport
        local_ts = dynamic[udp/1701]
        remote_ts = dynamic[udp${CLIENT_PORTS:+/$CLIENT_PORTS}]
        esp_proposals = ${ESP_PROPOSALS:-aes256-sha256,aes128-sha1,3des-sha1}
        rekey_time = ${ESP_REKEY:-3600}s
        life_time = ${ESP_LIFE:-$((${ESP_REKEY:-3600} * 11 / 10))}s
        rand_time = 0s
      }
    }
  }
}
secrets {
  ike-l2tp {
    $(secret_bytes "${SERVER_SECRET-$SHARED_SECRET}")
  }
}
EOF
}

# The L2TP side. L2TP_OPTIONS holds more lines for its pppd.
start_xl2tpd() {
  accounts "$@"
  put "$SERVER_HOST" /etc/xl2tpd/lab.conf <<EOF
[global]
listen-addr = $SERVER
port = 1701
[lns default]
ip range = $TUNNEL_CLIENT-${TUNNEL_CLIENT%.*}.9
local ip = $TUNNEL_SERVER
refuse pap = yes
require authentication = yes
name = xl2tpd
length bit = yes
ppp debug = yes
pppoptfile = /etc/ppp/xl2tpd-options
EOF
  {
    ppp_options xl2tpd
    printf '%s\n' noccp "${L2TP_OPTIONS:-}"
  } | put "$SERVER_HOST" /etc/ppp/xl2tpd-options
  start_server xl2tpd udp 1701 xl2tpd -D -c /etc/xl2tpd/lab.conf -C /run/l2tp-control -p /run/xl2tpd.pid
}

# start_server NAME PROTOCOL PORT COMMAND...: listening when this returns. On another host than srv its name is NAME-HOST.
start_server() {
  local name=$1 protocol=$2 port=$3
  [ "$SERVER_HOST" = srv ] || name+=-$SERVER_HOST
  shift 3
  # What still serves a connection that has ended would be taken for a part of the host, and missed when it is gone.
  within 20 no_process "$SERVER_HOST" pppd pptpctrl || fail "an earlier connection is still served on $SERVER_HOST"
  spawn "$name" "$SERVER_HOST" "$@"
  within 60 listens "$port" "$protocol" || fail "$name does not listen on $protocol port $port"
  baseline "$SERVER_HOST"
}

# listens PORT [PROTOCOL]: somebody there listens on that port (read from the kernel's table; state 0A, without connections 07).
listens() {
  local port line state=0A
  [ "${2:-tcp}" = tcp ] || state=07
  printf -v port ':%04X' "$1"
  while read -r line; do
    [[ $line == *"$port "*" $state "* ]] && return
  done <"/proc/${HOST[$SERVER_HOST]}/net/${2:-tcp}"
  return 1
}

# The server and everything it started die at once, as if its power had gone, except that its kernel closes what was open.
SERVER_PROCESSES=(pptpd pptpctrl xl2tpd pppd python3)
kill_server() {
  kill_named "$SERVER_HOST" "${SERVER_PROCESSES[@]}"
  # A pppd that lost its pptpctrl first may have started its last script before it died.
  within 20 no_process "$SERVER_HOST" "${SERVER_PROCESSES[@]}" ip-up ip-down run-parts || fail "the server cannot be killed"
  baseline "$SERVER_HOST"
}

# The IPSec side of the server ends, and takes with it what it remembers of clients that said no goodbye.
stop_ipsec_server() {
  stop_charon srv
  baseline srv
}

# kill_named HOST NAME...: SIGKILL to the processes of a host that bear these names.
kill_named() { signal_named "$1" KILL "${@:2}"; }
# signal_named HOST SIGNAL NAME...
signal_named() {
  local host=$1
  shift
  # shellcheck disable=SC2016 # expanded on the host
  on "$host" bash -c 'signal=$1
  shift
  for p in /proc/[0-9]*; do
    read -r name <"$p/comm" || continue
    for wanted in "$@"; do [ "$name" != "$wanted" ] || kill "-$signal" "${p#/proc/}"; done
  done' bash "$@"
}
no_ppp() { ! compgen -G "/proc/${HOST[$1]}/root/sys/class/net/ppp*" >/dev/null; }
