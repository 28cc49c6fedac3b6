# How much goes through, both directions, and what it costs.

# CPU time of the whole machine so far, in hundredths of a second: user, nice, system, irq, softirq.
cpu_time() {
  local user nice system irq softirq
  read -r _ user nice system _ _ irq softirq _ </proc/stat
  echo $((user + nice + system + irq + softirq))
}

transfer() { # HOST WAY DIRECTION ADDRESS [OPTION]
  local host=$1 way=$2 direction=$3 address=$4 before
  shift 4
  before=$(cpu_time)
  on "$host" iperf3 -J -t 4 -c "$address" "$@" >"$work/iperf" || fail "iperf3 failed: $(head -c 500 "$work/iperf")"
  figure "$way" "$direction cpu" "$(($(cpu_time) - before))"
  figure "$way" "$direction bits" "$(received bytes '* 8')"
  figure "$way" "$direction rate" "$(received bits_per_second)"
}
received() { /usr/bin/python3 -S -c "import json, sys; print(json.load(sys.stdin)['end']['sum_received']['$1'] ${2:-})" <"$work/iperf"; }

# A pair of virtual links hands the sender's own buffer to the receiver, whose socket is then charged with what the sender had
# set aside for it: 4352 bytes for each packet of the kernel's PPTP, be it an acknowledgement of 52 bytes. No real wire does
# that; there every packet lies in a buffer of the receiver's making. So the router copies what goes over it, as a wire
# would, and throws the original away.
copy_packets() {
  local end link address
  {
    echo 'table ip wire {'
    echo 'chain prerouting {'
    echo 'type filter hook prerouting priority raw'
    for end in "cli $CLIENT" ${HOST[nm]:+"nm $NM_CLIENT"}; do
      read -r link address <<<"$end"
      printf '%s\n' "iifname $link ip daddr $SERVER dup to $SERVER device srv" "iifname $link ip daddr $SERVER drop" \
        "iifname srv ip daddr $address dup to $address device $link" "iifname srv ip daddr $address drop"
    done
    printf '}\n}\n'
  } | on rtr nft -f -
}

# Twice: with the room that the kernel gives a socket, and with much. pptpd reads packet by packet, here much slower than
# the wire is, and when its socket overflows the transfer stands still for some tenths of a second.
bench_throughput() {
  local run way host command stop after name room usual ways rooms
  usual=$(</proc/sys/net/core/rmem_default)
  case $protocol in
    pptp) ways=(vpnctl networkmanager by-hand-same-mtu) rooms=("$usual" 4194304) ;;
    l2tp) ways=(vpnctl networkmanager) rooms=("$usual") ;;
  esac
  on rtr nft list table ip wire >/dev/null 2>&1 || copy_packets
  running_now iperf || spawn iperf srv iperf3 -s -4 --logfile /var/log/iperf.log
  within 30 listens 5201 || fail "iperf3 does not listen"
  for ((run = 1; run <= runs; run++)); do
    transfer cli bare-wire up "$SERVER"
    transfer cli bare-wire down "$SERVER" -R
    for room in "${rooms[@]}"; do
      for way in "${ways[@]}"; do
        echo "$room" >/proc/sys/net/core/rmem_default
        way "$way"
        make_ready "$way"
        attempt "$way" connect_by "$way" || continue
        name=$way
        [ "$room" = "$usual" ] || name=$way-much-room
        transfer "$host" "$name" up "$TUNNEL_SERVER"
        transfer "$host" "$name" down "$TUNNEL_SERVER" -R
        echo "$protocol $name: run $run done"
        disconnect_by "$way"
      done
    done
    echo "$usual" >/proc/sys/net/core/rmem_default
  done
}

connect_by() {
  spawn "$1" "$host" "${command[@]}"
  within 90 answers_or_over "$1" && answers
}
answers_or_over() {
  answers && return
  ended "$1" || return
  wait_end "$1"
  # A command that only orders the link has ended well when there is one.
  [ "$exit_status" != 0 ]
}
answers() { on "$host" ping -n -q -c 1 -W 2 -I ppp0 "$TUNNEL_SERVER" >/dev/null 2>&1; }
disconnect_by() {
  case $stop in
    *[!0-9]*)
      wait_end "$1"
      on "$host" $stop >/dev/null
      ;;
    *)
      signal "$host" "$1" "$stop"
      wait_end "$1"
      ;;
  esac
  rest "$1"
}
