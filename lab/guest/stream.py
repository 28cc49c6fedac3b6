"""A stream of numbered UDP datagrams to somebody who echoes them, so that each that is missing can be told, and which way it was going.

  stream.py echo ADDRESS PORT             echoes, and at SIGTERM tells how many different ones came
  stream.py send ADDRESS PORT SECONDS     one every 20 ms for so long, then two seconds for the last answers

The sender's last line is "sent N answered N twice N refused N": refused are those that its own kernel did not take. Before it stands a line
"missing A-B after T s" for each run of numbers without an answer, and T is when the first of them was sent.
"""
import select
import signal
import socket
import sys
import time

PERIOD = 0.02
LAST = 2


def echo(address, port):
    heard = set()

    def end(*_):
        print("heard", len(heard), flush=True)
        sys.exit(0)

    signal.signal(signal.SIGTERM, end)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as line:
        line.bind((address, port))
        print("echoes", flush=True)
        while True:
            datagram, sender = line.recvfrom(2048)
            heard.add(datagram[:8])
            try:
                line.sendto(datagram, sender)
            except OSError:
                pass  # it will be missing


def send(address, port, seconds):
    answers = {}
    refused = 0
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as line:
        line.connect((address, port))
        line.setblocking(False)

        def hear_until(moment):
            while (left := moment - time.monotonic()) > 0:
                if not select.select([line], [], [], left)[0]:
                    return
                try:
                    number = int.from_bytes(line.recv(2048)[:8], "big")
                except OSError:
                    continue
                answers[number] = answers.get(number, 0) + 1

        began = time.monotonic()
        sent_at = []
        while (now := time.monotonic() - began) < seconds:
            sent_at.append(now)
            try:
                line.send((len(sent_at) - 1).to_bytes(8, "big") + bytes(200))
            except OSError:
                refused += 1
            # What is late is not made up for: a burst would be too much for the link's short queue.
            hear_until(began + now + PERIOD)
        hear_until(time.monotonic() + LAST)
    count = len(sent_at)
    first = None
    for number in range(count + 1):
        if number < count and number not in answers:
            first = number if first is None else first
        elif first is not None:
            print(f"missing {first}-{number - 1} after {sent_at[first]:.2f} s")
            first = None
    twice = sum(times - 1 for times in answers.values())
    print(f"sent {count} answered {len(answers)} twice {twice} refused {refused}", flush=True)


if sys.argv[1] == "echo":
    echo(sys.argv[2], int(sys.argv[3]))
else:
    send(sys.argv[2], int(sys.argv[3]), float(sys.argv[4]))
