# The ways to connect that are compared: what to start, where, and how it is ended.

# way NAME: leaves the command in $command, its host in $host, in $stop the number of the signal or the command that ends it, and
# in $after how the observer knows that the connection is complete, if not by its address.
way() {
  host=cli stop=15 after=()
  case $protocol-$1 in
    *-networkmanager) host=nm command=(nmcli connection up "$protocol") stop="nmcli connection down $protocol" ;;
    *-vpnctl) command=("$VPNCTL" -c "$CONFIG") stop=10 after=(--after "PPP Connected") ;;
    pptp-by-hand) by_hand_pptp ;;
    pptp-by-hand-no-delay) by_hand_pptp connect-delay 0 ;;
    pptp-by-hand-same-mtu) by_hand_pptp mtu 1448 mru 1448 ;; # vpnctl's, so that only the data paths differ
    l2tp-by-hand) command=(bash -c "$BY_HAND_L2TP") ;;
    *) fail "there is no way $1 for $protocol" ;;
  esac
}
by_hand_pptp() {
  command=(pppd nodetach pty "pptp $SERVER --nolaunchpppd --nohostroute" user "$USER_NAME" noauth refuse-eap
    require-mppe-128 nodefaultroute "$@")
}
# What one would type, in the order in which one would type it.
BY_HAND_L2TP='
  ending() {
    echo "d by-hand" >/run/l2tp-control
    while [ -e /sys/class/net/ppp0 ]; do read -r -t 0.05 -u "$never" || true; done
    kill -INT "$xl2tpd"
    wait "$xl2tpd"
    swanctl --terminate --ike by-hand
    exit
  }
  [ -p /run/never ] || mkfifo /run/never
  exec {never}<>/run/never
  swanctl --initiate --child by-hand || exit
  xl2tpd -D -c /etc/xl2tpd/by-hand.conf -C /run/l2tp-control -p /run/xl2tpd.pid &
  xl2tpd=$!
  trap ending TERM
  wait'

# make_ready WAY: the IKE daemon of cli runs for whoever needs it, and for nobody else.
make_ready() {
  case $protocol-$1 in
    *-networkmanager | pptp-*) ;;
    l2tp-vpnctl) ! running_now charon-cli || stop_charon cli ;;
    l2tp-*) running_now charon-cli || prepare_by_hand_l2tp >/dev/null ;;
  esac
}

# Between two runs all ends are idle again.
CLIENT_PROCESSES=(pppd pptp xl2tpd vpnctl-helper vpnctl-ike starter)
idle() {
  local end
  for end in cli nm; do
    [ -z "${HOST[$end]:-}" ] || { no_ppp "$end" && no_process "$end" "${CLIENT_PROCESSES[@]}"; } || return 1
  done
  no_ppp srv && no_process srv pppd && { [ -z "${HOST[nm]:-}" ] || no_process nm charon; }
}
rest() { within 60 idle || fail "a link of $1 outlived its run"; }

# attempt WAY COMMAND...: must succeed, except for NetworkManager: it gives a plugin 10 seconds to connect, and the one for L2TP
# spends them on starting all of strongSwan, which takes longer here when the machine is busy. Then it has two more tries, and
# after that no figure. Status 1 if there is none.
attempt() {
  local way=$1 tries=3
  shift
  until "$@"; do
    [ "$way" = networkmanager ] || fail "$way did not connect over $protocol, or did not end"
    say "$way failed over $protocol"
    on "$host" $stop >/dev/null 2>&1 || true # it may count as connected what carries nothing
    rest "$way"
    tries=$((tries - 1))
    [ "$tries" -gt 0 ] || return 1
  done
}
