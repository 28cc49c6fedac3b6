# What scenarios about secrets share: awkward ones, a system log, and a look that does not pause. Sourced by those that need it.

# awkward [LEAD]: 200 UTF-16 units with every character that a parser could take for syntax, among them those that take two, three
# and four bytes of UTF-8, at the end one that the keychain cuts: its items are as many bytes long as the text has units. No piece
# of it stands anywhere by chance.
awkward() {
  /usr/bin/python3 -S -c 'import random, sys
some = random.Random(sys.argv[1])
letters = lambda count: "".join(some.choices("bcdfghjkmnpqrstvwxz23456789", k=count))
text = sys.argv[1] + "quotes \" and '"'"', blanks  , \\back\\slashes\\, #hash, {a=b;} $c `d` %s "
text += "".join(chr(code) + letters(1) for code in [*range(1, 32), 127])
tail = "".join(letters(2) + character for character in "\u00e4\u20ac\U0001f512" * 5)
units = lambda text: len(text.encode("utf-16-le")) // 2
fill = letters(200 - units(text + tail))
# So many of the letters stand behind the others that the 200th byte is in the middle of a character.
text = next(whole for behind in range(len(fill) + 1)
            if b"\x80" <= (whole := text + fill[behind:] + tail + fill[:behind]).encode()[200:201] < b"\xc0")
sys.stdout.buffer.write(text.encode())' "${1:-}"
}
# as_stored TEXT: the bytes of it that the keychain keeps.
as_stored() {
  /usr/bin/python3 -S -c 'import os, sys
secret = os.fsencode(sys.argv[1])
sys.stdout.buffer.write(secret[:len(secret.decode().encode("utf-16-le")) // 2])' "$1"
}

# collect_syslog: what programs on cli tell the system's log stands in its /var/log/syslog from now on. There is one /dev for all
# hosts, but each has a /run of its own.
collect_syslog() {
  on cli ln -sfn /run/systemd/journal/dev-log /dev/log
  spawn syslog cli /usr/bin/python3 -S -u -c 'import os, socket
os.makedirs("/run/systemd/journal", exist_ok=True)
log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
log.bind("/run/systemd/journal/dev-log")
with open("/var/log/syslog", "ab", buffering=0) as file:
    while True:
        file.write(log.recv(65536) + b"\n")'
  within 30 test -S "$(root_of cli)/run/systemd/journal/dev-log" || fail "the system log does not start"
}

# watch_secrets [SECRET]...: from now on processes and /run are looked at again and again; never_shown ends it and gives the verdict.
watch_secrets() {
  [ $# -gt 0 ] || set -- "$PASSWORD" "$SHARED_SECRET"
  printf '%s\0' "$@" >"$work/watched-secrets"
  spawn watch cli /usr/bin/python3 -S -B "$lab/guest/secrets.py" --watch "$work/watched-secrets"
}
never_shown() {
  signal cli watch TERM
  wait_end watch
  [ "$exit_status" = 0 ] || fail "a secret was seen"
}
