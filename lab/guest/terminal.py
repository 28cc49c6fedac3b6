"""A terminal with somebody at it: terminal.py USER ANSWERS COMMAND ARGUMENT...

Runs COMMAND as USER with a new terminal as its controlling one and its standard input; the other two stay ours. Whatever appears on the
terminal comes out on standard output, each line after "terminal: ". Each time it asks for a password, the next line of the file
ANSWERS is typed; none is left: nothing is. SIGUSR1 is passed on, SIGINT is Ctrl-C at the
terminal. Ends as COMMAND does.
"""
import fcntl
import os
import pwd
import signal
import sys
import termios
import time


def become(user, slave):
    os.setsid()
    fcntl.ioctl(slave, termios.TIOCSCTTY, 0)
    os.dup2(slave, 0)
    entry = pwd.getpwnam(user)
    os.initgroups(user, entry.pw_gid)
    os.setresgid(entry.pw_gid, entry.pw_gid, entry.pw_gid)
    os.setresuid(entry.pw_uid, entry.pw_uid, entry.pw_uid)


def main(user, answers, *command):
    with open(answers, encoding="utf-8") as file:
        left = file.read().splitlines()
    master, slave = os.openpty()
    child = os.fork()
    if child == 0:
        os.close(master)
        become(user, slave)
        os.execv(command[0], command)
    os.close(slave)
    signal.signal(signal.SIGUSR1, lambda *_: os.kill(child, signal.SIGUSR1))
    signal.signal(signal.SIGINT, lambda *_: os.write(master, b"\x03"))
    line = b""
    while True:
        try:
            byte = os.read(master, 1)
        except OSError:  # nobody has the terminal any more
            byte = b""
        if byte in (b"", b"\n"):
            if line.strip():
                print("terminal:", line.decode(errors="replace").strip(), flush=True)
            line = b""
        line += byte.strip(b"\n")
        if line.endswith(b"Password: ") and left:
            # Whoever asks throws away what was typed before the terminal stopped to show it.
            while termios.tcgetattr(master)[3] & termios.ECHO:
                time.sleep(0.05)
            print("terminal: a password is typed", flush=True)
            line = b""
            os.write(master, left.pop(0).encode() + b"\n")
        if not byte:
            return os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])


sys.exit(main(*sys.argv[1:]))
