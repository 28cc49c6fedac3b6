# What must hold. Each of these ends the scenario with one sentence if it does not.

expect_ping() {
  within "${2:-20}" pings "$1" || fail "no answer from $1"
  say "ping: $1 answers"
}
expect_no_ping() { ! pings "$1" || fail "$1 answers"; }

# expect_first_hop ADDRESS HOP: packets from cli to ADDRESS are first seen by HOP.
expect_first_hop() {
  local hop
  hop=$(first_hop "$1") || true # ping fails when the packet does not arrive, which it is not meant to
  [ "$hop" = "$2" ] || fail "the way to $1 begins at \"$hop\" instead of $2"
}

expect_file_has() { # HOST PATH TEXT
  grep -qF -- "$3" "$(root_of "$1")$2" || fail "$2 on $1 has no \"$3\""
}

expect_file_lacks() { # HOST PATH TEXT
  ! grep -qF -- "$3" "$(root_of "$1")$2" || fail "$2 on $1 has \"$3\""
}

# The lines that the tool itself prints about the connection, in their order, without the copied PPP log.
STATUS_TEXTS=("PPP Network connection disconnected" "Initializing PPP network connection" "Connecting PPP link"
  "PPP Dial on traffic" "Negotiating PPP link" "PPP Authenticating" "PPP Waiting for call back" "PPP negotiating network"
  "PPP Connected" "Terminating PPP connection" "Disconnecting PPP link" "PPP Holding link off" "PPP connection suspended"
  "PPP waiting for redial" "Unknown status")
status_lines() {
  local line text
  while IFS= read -r line || [ -n "$line" ]; do
    case $line in
      "Starting pptp connection..." | "Starting l2tp connection..." | "Exit." | "Error: "*)
        printf '%s\n' "$line"
        continue
        ;;
    esac
    for text in "${STATUS_TEXTS[@]}"; do [ "$line" != "$text" ] || printf '%s\n' "$line"; done
  done <"$logs/vpnctl.err"
}

UP=("Starting pptp connection..." "Initializing PPP network connection" "Connecting PPP link" "Negotiating PPP link"
  "PPP Authenticating" "PPP negotiating network" "PPP Connected")
UP_L2TP=("Starting l2tp connection..." "${UP[@]:1}")
DOWN=("Terminating PPP connection" "Disconnecting PPP link" "Error: Input/output error, cause: 5"
  "PPP Network connection disconnected" "Exit.")

# expect_status_lines LINE...: exactly these, in this order, and no other.
expect_status_lines() {
  local wanted got
  wanted=$(printf '%s\n' "$@")
  got=$(status_lines)
  [ "$got" = "$wanted" ] || {
    diff <(echo "$wanted") <(echo "$got") | sed 's/^</missing:/;s/^>/too many:/' || true
    fail "the status lines differ from what is wanted"
  }
}

# last_cause N: the line that tells of it. The text is the system's for the error of that number.
last_cause() { /usr/bin/python3 -S -c 'import os, sys; print(f"Error: {os.strerror(int(sys.argv[1]))}, cause: {sys.argv[1]}")' "$1"; }

# expect_tunnel_failure PATTERN: the tunnel did not come up, and a sentence says why.
expect_tunnel_failure() {
  expect_status_lines "Starting $PROTOCOL connection..." "Initializing PPP network connection" "Connecting PPP link" \
    "Disconnecting PPP link" "Error: Exec format error, cause: 8" "PPP Network connection disconnected" "Exit."
  expect_sentence "$1"
}

# expect_lines_in_order LINE...: these lines of standard error stand in this order; others may stand between them.
expect_lines_in_order() {
  local line
  exec {err_fd}<"$logs/vpnctl.err"
  for wanted in "$@"; do
    while :; do
      IFS= read -r line <&"$err_fd" || [ -n "$line" ] || fail "no line \"$wanted\" where it belongs"
      [ "$line" != "$wanted" ] || break
    done
  done
  exec {err_fd}<&-
}
expect_line() { grep -qxF -- "$1" "$logs/vpnctl.err" || fail "no line \"$1\""; }
expect_no_line() { ! grep -qxF -- "$1" "$logs/vpnctl.err" || fail "there is a line \"$1\""; }
expect_text() { grep -qF -- "$1" "$logs/vpnctl.err" || fail "standard error does not say \"$1\""; }
expect_no_text() { ! grep -qF -- "$1" "$logs/vpnctl.err" || fail "standard error says \"$1\""; }
expect_out() { [ "$(cat "$logs/vpnctl.out")" = "$1" ] || fail "standard output is not \"$1\""; }

# expect_sentence PATTERN: one line on standard error, copied from the PPP log, tells the user (extended regular
# expression). It is plain ASCII and fits into the 1023 characters that the tailer copies at once.
expect_sentence() {
  local line
  line=$(grep -E -m 1 -- "$1" "$logs/vpnctl.err") || fail "no sentence like \"$1\""
  [[ ${#line} -lt 1000 && $line != *[!\ -~]* ]] || fail "this is no plain sentence: $line"
  grep -qF -- "$line" "$(root_of cli)/var/log/ppp.log" || fail "the PPP log does not hold the sentence: $line"
}

# expect_lost PATTERN: a connection that was up went away by itself, and a sentence says why. The line hangs up: cause 16.
expect_lost() {
  expect_exit 0
  expect_lines_in_order "PPP Connected" "Disconnecting PPP link" "$(last_cause 16)" "PPP Network connection disconnected" "Exit."
  expect_sentence "$1"
}

# expect_association HOST TEXT...: the association of that host's daemon says all of these.
expect_association() {
  local text seen
  seen=$(connections_of "$1")
  for text in "${@:2}"; do [[ $seen == *"$text"* ]] || fail "no \"$text\" in $seen"; done
}

# expect_l2tp_port own|other [SERVER]: from 1701 or not, as the server of that name saw it last.
expect_l2tp_port() {
  local port=
  within 10 l2tp_port_is "$1" "${2:-xl2tpd}" || fail "as the server last said, L2TP comes from port ${port:-none}"
}
l2tp_port_is() { # what a server says takes a moment until it is in its file
  port=$(sed -n "s/.*Connection established to [0-9.]*, \([0-9]*\)\..*/\1/p" "$logs/$2.err" | tail -n 1)
  case $1 in
    own) [ "$port" = 1701 ] ;;
    other) [ -n "$port" ] && [ "$port" != 1701 ] ;;
  esac
}

# expect_ms_chap_v2 SERVER: that server's pppd has asked for MS-CHAPv2, for nothing else, and let the user in.
expect_ms_chap_v2() {
  local log=/var/log/$1-ppp.log
  expect_file_has srv "$log" "<auth chap MS-v2>"
  ! grep "sent \[LCP ConfReq.*<auth" "$(root_of srv)$log" | grep -vF "<auth chap MS-v2>" || fail "$1 asks for something else than MS-CHAPv2"
  expect_file_has srv "$log" "sent [CHAP Success"
}

# The network services of cli: lab/guest/preferences.py says what can be asked.
expect_preferences() {
  /usr/bin/python3 -S -B "$lab/guest/preferences.py" "$(root_of cli)/etc/vpnctl/preferences.plist" "$@" ||
    fail "the preferences are not as they should be"
}
# make_preferences NAME...: an existing preferences file with services so named.
make_preferences() {
  mkdir -p "$(root_of cli)/etc/vpnctl"
  /usr/bin/python3 -S -B "$lab/guest/preferences.py" "$(root_of cli)/etc/vpnctl/preferences.plist" make "$@"
  cp "$(root_of cli)/etc/vpnctl/preferences.plist" "$work/preferences.made"
}
# expect_no_stores: nobody has ever written preferences or keychain items on cli.
expect_no_stores() {
  local file
  for file in etc/vpnctl/preferences.plist var/lib/vpnctl/System.keychain var/lib/vpnctl/SystemKey; do
    [ ! -e "$(root_of cli)/$file" ] || fail "there is a /$file"
  done
}

# The items of cli's keychain: expect_keychain LABEL=N..., and an item that somebody else put there.
expect_keychain() {
  /usr/bin/python3 -S -B "$lab/guest/keychain.py" "$(root_of cli)/var/lib/vpnctl/System.keychain" "$@" ||
    fail "the keychain is not as it should be"
}
make_keychain_item() { /usr/bin/python3 -S -B "$lab/guest/keychain.py" "$(root_of cli)/var/lib/vpnctl/System.keychain" make "$1"; }
