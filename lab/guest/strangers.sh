# Servers and IKE daemons by other hands: libreswan. Sourced by the scenarios that are about them.

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
