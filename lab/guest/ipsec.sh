# The IKE daemon of a host.

SHARED_SECRET='Blue+Heron=42/nine' # looked for by the secret scan, as the password is

# start_charon HOST: the system's daemon with the system's configuration, ready for orders when this returns.
start_charon() {
  spawn "charon-$1" "$1" /usr/lib/ipsec/charon
  within 60 charon_ready "$1" || fail "charon on $1 does not answer"
}

# The daemon writes a log, whoever starts it: all that differs from what its package installs.
charon_log() {
  cat <<'EOF'
charon {
  filelog {
    lab {
      path = /var/log/charon.log
      time_format = %H:%M:%S
      ike_name = yes
      flush_line = yes
    }
  }
}
EOF
}

# charon_ready HOST: somebody listens on its control socket (from the kernel's table, where the flag says so).
charon_ready() {
  local line
  while read -r line; do
    [[ $line == *" 00010000 "*"/run/charon.vici" ]] && return
  done <"/proc/${HOST[$1]}/net/unix"
  return 1
}

stop_charon() {
  signal "$1" "charon-$1" TERM
  wait_end "charon-$1" 30
  rm -f "$(root_of "$1")"/run/charon.* # its plugins' sockets, which it leaves
}

# load_ipsec HOST: hands the connections and secrets on standard input to that host's daemon.
load_ipsec() {
  put "$1" /etc/swanctl/lab.conf 600
  on "$1" swanctl --load-all --noprompt --file /etc/swanctl/lab.conf >>"$logs/swanctl-$1.log" 2>&1 ||
    fail "the daemon on $1 does not take its connections: $(tail -n 3 "$logs/swanctl-$1.log")"
  rm "$(root_of "$1")/etc/swanctl/lab.conf"
}

# secret_bytes SECRET: as a line for a daemon's configuration, with no byte that its parser could take for syntax.
secret_bytes() { printf 'secret = 0x%s' "$(printf %s "$1" | od -An -v -tx1 | tr -d ' \n')"; }

# connections_of HOST: its associations as its daemon knows them, one event a line.
connections_of() { on "$1" swanctl --list-sas --raw 2>/dev/null; }
