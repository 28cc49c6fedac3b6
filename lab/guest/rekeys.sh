# New keys for IKE and for the packets while much is sent both ways. Sourced by l2tp-rekey and its sisters, which say before who makes
# them: REKEYED_BY is server, client, or both, and then at the same moment. How many seconds keys live, and for how many it is looked
# at, stands in the scenario's file "lifetime" (default "24 58"): copy the folder elsewhere for a long run, with a "deadline" of its own.
#
# What must arrive is everything, except what the server's kernel throws away, which counts it (/proc/net/xfrm_stat):
# - The server takes packets under new keys when it has heard our last message of the exchange and told its kernel, for which we give
#   it half a second. One that is slower gets packets of an SPI that waits for its keys (XfrmAcquireError). Where the server makes
#   the keys it has installed them before it says so, and nothing of the kind happens.
# - On a machine that is given no processor for a moment packets overtake others by more than the window of ESP (XfrmInStateSeqError).
# The client throws nothing away. IKE's keys are not made anew at the same moment as the packets': charon then forgets the one for the
# other, and its pair ends before there is a new one.
read -r lifetime seconds < <(cat "$folder/lifetime" 2>/dev/null || echo "24 58")
ike_lifetime=$((lifetime + 4))
# The client makes them anew after three quarters; the server is told that time itself.
renewed_after=$((lifetime * 3 / 4)) ike_renewed_after=$((ike_lifetime * 3 / 4))
wanted=$((seconds / renewed_after - 1)) wanted_ike=$((seconds / ike_renewed_after - 1))
PER_SECOND=70 # packets from the client, pings and answers to pings among them

# The old keys live long enough for a slow exchange.
if [ "$REKEYED_BY" != client ]; then IKE_REKEY=$ike_renewed_after ESP_REKEY=$renewed_after ESP_LIFE=$((2 * renewed_after)); fi
if [ "$REKEYED_BY" != server ]; then
  put cli /etc/vpnctl/engine.conf <<<"ike = { lifetime = $ike_lifetime; esp_lifetime = $lifetime; };"
fi

# xfrm_errors HOST: the reasons for which its kernel's IPSec threw packets away so far, and how many each.
xfrm_errors() { sed -nE 's/^(Xfrm[A-Za-z]+)\s+([1-9][0-9]*)$/\1 \2/p' "/proc/${HOST[$1]}/net/xfrm_stat"; }
# errors_since REASON: how many of these on the server, compared with $errors_before.
errors_since() {
  awk -v reason="$1" '$1 == reason { count = $2 - count } END { print count + 0 }' <(grep "^$1 " <<<"$errors_before") <(xfrm_errors srv)
}

# exchanges PATTERN: how many the server's log tells of so far.
exchanges() { grep -cE "$1" "$(root_of srv)/var/log/charon.log" || true; }
SERVERS_PAIRS='generating QUICK_MODE request [0-9]+ \[ HASH SA'
CLIENTS_PAIRS='parsed QUICK_MODE request [0-9]+ \[ HASH SA'
SERVERS_IKE='IKE\].* initiating Main Mode IKE_SA'
CLIENTS_IKE='is initiating a Main Mode IKE_SA'

tap_wire
connect_l2tp
spawn echo srv /usr/bin/python3 -S -B "$lab/guest/stream.py" echo "$TUNNEL_SERVER" 7007
within 30 grep -q echoes "$logs/echo.out" || fail "nobody echoes on the server"
errors_before=$(xfrm_errors srv)
spawn pings cli ping -n -q -i 0.1 -c $((seconds * 10)) -W 2 "$TUNNEL_SERVER"
spawn pings-back srv ping -n -q -i 0.1 -c $((seconds * 10)) -W 2 "$TUNNEL_CLIENT"
spawn stream cli /usr/bin/python3 -S -B "$lab/guest/stream.py" send "$TUNNEL_SERVER" 7007 "$seconds"
for traffic in pings pings-back stream; do wait_end $traffic $((seconds * 2 + 60)); done
signal srv echo TERM
wait_end echo

lost=0
for traffic in pings pings-back; do
  read -r sent got < <(sed -n 's/^\([0-9]*\) packets transmitted, \([0-9]*\) received.*/\1 \2/p' "$logs/$traffic.out")
  say "$traffic: $got answers to $sent"
  lost=$((lost + sent - got))
done
read -r _ sent _ got _ twice _ refused < <(tail -n 1 "$logs/stream.out")
say "stream: $got answers to $sent, $twice twice, $refused refused at the client"
lost=$((lost + sent - got))
unreadable=$(errors_since XfrmAcquireError) overtaken=$(errors_since XfrmInStateSeqError)
servers_pairs=$(exchanges "$SERVERS_PAIRS") servers_ike=$(exchanges "$SERVERS_IKE")
clients_pairs=$(($(exchanges "$CLIENTS_PAIRS") - 1)) clients_ike=$(($(exchanges "$CLIENTS_IKE") - 1))
say "new keys by the server: $servers_ike for IKE, $servers_pairs for packets; by the client: $clients_ike and $clients_pairs"
say "lost: $lost; the server could not read yet: $unreadable, and were overtaken: $overtaken"
say "thrown away by the client's IPSec: $(xfrm_errors cli | paste -sd ,); by the server's: $(xfrm_errors srv | paste -sd ,)"

case $REKEYED_BY in
  server)
    [ "$servers_pairs" -ge "$wanted" ] && [ "$servers_ike" -ge "$wanted_ike" ] || fail "the server has not made new keys often enough"
    [ "$clients_ike $clients_pairs" = "0 0" ] || fail "the client has made new keys"
    [ "$unreadable" = 0 ] || fail "the server did not know keys that it has made"
    ;;
  client)
    [ "$clients_pairs" -ge "$wanted" ] && [ "$clients_ike" -ge "$wanted_ike" ] || fail "the client has not made new keys often enough"
    [ "$servers_ike $servers_pairs" = "0 0" ] || fail "the server has made new keys"
    ;;
  both)
    [ $((servers_pairs + clients_pairs)) -ge "$wanted" ] && [ $((servers_ike + clients_ike)) -ge "$wanted_ike" ] ||
      fail "new keys have not been made often enough"
    [ $((servers_pairs + servers_ike)) -gt 0 ] && [ $((clients_pairs + clients_ike)) -gt 0 ] || fail "only one has made new keys"
    ;;
esac
[ -z "$(xfrm_errors cli)" ] || fail "the client's IPSec threw packets away: $(xfrm_errors cli | paste -sd ,)"
[ "$twice $refused" = "0 0" ] || fail "of the stream $twice came twice, and $refused were refused"
[ "$lost" -le $((unreadable + overtaken)) ] || fail "$lost packets were lost"
[ "$unreadable" -le $((PER_SECOND * clients_pairs / 2)) ] || fail "the server's keys come later than half a second after ours: $unreadable packets"

# What vpnctl-ike has agreed on is the kernel's, and nobody's else.
for process in vpnctl-ike vpnctl-helper; do
  seen=$(esp_keys_not_in_memory $process) || fail "$process knows keys of the kernel's: $seen"
done
expect_no_line "Disconnecting PPP link"
disconnect_usual
# What the server had just begun when the link ended it would wait for, for minutes.
[ "$REKEYED_BY" = client ] || on srv swanctl --terminate --ike l2tp --force >"$logs/terminate.log" 2>&1 || true
expect_status_lines "${UP_L2TP[@]}" "${DOWN[@]}"
assert_nothing_in_clear
