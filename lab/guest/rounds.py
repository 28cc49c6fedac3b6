"""One connection after another: rounds.py FIRST COUNT KILLED VPNCTL ARGUMENT...

Runs on the client, until COUNT connections have stood. Each is ended by SIGUSR1 as soon as it stands, every KILLEDth (they are
numbered from FIRST) by SIGKILL to the tool. The next begins when nothing of the one before runs any more. On a busy machine
one may not come up in time; it must end as it should, is told of, and another one made in its place. Status 0 if one in ten did so at
the most, and all ended as they should.
"""
import os
import select
import signal
import subprocess
import sys
import time

OURS = ("vpnctl", "vpnctl-helper", "vpnctl-ike", "pppd")
DEADLINE = 90  # seconds, for a whole connection


def processes():
    """Those of ours that run, as descriptors that tell of their end."""
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{pid}/comm", encoding="ascii") as file:
                if file.read().rstrip("\n") in OURS:
                    yield os.pidfd_open(int(pid))
        except OSError:
            continue  # it has just ended


def wait_for(process, deadline):
    wait = select.poll()
    wait.register(process, select.POLLIN)
    ended = wait.poll(max(0, deadline - time.monotonic()) * 1000)
    os.close(process)
    return bool(ended)


def connect(command, end):
    deadline = time.monotonic() + DEADLINE
    said = []
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE) as tool:
        signal.signal(signal.SIGALRM, lambda *_: tool.kill())
        signal.alarm(DEADLINE)
        for line in tool.stderr:
            said.append(line.decode(errors="replace"))
            if line == b"PPP Connected\n":
                tool.send_signal(end)
        status = tool.wait()
        signal.alarm(0)
    while (process := next(processes(), None)) is not None:
        if not wait_for(process, deadline):
            raise RuntimeError(f"{OURS} still run after the end of the tool")
    if "PPP Connected\n" not in said:
        if status != 0 or said[-1:] != ["Exit.\n"]:
            raise RuntimeError(f"did not stand, and ended with {status}: {''.join(said)}")
        print(f"did not stand: {''.join(said)}", flush=True)
        return False
    if status != (0 if end == signal.SIGUSR1 else -end):
        raise RuntimeError(f"ended with {status} and said:\n{''.join(said)}")
    return True


def main(first, count, killed, command):
    stood = failed = 0
    while stood < count:
        if connect(command, signal.SIGKILL if (first + stood) % killed == 0 else signal.SIGUSR1):
            stood += 1
        else:
            failed += 1
            if failed > max(1, count // 10):
                return 1
    print(f"{stood} stood, {failed} did not come up")
    return 0


sys.exit(main(*map(int, sys.argv[1:4]), sys.argv[4:]))
