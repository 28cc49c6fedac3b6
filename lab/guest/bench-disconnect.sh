# How long until all is over: after SIGUSR1 until the tool has ended, after SIGKILL until everything else has, too. At that moment
# the machine is as it was found.

bench_disconnect() {
  local run signal host command stop after key value name
  baseline cli
  for ((run = 0; run <= runs; run++)); do
    for signal in USR1 KILL; do
      way vpnctl
      on cli "$cache/bin/observer" ppp0 "$(kill -l "$signal")" "${after[@]}" "${command[@]}" >"$work/seen" \
        2>"$logs/$protocol.$signal.$run.err" || fail "vpnctl did not connect over $protocol, or did not end"
      "$cache/bin/snapshot" "$work/hosts" compare 0 cli || fail "something was left behind when all had ended"
      while read -r key value name; do
        case $key in
          ended) figure "$signal" ended "$name" ;;
          clean) figure "$signal" clean "$value" && echo "$protocol SIG$signal: clean after $value s" ;;
        esac
      done <"$work/seen"
      rest vpnctl
    done
  done
}
