# Somebody else's tunnel between networks on cli and out, as an administrator would have it, and ours beside it. Sourced by the scenarios
# that say whose IKE daemon cli has.

OFFICE_HERE=172.20.1 OFFICE_THERE=172.20.2
OFFICE_SECRET="the secret of the office"

# start_office: the networks, and the other end of the tunnel. cli's daemon is the scenario's own.
start_office() {
  on cli ip -batch - <<EOF
link add office type dummy
addr add $OFFICE_HERE.1/24 dev office
link set office up
EOF
  on out ip -batch - <<EOF
link add office type dummy
addr add $OFFICE_THERE.1/24 dev office
link set office up
EOF
  start_charon out
  office_for_charon "$ELSEWHERE" "$CLIENT" "$OFFICE_THERE.0/24" "$OFFICE_HERE.0/24" | load_ipsec out
}
office_for_charon() { # LOCAL REMOTE LOCAL-NETWORK REMOTE-NETWORK
  cat <<EOF
connections {
  office {
    version = 2
    local_addrs = $1
    remote_addrs = $2
    proposals = aes256-sha256-ecp256
    local {
      auth = psk
    }
    remote {
      auth = psk
    }
    children {
      office {
        local_ts = $3
        remote_ts = $4
        esp_proposals = aes256-sha256
      }
    }
  }
}
secrets {
  ike-office {
    id-1 = $1
    id-2 = $2
    $(secret_bytes "$OFFICE_SECRET")
  }
}
EOF
}

office_pings() { on cli ping -n -q -c 1 -W 2 -I "$OFFICE_HERE.1" "$OFFICE_THERE.1" >/dev/null 2>&1; }
# office_now: the association as out knows it, and what the scenario's office_here adds of cli's daemon.
office_now() {
  connections_of out | grep -o 'spi-in=[0-9a-f]*'
  office_here
}
office_works() {
  local now
  within 20 office_pings || fail "the foreign tunnel carries nothing"
  now=$(office_now)
  [ "$now" = "$office_before" ] || {
    diff <(echo "$office_before") <(echo "$now") || true
    fail "the foreign tunnel is not the same any more"
  }
}

# connect_beside_office: ours comes and goes beside it.
connect_beside_office() {
  office_before=$(office_now)
  office_works
  connect_l2tp
  expect_ping "$TUNNEL_SERVER"
  office_works
  disconnect_usual
  office_works
  assert_clean
  # Also if nobody is left to take ours down, and the next one finds it.
  start_vpnctl
  wait_status "PPP Connected"
  kill_named cli vpnctl-helper vpnctl
  wait_end vpnctl
  start_vpnctl
  wait_status "PPP Connected"
  office_works
  disconnect_usual
  office_works
  kill_server # its L2TP side was told nothing by the helper that died
}
