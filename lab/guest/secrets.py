"""Looks for secrets where they must not be seen: secrets.py [--watch] SECRETS LAYER CONFIG

SECRETS is a file with the secrets, a zero byte after each. Searches the arguments and the environment of every process of the
host, /run, /dev/shm, and every file that was written on the host (LAYER), except CONFIG; core dumps and logs are among the
files. Prints where one was found; status 0 if nowhere. With --watch it looks at processes and /run again and again, as quickly
as it can, until SIGTERM. Knows a secret in the forms in which programs let secrets slip: as it is, as UTF-16, as
hexadecimal digits, as base64 at any offset, as percent escapes.
"""
import base64
import os
import signal
import sys
import urllib.parse


def forms(plain):
    text = plain.decode(errors="replace")  # the wide forms of what is no text are nobody's forms
    shapes = {"as it is": plain, "UTF-16LE": text.encode("utf-16-le"), "UTF-16BE": text.encode("utf-16-be"),
              "percent escapes": urllib.parse.quote(plain, safe="").encode(),
              "octal or XML escapes": plain.replace(b"#", b"&#35;")}
    for name, data in list(shapes.items())[:3]:
        shapes[name + " in hex"] = data.hex().encode()
        shapes[name + " in upper-case hex"] = data.hex().upper().encode()
        shapes[name + " in spaced hex"] = data.hex(" ").encode()
        for offset in range(3):
            # The characters that do not depend on the neighbours: what precedes fills up to three bytes.
            text = base64.b64encode(bytes(offset) + data)
            shapes[f"{name} in base64 at {offset}"] = text[[0, 2, 3][offset]:len(text) // 4 * 4 - 4]
    return {name: data for name, data in shapes.items() if len(data) > 5}


def files(root):
    for folder, _, names in os.walk(root):
        for name in names:
            path = os.path.join(folder, name)
            if os.path.isfile(path) and not os.path.islink(path):
                yield path


def passing():
    """What comes and goes within a connection."""
    for pid in filter(str.isdigit, os.listdir("/proc")):
        for what in ("cmdline", "environ"):
            yield f"/proc/{pid}/{what}"
    yield from files("/run")


def lasting(layer, config):
    yield from files("/dev/shm")
    yield from (entry.path for entry in os.scandir("/") if entry.is_file(follow_symlinks=False))
    for path in files(layer):
        if path != layer + config:
            yield path


class Search:
    def __init__(self, secrets):
        self.wanted = {(which, name): form for which, secret in enumerate(secrets, 1) for name, form in forms(secret).items()}
        self.searched = 0
        self.found = False

    def look(self, places):
        for path in places:
            try:
                with open(path, "rb") as file:
                    data = file.read()
            except OSError:
                continue  # a process that has just ended
            self.searched += 1
            for (which, name), form in self.wanted.items():
                if form in data:
                    print(f"the {'secret' if which == 1 else f'secret {which}'} ({name}) stands in {path}", flush=True)
                    self.found = True


def main(arguments):
    watch = arguments[0] == "--watch"
    with open(arguments[watch], "rb") as file:
        secrets = file.read().split(b"\0")[:-1]
    search = Search(secrets)
    rounds = 0
    ended = []
    if watch:
        signal.signal(signal.SIGTERM, lambda *_: ended.append(True))
        while not ended and not search.found:
            search.look(passing())
            rounds += 1
        print(f"looked {rounds} times")
    else:
        search.look(passing())
        search.look(lasting(*arguments[1:]))
    if search.searched < 4 or not secrets:  # two processes at the least; otherwise this looked at nothing
        print("the search saw nothing to search")
        return 2
    return 1 if search.found else 0


sys.exit(main(sys.argv[1:]))
