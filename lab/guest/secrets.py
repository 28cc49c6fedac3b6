"""Looks for a secret where it must not be seen: secrets.py LAYER CONFIG SECRET...

Searches the arguments and the environment of every process of the host, /run, and every file that was written on the
host (LAYER), except CONFIG. Prints where it was found; status 0 if nowhere. Knows the secret in the forms in which programs
let secrets slip: as it is, as UTF-16, as hexadecimal digits, as base64 at any offset, as percent escapes.
"""
import base64
import os
import sys
import urllib.parse


def forms(secret):
    plain = os.fsencode(secret)
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


def places(layer, config):
    for pid in filter(str.isdigit, os.listdir("/proc")):
        if int(pid) != os.getpid() and int(pid) != os.getppid():
            for what in ("cmdline", "environ"):
                yield f"/proc/{pid}/{what}"
    yield from files("/run")
    for path in files(layer):
        if path != layer + config:
            yield path


def main(layer, config, *secrets):
    wanted = {(which, name): form for which, secret in enumerate(secrets, 1) for name, form in forms(secret).items()}
    found = False
    searched = 0
    for path in places(layer, config):
        try:
            with open(path, "rb") as file:
                data = file.read()
        except OSError:
            continue  # a process that has just ended
        searched += 1
        for (which, name), form in wanted.items():
            if form in data:
                print(f"the {'secret' if which == 1 else f'secret {which}'} ({name}) stands in {path}")
                found = True
    if searched < 4:  # two processes at the least; otherwise this looked at nothing
        print("the search saw nothing to search")
        return 2
    return 1 if found else 0


sys.exit(main(*sys.argv[1:]))
