# Users who are not root, polkit, and an administrator's password. Sourced by the scenarios that need it.
#
# ann has no rights of her own, boss is an administrator (in the group sudo).

ADMIN_PASSWORD="the boss's own"

# make_users ROOT: the users of the bus and of polkit, ann and boss, on the machine with that root folder.
make_users() {
  local root=$1
  cat >>"$root/etc/passwd" <<EOF
messagebus:x:900:900::/nonexistent:/usr/sbin/nologin
polkitd:x:901:901::/nonexistent:/usr/sbin/nologin
ann:x:2000:2000::/home/ann:/bin/bash
boss:x:2001:2001::/home/boss:/bin/bash
EOF
  printf '%s\n' messagebus:x:900: polkitd:x:901: ann:x:2000: boss:x:2001: >>"$root/etc/group"
  sed 's/^sudo:.*/sudo:x:27:boss/' "$root/etc/group" >"$root/etc/group.new"
  mv "$root/etc/group.new" "$root/etc/group"
  printf '%s:%s:20000:0:99999:7:::\n' boss "$(openssl passwd -6 -stdin <<<"$ADMIN_PASSWORD")" >>"$root/etc/shadow"
  cat >"$root/etc/pam.d/polkit-1" <<EOF
auth required pam_unix.so
account required pam_unix.so
session required pam_permit.so
EOF
}

# start_polkit: the system bus and polkit run on cli, as the packages bring them, and somebody starts a helper for each who connects to
# /run/vpnctl.socket.
start_polkit() {
  local cli extra=$work/extra
  cli=$(root_of cli)
  mkdir -p "$extra/share/polkit-1/actions" "$extra/lib/polkit-1"
  cp "$lab/../packaging/org.vpnctl.system-preferences.policy" "$extra/share/polkit-1/actions"
  # As the package's own script would do it.
  install -m 4755 "$cache/polkit/root/usr/lib/polkit-1/polkit-agent-helper-1" "$extra/lib/polkit-1"
  lay_over polkit cli "$extra"
  make_users "$cli"
  mkdir -p "$cli/run/dbus" "$cli/var/lib/polkit-1" "$cli/etc/polkit-1/rules.d"
  on cli chown polkitd:polkitd /var/lib/polkit-1
  spawn bus cli dbus-daemon --system --nofork --nopidfile
  within 30 test -S "$cli/run/dbus/system_bus_socket" || fail "the system bus does not start"
  spawn polkitd cli /usr/lib/polkit-1/polkitd --no-debug
  within 60 polkit_answers || fail "polkit does not start"
  spawn activation cli systemd-socket-activate --accept --inetd -l /run/vpnctl.socket "$HELPER"
  within 30 test -S "$cli/run/vpnctl.socket" || fail "nobody listens on /run/vpnctl.socket"
  on cli chmod 666 /run/vpnctl.socket
}
# trust USER: polkit has no question for him.
trust() {
  mkdir -p "$(root_of cli)/etc/polkit-1/rules.d"
  put cli "/etc/polkit-1/rules.d/10-$1.rules" <<EOF
polkit.addRule(function(action, subject) {
  if (action.id == "org.vpnctl.system-preferences" && subject.user == "$1") return polkit.Result.YES;
});
EOF
}
# Asks the bus, which would start another one for whoever asks polkit itself.
polkit_answers() {
  on cli dbus-send --system --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.NameHasOwner \
    string:org.freedesktop.PolicyKit1 2>/dev/null | grep -q "boolean true"
}

# readable_for_users: the configuration lies where ann can read it.
readable_for_users() {
  on cli chmod 711 /root
  on cli chmod 644 "$CONFIG"
}

# start_as ann [PASSWORD...]: the tool, in a terminal at which these are typed, one after another.
start_as() {
  local user=$1
  shift
  printf '%s\n' "$@" >"$work/answers"
  [ -f "$work/hosts/cli/before" ] || baseline
  spawn vpnctl cli /usr/bin/python3 -S -B "$lab/guest/terminal.py" "$user" "$work/answers" "$VPNCTL" -c "$CONFIG"
}
# expect_terminal TEXT: it appeared there.
expect_terminal() { grep -q "^terminal: .*$1" "$logs/vpnctl.out" || fail "the terminal did not show \"$1\""; }
