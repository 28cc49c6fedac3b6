# shellcheck shell=bash
# The stages of the fault matrix: how a connection comes to one and stays there. $protocol, $stage and $fault are the cell's.
#
#   start           before the first packet: the name server does not answer
#   ike             nobody answers on UDP port 500
#   control         the server lets us in and never says a word
#   negotiating     no PPP frame of the server's arrives
#   authenticating  nothing that the server says about the account arrives
#   connected
#   rekeying        connected, and the new keys that were just asked for do not come
#   terminating     stopped by SIGUSR1, and the wire is silent, so that pppd waits for the server's goodbye

# The machine's settings. Where the cell waits for us to find something out by ourselves, we find it out soon; everywhere else the
# stage is to last. And what is computed for IKE is cheap.
settings() {
  local deadline=60 ike_deadline=60 echoes=10 control=30 mppe=service
  case $fault in
    tunnel-ended) mppe=none ;; # the scripted server has none
    server-killed | server-silent | cable-pulled | ppp-lost) echoes=3 ;;
    control-lost) control=2 ;;
  esac
  case $protocol-$stage-$fault in
    pptp-control-server-killed) ;;
    *-ike-*-silent | *-ike-cable-pulled) ike_deadline=10 ;;
    *-control-server-* | *-control-cable-pulled) deadline=5 ;;
  esac
  cat <<END
ike = {
  proposals = [ "aes128-sha1-modp1024" ];
  esp_proposals = [ "aes128-sha1" ];
  deadline = $ike_deadline;
};
l2tp = { deadline = $deadline; dead_peer_delay = $control; };
pptp = { deadline = $deadline; dead_peer_delay = $control; mppe = "$mppe"; };
ppp = { echo_interval = 2; echo_failures = $echoes; };
END
}

prepare() {
  IKE_PROPOSALS=aes128-sha1-modp1024 ESP_PROPOSALS=aes128-sha1
  settings | put cli /etc/vpnctl/engine.conf
  serve
  case $protocol-$stage in
    *-start) echo "nameserver $NOBODY" | put cli /etc/resolv.conf ;;
    pptp-negotiating) block_gre ;;
    l2tp-negotiating) drop_from_server "$L2TP_DATA" ;;
    *-authenticating) drop_from_server "${CHAP[@]}" ;;
  esac
  write_config_of_cell
  [ "$protocol" = pptp ] || tap_wire
  baseline
}
write_config_of_cell() {
  case $stage in
    start) write_config protocol="$protocol" ip=nobody-knows.lab.test ;;
    ike) write_config protocol="$protocol" ip="$NOBODY" ;;
    *) write_config protocol="$protocol" ;;
  esac
  [ -z "${user:-}" ] || readable_for_users
}
put_away() {
  [ "$protocol" = pptp ] && return
  case $stage in
    start | ike) signal rtr tap TERM && wait_end tap && baseline rtr ;;
    *) assert_nothing_in_clear ;;
  esac
}

# The server that the stage needs. Also once more, after it was killed; its IKE daemon stays.
serve() {
  case $protocol-$stage in
    *-start | *-ike) ;;
    pptp-control) start_peer "$(part refuse-call refuse-control)" ;;
    l2tp-control) start_l2tp_peer "$(part cdn stopccn)" ;;
    pptp-*)
      # Only the scripted server stops when it is told to.
      if [ "$fault" = tunnel-ended ]; then start_peer "mangle StopCCRQ whole"; else start_pptpd; fi
      ;;
    l2tp-*)
      running_now charon-srv || start_ipsec_server
      start_xl2tpd
      ;;
  esac
}
# part FOR-CALL-ENDED FOR-TUNNEL-ENDED: what the scripted peer plays.
part() {
  case $fault in
    call-ended) echo "$1" ;;
    tunnel-ended) echo "$2" ;;
    *) echo mute ;;
  esac
}

# drop_from_server RULE...: what the server sends so gets lost, PPTP on the router, for pptpd takes it amiss if it cannot send,
# L2TP before it leaves the server, for only there it is not encrypted yet. Ends with drop_nothing.
drop_from_server() {
  local host=rtr hook=forward
  if [ "$protocol" = l2tp ]; then host=srv hook=output; fi
  {
    printf 'table ip lab {\n chain lost {\n  type filter hook %s priority filter\n' "$hook"
    printf '  %s drop\n' "${@/#/ip saddr $SERVER }"
    printf ' }\n}\n'
  } | on "$host" nft -f -
}
drop_nothing() {
  if [ "$protocol" = l2tp ]; then on srv nft delete table ip lab; else on rtr nft delete table ip lab; fi
}
# A PPP frame with CHAP in it: behind GRE's header with and without an acknowledgement, behind L2TP's with and without a length. The
# scripted server has PAP instead.
CHAP=("ip protocol gre @th,96,16 0xc023" "ip protocol gre @th,96,32 0xff03c223" "ip protocol gre @th,128,32 0xff03c223"
  "udp sport 1701 @th,112,32 0xff03c223" "udp sport 1701 @th,128,32 0xff03c223")
# The first bit of L2TP's header tells control messages from frames.
L2TP_DATA="udp sport 1701 @th,64,8 & 0x80 == 0"
L2TP_CONTROL="udp sport 1701 @th,64,8 & 0x80 == 0x80"

# start_at_terminal: the tool as a person starts it; "tool" is its own process, "vpnctl" the terminal's.
start_at_terminal() {
  rm -f "$logs/tool.pid"
  local as=()
  [ -z "${user:-}" ] || as=(/usr/bin/setpriv --reuid "$user" --regid "$user" --init-groups)
  spawn vpnctl cli "$cache/bin/terminal" "$logs/tool.pid" "${as[@]}" "$VPNCTL" -c "$CONFIG"
  within 30 test -f "$logs/tool.pid" || fail "the tool did not start"
}

reach() {
  asked=$(times_asked)
  start_at_terminal
  "reach_$stage"
}
# Signals also come while there is hardly more than the helper's process.
reach_start() {
  case $fault-$((round % 2)) in
    SIGUSR1-0) wait_status "Connecting PPP link" ;; # before it is armed, it ends the tool as it ends any program
    SIG*-0) within 60 has_process vpnctl-helper || fail "no helper starts" ;;
    *) wait_status "Connecting PPP link" ;;
  esac
}
has_process() { ! no_process cli "$1"; }
reach_ike() {
  wait_status "Connecting PPP link"
  within 60 has_process vpnctl-ike || fail "nobody speaks IKE"
}
reach_control() {
  case $fault in call-ended | tunnel-ended) return ;; esac # the peer does it by itself
  within 60 was_asked || fail "the server was not called"
}
# How many first messages the scripted L2TP peer has got so far.
times_asked() { [ ! -f "$logs/l2tp-peer.out" ] || grep -c "message 1 " "$logs/l2tp-peer.out" || true; }
was_asked() {
  local line port
  if [ "$protocol" = l2tp ]; then
    [ "$(times_asked)" -gt "${asked:-0}" ]
    return
  fi
  printf -v port ':%04X' 1723
  while read -r line; do [[ $line != *"$port "*" 01 "* ]] || return 0; done <"/proc/${HOST[srv]}/net/tcp" # established
  return 1
}
reach_negotiating() { wait_status "Negotiating PPP link"; }
reach_authenticating() { wait_status "PPP Authenticating"; }
reach_connected() {
  wait_status "PPP Connected"
  if [ "$round" = 1 ]; then expect_ping "$TUNNEL_SERVER"; fi
}
# The server asks for new keys, and hears no answer.
reach_rekeying() {
  reach_connected
  swallow udp dport 500
  on srv swanctl --rekey --child l2tp >>"$logs/rekey.log" 2>&1 || fail "no new keys for ESP are asked for"
  on srv swanctl --rekey --ike l2tp >>"$logs/rekey.log" 2>&1 || fail "no new keys for IKE are asked for"
}
reach_terminating() {
  reach_connected
  fall_silent
  signal cli tool USR1
  wait_status "Terminating PPP connection"
}

fall_silent() {
  [[ " ${WIRE[*]} " != *" silent "* ]] || return 0
  silence
  WIRE+=(silent)
}

# What was done to the wire in this round. It is taken back before anybody looks whether the machine is as it was.
WIRE=()
swallow() { # PROTOCOL [dport PORT]: the router drops it
  on rtr ip rule add ipproto "$@" blackhole
  WIRE+=("$*")
}
mend_wire() {
  local deed
  for deed in "${WIRE[@]}"; do
    case $deed in
      silent) configure rtr <<<"route del blackhole $SERVER/32
route del blackhole $CLIENT/32" ;;
      dropped) drop_nothing ;;
      unplugged)
        on rtr ip link set cli up
        within 20 settled || fail "the links did not come up again"
        ;;
      *)
        # shellcheck disable=SC2086 # words
        on rtr ip rule del ipproto $deed blackhole
        ;;
    esac
  done
  [ ${#WIRE[@]} = 0 ] || baseline rtr
  WIRE=()
}

# The server as it was: a new one, unless it has been told that the client goes.
mend_server() {
  case $stage in start | ike) return ;; esac
  case $fault-$stage in
    SIG*-rekeying | SIG*-terminating | pppd-killed-rekeying | pppd-killed-terminating) ;;
    SIG* | pppd-killed | *-ended-control)
      within 30 no_process srv pppd || fail "the server does not notice that the client has gone"
      return
      ;;
  esac
  kill_server
  rm -f "$(root_of srv)"/run/ppp*.pid
  if [ "$protocol" = l2tp ]; then on srv swanctl --terminate --ike l2tp --force >>"$logs/terminate.log" 2>&1 || true; fi
  serve
}
