# A server that negotiates anew, falls silent, gives another address, says nonsense, in any order, to one vpnctl after another. While
# a link is up, and until it ends, nothing goes past the tunnel. Sourced after mangled.sh and past.sh. How often stands in the
# scenario's file "sequences" (default 3): copy the folder elsewhere for a long run, with a "deadline" of its own.
sequences=$(cat "$folder/sequences" 2>/dev/null || echo 3)
start_parts "wild 1"
count_past
for ((sequence = 1; sequence <= sequences; ++sequence)); do
  say "sequence $sequence"
  start_vpnctl
  wait_status "PPP Connected"
  before=$(gone_past)
  start_pinging
  prompt
  ends_with_nothing_past "$before"
done
