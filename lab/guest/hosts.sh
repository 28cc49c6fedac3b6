# The hosts of a scenario, and how to act on them.
#
#   cli ---- rtr ---- srv ---- 192.168.77.1 (a network behind the server)
#             |
#            out (elsewhere, reached over the default route)
#
# cli is where vpnctl runs; its default route goes to rtr. Outer addresses differ from slot to slot, because the kernel
# keeps one table of PPTP calls for all network namespaces and would confuse two servers of the same address.

CLIENT=10.$slot.1.2
ROUTER=10.$slot.1.1
SERVER=10.$slot.2.2
BEHIND=192.168.77.1    # behind the server, reached only through it
ELSEWHERE=203.0.113.$((6 + slot)) # reached over whatever the default route is
TUNNEL_SERVER=10.99.0.1 # the server's end of the tunnel
TUNNEL_CLIENT=10.99.0.2
NOBODY=10.$slot.9.9    # packets to it are dropped without a word

declare -A HOST # name -> pid of its first process

say() { echo "$*"; }

fail() {
  trap - ERR
  echo "$*" >"$logs/reason"
  echo "FAILED: $*"
  exit 1
}

# Waits a moment without starting a process: nobody ever writes to this pipe.
mkdir -p "$work"
[ -p "$work/never" ] || mkfifo "$work/never"
exec {never_fd}<>"$work/never"
moment() { read -r -t 0.05 -u "$never_fd" || true; }

# within SECONDS COMMAND...: asks again and again until COMMAND answers yes, or the time is over.
within() {
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    [ "$SECONDS" -lt "$end" ] || return 1
    moment
  done
}

# on HOST COMMAND...: runs a command there and waits for it.
on() {
  local host=$1
  shift
  nsenter -t "${HOST[$host]}" -m -n -p -u -i -- "$@"
}

# root_of HOST: the host's file system as seen from here, for reading and writing its files without starting a process there.
root_of() { echo "/proc/${HOST[$1]}/root"; }

put() { # HOST PATH [MODE]: writes standard input into a file
  local path
  path=/proc/${HOST[$1]}/root$2
  mkdir -p "${path%/*}"
  cat >"$path"
  chmod "${3:-644}" "$path"
}

# lay_over KIND [HOST [FOLDER]]: the packages of that kind (tools/packages) are there on that host (cli), as if installed, and in its
# /usr what lies in FOLDER.
lay_over() {
  local host=${2:-cli} folder=${3:+$3:} root=$cache/$1/root directory
  [ -d "$root/usr" ] || fail "there are no packages of the kind $1"
  on "$host" mount -t overlay -o "lowerdir=$folder$root/usr:/usr" layer /usr
  for directory in etc var; do
    [ ! -d "$root/$directory" ] || cp -a "$root/$directory/." "$(root_of "$host")/$directory/"
  done
}

ALL_HOSTS=(cli rtr srv out)

# The hosts stand, with the scenario's own files on them: everything below files/HOST lies on HOST from the start.
make_hosts() {
  local host made=("${ALL_HOSTS[@]}") stock=()
  for host in "${ALL_HOSTS[@]}"; do
    mkdir -p "$work/hosts/$host/files/etc/strongswan.d"
    charon_log >"$work/hosts/$host/files/etc/strongswan.d/lab.conf"
    echo "$host" >"$work/hosts/$host/files/etc/hostname"
    printf '127.0.0.1 localhost\n%s server.lab.test\n' "$SERVER" >"$work/hosts/$host/files/etc/hosts"
    echo "nameserver $ROUTER" >"$work/hosts/$host/files/etc/resolv.conf"
    [ ! -d "$folder/files/$host" ] || cp -r "$folder/files/$host/." "$work/hosts/$host/files/"
  done
  if [ -n "${systemd:-}" ]; then
    made=("${made[@]:1}")
    stock=(nsenter -t "$(</lab/stock)" -m)
    be_client
  fi
  "${stock[@]}" "$cache/bin/hosts" "$work/hosts" "${made[@]}" >"$logs/hosts.log" 2>&1 || fail "the hosts did not come up"
  for host in "${ALL_HOSTS[@]}"; do HOST[$host]=$(<"$work/hosts/$host/pid"); done
  # Where the client is the machine itself, from the router, which has no eth0 of its own.
  ${systemd:+nsenter -t "${HOST[rtr]}" -n} ip -batch - <<EOF
link add eth0 netns ${HOST[cli]} type veth peer name cli netns ${HOST[rtr]}
link add eth0 netns ${HOST[srv]} type veth peer name srv netns ${HOST[rtr]}
link add eth0 netns ${HOST[out]} type veth peer name out netns ${HOST[rtr]}
EOF
  # Answers from elsewhere find the tunnel's client through the server; what the client sends to the tunnel's addresses
  # outside the tunnel gets nowhere, or a ping would prove nothing.
  configure rtr <<EOF
addr add $ROUTER/24 dev cli
addr add 10.$slot.2.1/24 dev srv
addr add 203.0.113.1/24 dev out
link set cli up
link set srv up
link set out up
route add 10.99.0.0/24 via $SERVER
route add blackhole $NOBODY
rule add iif cli to 10.99.0.0/16 blackhole
EOF
  configure cli <<EOF
addr add $CLIENT/24 dev eth0
link set eth0 up
route add default via $ROUTER
EOF
  configure srv <<EOF
addr add $SERVER/24 dev eth0
link set eth0 up
link add lan type dummy
addr add $BEHIND/24 dev lan
link set lan up
route add default via 10.$slot.2.1
EOF
  configure out <<EOF
addr add $ELSEWHERE/24 dev eth0
link set eth0 up
route add default via 203.0.113.1
EOF
  within 20 settled || fail "the links did not come up"
}

# The kernel gives a link its IPv6 address and routes a moment after it came up; before that, no snapshot is worth comparing.
settled() {
  local host line links
  for host in "${ALL_HOSTS[@]}"; do
    links=0
    while read -r line; do [[ $line == *" lo" ]] || links=$((links + 1)); done <"/proc/${HOST[$host]}/net/if_inet6"
    case $host in rtr) [ "$links" = 3 ] ;; srv) [ "$links" = 2 ] ;; *) [ "$links" = 1 ] ;; esac || return 1
  done
}

configure() { on "$1" ip -batch -; }

# spawn NAME HOST COMMAND...: starts a command in the background on a host. Its output goes to the screen as it comes, and
# to $logs/NAME.out and $logs/NAME.err; its number on the host is in $logs/NAME.pid. The signals that bash ignores in its
# background, Ctrl-C among them, are put back to what a program expects.
declare -A SPAWNED READERS EXITED
spawn() {
  local name=$1 host=$2 out_fd err_fd
  shift 2
  rm -f "$logs/$name.pid"
  unset "EXITED[$name]"
  : >"$logs/$name.out"
  : >"$logs/$name.err"
  exec {out_fd}> >(exec sed -u -e "w $logs/$name.out" -e "s/^/$name: /")
  READERS[$name]=$!
  exec {err_fd}> >(exec sed -u -e "w $logs/$name.err" -e "s/^/$name: /")
  READERS[$name]+=" $!"
  env --default-signal nsenter -t "${HOST[$host]}" -m -n -p -u -i -- bash -c 'cd && echo $$ >"$0.new" && mv "$0.new" "$0" && exec "$@"' \
    "$logs/$name.pid" "$@" >&"$out_fd" 2>&"$err_fd" {never_fd}>&- {out_fd}>&- {err_fd}>&- &
  SPAWNED[$name]=$!
  exec {out_fd}>&- {err_fd}>&-
  within 30 test -f "$logs/$name.pid" || fail "$name did not start"
}

# A child that has ended counts as ended although bash has not noticed yet: it may miss the signal, and loops of its own words
# give it no second chance.
running() { [ -z "${EXITED[$1]:-}" ] && ! not_running "${SPAWNED[$1]}"; }
ended() { ! running "$1"; }
running_now() { [ -n "${SPAWNED[$1]:-}" ] && running "$1"; } # also for what was never started

# signal NAME SIGNAL: to what was spawned under that name on HOST.
signal() { on "$1" kill "-$3" "$(<"$logs/$2.pid")"; }

# show_processes: what every thread of the client's processes is doing, for a look at what does not end.
show_processes() {
  local task comm stat
  for task in "/proc/${HOST[cli]}/root/proc/"[0-9]*/task/[0-9]*; do
    { read -r comm <"$task/comm" && read -r stat <"$task/stat"; } 2>/dev/null || continue
    stat=${stat##*) }
    say "thread ${task#"/proc/${HOST[cli]}/root/proc/"} $comm: state ${stat%% *}, in $(<"$task/wchan"), $(<"$task/syscall")"
  done 2>/dev/null
  say "outside: $(cat "/proc/${SPAWNED[vpnctl]:-self}/stat" 2>/dev/null) $(cat "/proc/${SPAWNED[vpnctl]:-self}/wchan" 2>/dev/null)"
}

# Waits for the end of what was spawned; leaves its exit status in $exit_status.
wait_end() {
  local name=$1 reader
  exit_status=${EXITED[$name]:-}
  [ -z "$exit_status" ] || return 0
  within "${2:-60}" ended "$name" || { show_processes; fail "$name still runs after ${2:-60} s"; }
  exit_status=0
  { wait "${SPAWNED[$name]}" || exit_status=$?; } 2>/dev/null # bash would tell at length of a killed child
  EXITED[$name]=$exit_status
  # Its streams end with it: somebody who keeps them open longer would keep a caller's pipe open, too.
  for reader in ${READERS[$name]}; do
    within 5 not_running "$reader" || fail "somebody holds the output of $name open after its end"
  done
}
# no_process HOST NAME...: no process of the host bears one of these names.
no_process() {
  local file name wanted
  for file in "/proc/${HOST[$1]}/root/proc/"[0-9]*/comm; do
    { read -r name <"$file"; } 2>/dev/null || continue
    for wanted in "${@:2}"; do [ "$name" != "$wanted" ] || return 1; done
  done
}
not_running() {
  local stat
  { read -r stat <"/proc/$1/stat"; } 2>/dev/null || return 0
  [[ $stat == *") Z "* ]]
}
