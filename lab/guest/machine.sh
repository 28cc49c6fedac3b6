# The client where systemd is the first process of the machine: the machine itself, with its bus, polkit, ann and boss. Sourced after the
# rest of the library by "perform" for scenarios with a file "systemd".
. "$lab/guest/users.sh"

# be_client: makes the machine the host cli, with the files that make_hosts has for it.
be_client() {
  local cli=$work/hosts/cli
  HOST[cli]=1
  echo 1 >"$cli/pid"
  ln -s /lab/machine/layer "$cli/layer"
  cp -r "$cli/files/." /
  # As on the other hosts: snapshots would differ by nothing but the time they were taken at.
  echo 0 >/proc/sys/net/ipv6/conf/default/accept_dad
}

# What a connection changes on the machine, in lines that compare. Its processes come and go as systemd likes: who must not be there any
# more, vpnctl_ended says.
machine_state() {
  local family
  for family in -4 -6; do
    ip -o "$family" address
    ip "$family" route show table all
    ip "$family" rule
  done
  ip -o link
  ip xfrm state
  ip xfrm policy
  cat /etc/resolv.conf
  cut -d ' ' -f 5 /proc/self/mountinfo | sort
  find /run -name systemd -prune -o -path /run/log -prune -o ! -path /run/vpnctl ! -path /run/pppd2.tdb -print | sort
}
vpnctl_ended() {
  local names
  names=$(systemctl list-units --plain --no-legend 'vpnctl-helper@*' 'vpnctl@*')
  [ -z "$names" ] && no_process cli vpnctl vpnctl-helper vpnctl-ike pkttyagent
}
machine_as_before() { vpnctl_ended && machine_state | cmp -s "$work/hosts/cli/before" -; }

# These two as in clean.sh.
baseline() {
  local host others=()
  [ $# -gt 0 ] || set -- "${ALL_HOSTS[@]}"
  for host in "$@"; do
    if [ "$host" = cli ]; then machine_state >"$work/hosts/cli/before"; else others+=("$host"); fi
  done
  [ ${#others[@]} = 0 ] || "$cache/bin/snapshot" "$work/hosts" before "${others[@]}"
}
assert_clean() {
  [ -f "$work/hosts/cli/before" ] || return 0
  if ! within 10 machine_as_before; then
    systemctl list-units --plain --no-legend 'vpnctl*'
    machine_state | diff "$work/hosts/cli/before" - || true
    fail "something was left behind"
  fi
  "$cache/bin/snapshot" "$work/hosts" compare 15000 rtr srv out || fail "something was left behind"
}

# find_package: sets deb, the Debian package of vpnctl.
find_package() {
  local debs
  mapfile -t debs < <(compgen -G "$lab/../build/package/vpnctl_*.deb")
  [ ${#debs[@]} = 1 ] || fail "there is no package build/package/vpnctl_*.deb: build it with tools/package"
  deb=${debs[0]}
}

# machine_files: the names of all that has been written in /etc, /usr and /var, and of what is in /run. Not among them: folders that were
# there before anything was written in them, systemd's own notes of units and its folders for services, pppd's table of units, and the
# books that dpkg keeps of itself.
machine_files() {
  local kind path stock
  stock=/proc/$(</lab/stock)/root
  {
    (cd /lab/machine/layer && find etc usr var -printf '%y /%p\n')
    find /run -path /run/systemd -prune -o -printf '%y %p\n'
  } | while read -r kind path; do
    [ "$kind" != d ] || [ ! -d "$stock$path" ] || continue
    case $path in
      /var/tmp/systemd-private-*) ;; # a service's, by another name each time
      /run/pppd2.tdb | /var/lib/dpkg/lock | /var/lib/dpkg/lock-frontend | /var/lib/dpkg/status | /var/lib/dpkg/status-old) ;;
      /var/lib/dpkg/triggers/Lock | /var/log/dpkg.log) ;;
      *) echo "$kind $path" ;;
    esac
  done | sort
}

unit_is() { [ "$(systemctl show -P ActiveState "$2")" = "$1" ]; } # STATE UNIT
expect_unit() {                                                  # STATE UNIT [SECONDS]
  within "${3:-60}" unit_is "$1" "$2" && return
  systemctl status --no-pager "$2" || true
  fail "$2 is $(systemctl show -P ActiveState "$2"), not $1"
}
expect_enabled() { # UNIT...
  local unit
  for unit in "$@"; do [ "$(systemctl is-enabled "$unit")" = enabled ] || fail "$unit is not enabled"; done
}

# find_helper: sets helper and helper_pid, the only one that systemd has started for a user.
find_helper() {
  local units
  mapfile -t units < <(systemctl list-units --plain --no-legend --state=active 'vpnctl-helper@*' | cut -d ' ' -f 1)
  [ ${#units[@]} = 1 ] || fail "there is not one helper but: ${units[*]:-none}"
  helper=${units[0]}
  helper_pid=$(systemctl show -P MainPID "$helper")
}

# keep_journal: all that the journal has, among the logs and below the machine's files, where secrets are looked for.
keep_journal() {
  journalctl --quiet --no-pager -o export >/lab/machine/layer/journal
  journalctl --quiet --no-pager -o short-monotonic >"$logs/journal"
}
