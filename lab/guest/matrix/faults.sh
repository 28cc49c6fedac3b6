# shellcheck shell=bash
# The faults of the matrix: what is done, and what must be seen then. That the machine is as it was is seen by the steps.

# expect_end [taking-leave | hung-up]: the tool ends in order, and its lines are exactly those of this stage and then those of $END;
# between them one that tells that PPP takes its leave, if it does. A pppd whose line is hung up may still get round to that, or not.
expect_end() {
  local count=3 leave=()
  case $stage in
    negotiating) count=4 ;;
    authenticating) count=5 ;;
    connected | rekeying | terminating) count=7 ;;
  esac
  expect_exit 0 100
  moment=
  case $stage-${1:-} in
    terminating-* | *-taking-leave) leave=("Terminating PPP connection") ;;
    *-hung-up) if printed "Terminating PPP connection"; then leave=("Terminating PPP connection"); fi ;;
  esac
  expect_status_lines "Starting $protocol connection..." "${UP[@]:1:count-1}" "${leave[@]}" "${END[@]}"
}
# expect_cause CAUSE [taking-leave | hung-up]
expect_cause() {
  END=("Disconnecting PPP link" "$(last_cause "$1")" "PPP Network connection disconnected" "Exit.")
  expect_end "${@:2}"
}
# expect_gone CAUSE PATTERN, expect_hung_up CAUSE PATTERN: pppd ended by itself, or because there is nothing left to talk over; a
# sentence says why.
expect_gone() {
  expect_cause "$1"
  expect_sentence "$2"
}
expect_hung_up() {
  expect_cause "$1" hung-up
  expect_sentence "$2"
}
# An end that has begun already ends as it would have.
expect_end_as_begun() { expect_cause 5; }
taking_leave() {
  case $stage in negotiating | authenticating | connected | rekeying) echo taking-leave ;; esac
}

# ---- The tool

fault_SIGKILL() { die_of KILL; }
fault_SIGTERM() { die_of TERM; }
fault_SIGINT() { die_of INT; }
fault_SIGHUP() { die_of HUP; }
# die_of SIGNAL: to everybody in the terminal's foreground, by its own means if it has any.
die_of() {
  say "SIG$1"
  case $1 in
    INT | HUP) signal cli vpnctl "$1" ;;
    *) on cli kill "-$1" -- "-$(<"$logs/tool.pid")" ;;
  esac
  expect_exit "$((128 + $(kill -l "$1")))" 20
}
fault_SIGUSR1() {
  signal cli tool USR1
  expect_cause 5 "$(taking_leave)"
}

# ---- What works for it on the client

fault_pppd_killed() {
  kill_named cli pppd
  if [ "$stage" = terminating ]; then
    expect_end_as_begun
  else
    expect_gone 1 "pppd was ended by signal 9\."
  fi
}
fault_helper_killed() {
  local repairs
  repairs=$(repairs_told)
  kill_named cli vpnctl-helper
  END=("Error: The VPN service is not there" "Unknown status" "Exit.")
  expect_end
  say "the next helper repairs what was left" # the one that this tool's last call started, or the next run's
  write_config ip=127.0.0.1
  start_vpnctl
  expect_exit 0
  [ "$(repairs_told)" -gt "$repairs" ] || fail "the PPP log does not tell of a repair"
  write_config_of_cell
  moment=
}
# It is told before the tool copies the log.
repairs_told() { grep -c "An earlier connection ended without tidying up" "$(root_of cli)/var/log/ppp.log" || true; }
fault_ike_killed() {
  kill_named cli vpnctl-ike
  case $stage in
    ike) expect_failed "The process that speaks IKE .* while it was needed" ;;
    control) expect_failed "$WITHOUT_IKE" ;;
    terminating) expect_end_as_begun ;;
    *) expect_hung_up 16 "$WITHOUT_IKE" ;;
  esac
}
# One that hangs, and one that hardly gets to run: the link goes on, and ends at once when it is told to.
fault_ike_stopped() {
  signal_named cli STOP vpnctl-ike
  expect_nothing_amiss
}
fault_ike_starved() {
  # In one process on the host: what is to be seen of the stage should not be over by then.
  # shellcheck disable=SC2016 # expanded on the host
  on cli bash -c 'for _ in 1 2 3 4 5 6; do
    kill -STOP "$1"
    read -r -t 0.2 -u "$2"
    kill -CONT "$1"
    read -r -t 0.02 -u "$2"
  done
  true' bash "$(pid_on cli vpnctl-ike)" "$never_fd"
  expect_nothing_amiss
}
expect_nothing_amiss() {
  if [ "$stage" = terminating ]; then
    expect_end_as_begun
    return
  fi
  if [ "$stage" = connected ]; then expect_ping "$TUNNEL_SERVER"; fi
  fault_SIGUSR1
}
WITHOUT_IKE="The process that speaks IKE .*without it the IPSec association cannot be kept"
expect_failed() {
  expect_exit 0 60
  moment=
  expect_tunnel_failure "$1"
}
# ---- The server and the wire

fault_server_killed() {
  kill_named srv "${SERVER_PROCESSES[@]}"
  case $protocol-$stage in
    pptp-control) expect_failed "The PPTP server $SERVER closed the control connection without an answer" ;;
    pptp-*) expect_goodbye "The PPTP server $SERVER has closed the control connection" ;;
    *) expect_silence_noticed ;; # its kernel says only in clear that nobody is there any more, and that is not believed
  esac
}
fault_server_silent() {
  [ "$stage" = ike ] || fall_silent
  expect_silence_noticed
}
fault_cable_pulled() {
  on rtr ip link set cli down
  WIRE+=(unplugged)
  expect_silence_noticed
}
# expect_silence_noticed: nobody says anything any more, and we find out.
expect_silence_noticed() {
  case $protocol-$stage in
    *-ike) expect_failed "The server $NOBODY does not answer on UDP port 500" ;;
    pptp-control) expect_failed "The PPTP server $SERVER accepts TCP connections but does not answer as a PPTP server" ;;
    l2tp-control) expect_failed "The L2TP server $SERVER (refuses|does not answer on) UDP port 1701" ;;
    pptp-negotiating) expect_gone 16 "blocks GRE" ;;
    l2tp-negotiating) expect_gone 16 "not one packet of PPP arrived" ;;
    *-terminating) expect_end_as_begun ;;
    *)
      expect_cause 15 taking-leave
      expect_sentence "The server no longer answers\."
      ;;
  esac
}

fault_ppp_lost() {
  case $protocol-$stage in
    *-negotiating) ;; # that is what holds the stage
    pptp-*) swallow gre ;;
    l2tp-authenticating) on srv nft add rule ip lab lost "$L2TP_DATA" drop ;;
    l2tp-*)
      drop_from_server "$L2TP_DATA"
      WIRE+=(dropped)
      ;;
  esac
  expect_silence_noticed
  if [ "$protocol-$stage" = l2tp-authenticating ]; then
    drop_nothing
    drop_from_server "${CHAP[@]}"
  fi
}
fault_control_lost() {
  if [ "$protocol" = pptp ]; then
    swallow tcp dport 1723
    expect_hung_up 16 "The PPTP server $SERVER no longer answers"
  else
    drop_from_server "$L2TP_CONTROL"
    WIRE+=(dropped)
    expect_hung_up 16 "The (L2TP )?server $SERVER no longer answers" # IKE may find out first
  fi
}

# ---- What the server says

# expect_goodbye PATTERN: the server says goodbye. Said while the account is checked, that may be a refusal; nobody has said so.
expect_goodbye() {
  expect_hung_up 16 "$1"
  if [ "$stage" = authenticating ]; then expect_sentence "while the account was checked"; fi
}
fault_call_ended() {
  case $protocol-$stage in
    pptp-control) expect_failed "The PPTP server $SERVER refuses the call" ;;
    l2tp-control) expect_failed "The L2TP server $SERVER refuses the call" ;;
    pptp-*)
      on srv kill -TERM "$(pid_on srv pptpctrl)"
      expect_goodbye "The PPTP server $SERVER has ended the call"
      ;;
    l2tp-*)
      kill_named srv pppd
      expect_goodbye "The L2TP server $SERVER has ended the call"
      ;;
  esac
}
fault_tunnel_ended() {
  case $protocol-$stage in
    pptp-control) expect_failed "The PPTP server $SERVER refuses the control connection" ;;
    l2tp-control) expect_failed "The L2TP server $SERVER refuses the tunnel" ;;
    pptp-*)
      signal srv peer USR1
      expect_goodbye "The PPTP server $SERVER has ended the control connection"
      ;;
    l2tp-*)
      signal srv xl2tpd TERM
      expect_goodbye "The L2TP server $SERVER has ended the tunnel"
      ;;
  esac
}
# pid_on HOST NAME: the number, on that host, of the process that bears the name.
pid_on() {
  local file name
  for file in "/proc/${HOST[$1]}/root/proc/"[0-9]*/comm; do
    { read -r name <"$file"; } 2>/dev/null || continue
    [ "$name" != "$2" ] || { file=${file%/comm} && echo "${file##*/}" && return; }
  done
  fail "there is no $2 on $1"
}
fault_ike_deleted() {
  on srv swanctl --terminate --ike l2tp --force >>"$logs/terminate.log" 2>&1
  case $stage in
    control) expect_failed "The server has ended the IPSec association" ;;
    *) expect_hung_up 16 "The server has ended the IPSec association" ;;
  esac
}
