# How long until the link has its address, how long its end takes, and how much memory vpnctl needs meanwhile.

bench_connect() {
  local run way host command stop after key value name ways associated
  case $protocol in
    pptp) ways=(vpnctl networkmanager by-hand by-hand-no-delay) ;;
    l2tp) ways=(vpnctl networkmanager by-hand) ;;
  esac
  for ((run = 0; run <= runs; run++)); do
    for way in "${ways[@]}"; do
      way "$way"
      make_ready "$way"
      attempt "$way" observe || continue
      associated=
      while read -r key value name; do
        case $key in
          association) associated=$value ;;
          link)
            figure "$way" link "$value"
            [ -z "$associated" ] || figure "$way" associated "$associated" # the last one before; a later one is a rekeying
            ;;
          line)
            case $name in
              "Connecting PPP link") figure "$way" started "$value" ;;
              "PPP Connected") figure "$way" connected "$value" ;;
            esac
            ;;
          address) figure "$way" seconds "$value" && echo "$protocol $way: $value s" ;;
          peak) figure "$way" "peak $name" "$value" ;;
          ended) figure "$way" ended "$name" ;;
          gone) figure "$way" gone "$value" ;;
        esac
      done <"$work/seen"
      rest "$way"
    done
  done
}

observe() { on "$host" "$cache/bin/observer" ppp0 "$stop" "${after[@]}" "${command[@]}" >"$work/seen" 2>"$logs/$protocol.$way.$run.err"; }
