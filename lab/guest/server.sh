# The servers of srv.

USER_NAME=alice
PASSWORD='Gr33n-Turtle#7' # looked for by the secret scan: keep it unlike anything else on a machine

# account NAME PASSWORD: one line for pppd's secrets, with what its parser takes for syntax made harmless.
account() {
  local name=${1//\\/\\\\} secret=${2//\\/\\\\}
  printf '"%s" * "%s" *\n' "${name//\"/\\\"}" "${secret//\"/\\\"}"
}

# start_pptpd [NAME PASSWORD]...: a PPTP server with these accounts (default: the usual one), listening when this returns.
start_pptpd() {
  [ $# -gt 0 ] || set -- "$USER_NAME" "$PASSWORD"
  while [ $# -gt 0 ]; do
    account "$1" "$2"
    shift 2
  done | put srv /etc/ppp/chap-secrets 600
  put srv /etc/pptpd.conf <<EOF
option /etc/ppp/pptpd-options
localip $TUNNEL_SERVER
remoteip $TUNNEL_CLIENT-9
listen $SERVER
EOF
  put srv /etc/ppp/pptpd-options <<EOF
name pptpd
refuse-pap
refuse-chap
refuse-mschap
require-mschap-v2
require-mppe-128
nobsdcomp
novj
novjccomp
nodefaultroute
lock
nologfd
logfile /var/log/pptpd-ppp.log
debug
${PPTPD_OPTIONS:-}
EOF
  start_server pptpd pptpd -f -c /etc/pptpd.conf
}

# start_peer ARGUMENTS...: the scripted PPTP peer instead of a server; lab/guest/peer.py says what it can play.
start_peer() { start_server peer /usr/bin/python3 -S -B "$lab/guest/peer.py" "$SERVER" "$@"; }

start_server() {
  local name=$1
  shift
  spawn "$name" srv "$@"
  within 60 listens 1723 || fail "$name does not listen on TCP 1723"
  baseline srv
}

# listens PORT: somebody on srv listens on that TCP port (read from the kernel's table, state 0A).
listens() {
  local port line
  printf -v port ':%04X' "$1"
  while read -r line; do
    [[ $line == *"$port "*" 0A "* ]] && return
  done <"/proc/${HOST[srv]}/net/tcp"
  return 1
}

# The server and everything it started die at once, as if its power had gone, except that its kernel closes what was open.
kill_server() {
  kill_named srv pptpd pptpctrl pppd python3
  # A pppd that lost its pptpctrl first may have started its last script before it died.
  within 20 no_process srv pptpd pptpctrl pppd python3 ip-up ip-down run-parts || fail "the server cannot be killed"
  baseline srv
}

# kill_named HOST NAME...: SIGKILL to the processes of a host that bear these names.
kill_named() {
  local host=$1
  shift
  # shellcheck disable=SC2016 # expanded on the host
  on "$host" bash -c 'for p in /proc/[0-9]*; do
    read -r name <"$p/comm" || continue
    for wanted in "$@"; do [ "$name" != "$wanted" ] || kill -KILL "${p#/proc/}"; done
  done' bash "$@"
}
no_ppp() { ! compgen -G "/proc/${HOST[$1]}/root/sys/class/net/ppp*" >/dev/null; }
