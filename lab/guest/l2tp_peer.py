"""An L2TP peer (RFC 2661, the server's side) that plays parts: l2tp_peer.py ADDRESS PART..., one part for each tunnel, the last
for all that follow

  stopccn         answers Start-Control-Connection-Request with Stop-Control-Connection-Notification, result 4
                  (requester not authorised)
  stopccn-later   the same when the client begins to negotiate PPP, with result 6 (shutting down)
  cdn             accepts the control connection and refuses the call with Call-Disconnect-Notify, result 4
                  (no appropriate facilities, temporarily)
  cdn-later       the same when the client begins to negotiate PPP, with result 3 (administrative reasons)
  garbage         answers with bytes that are no L2TP message
  mute            acknowledges what it gets and never says anything
  challenge       wants the client to know a secret of the tunnel's own
  no-ppp          accepts everything and never sends a PPP frame
  serve           a server as it should be, to a link that can be pinged: PPP with PAP for anybody
  mute-ppp        the same, and from SIGUSR1 on it says nothing in PPP any more
  renegotiate     the same, and at SIGUSR1 it negotiates PPP's addresses once more
  restart         the same, and at SIGUSR1 it negotiates all of PPP once more
  wild SEED       the same, and from SIGUSR1 on it does what comes into its mind, until it hangs up
  renegotiate-mute, restart-mute
                  the same, and says nothing in PPP after the beginning of that
  mute-control    the same, and from SIGUSR1 on it neither says nor acknowledges any control message
  mangle MESSAGE HOW...
                  the same, but it says these messages in a way of their own (the part is one argument)

The messages: SCCRP, ICRP and ZLB when they are due; HELLO, SLI (Set-Link-Info), WEN (WAN-Error-Notify), CDN and StopCCN at SIGUSR1,
in that order of the part, and then a HELLO. When everything that it said is acknowledged, it prints "answered". The ways, each time
that the message is sent:

  whole     as it should be
  doubled   twice
  late      after a HELLO of the next number; a ZLB only when the client has asked again
  early     ICRP before it is asked for, with the SCCRP
  never     not at all
  cut       half of it
  short, long
            with a length that is 2 less or more than its own
  version, bits
            as another version of L2TP, as a message without sequence numbers
  tunnel, session
            for another tunnel, another session
  ahead, old
            with a number (Ns) that is 9 too large, 1 too small
  unsent    acknowledges 9 more than was sent (Nr)
  attribute with an attribute of an impossible length
  type      as a message that must be understood and does not exist
  id        with 0 as the id that the sender gives

"once-" before any of these: only the first time, and as it should be when it is sent again.
"""
import re
import select
import signal
import socket
import struct
import sys
import time

from ppp_server import PARTS, PPPServer, Wild

SCCRQ, SCCRP, SCCCN, STOPCCN, HELLO, ICRQ, ICRP, ICCN, CDN, WEN, SLI = 1, 2, 3, 4, 6, 10, 11, 12, 14, 15, 16
NAMES = {"SCCRP": SCCRP, "ICRP": ICRP, "ZLB": 0, "HELLO": HELLO, "SLI": SLI, "WEN": WEN, "CDN": CDN, "StopCCN": STOPCCN}
TUNNEL, SESSION = 4711, 815  # ours
AGAIN = 0.5                  # seconds until what is not acknowledged is sent again


def avp(kind, value):
    return struct.pack("!HHH", 0x8000 | (6 + len(value)), 0, kind) + value


def number(kind, value):
    return avp(kind, struct.pack("!H", value))


def avps(body):
    found = {}
    while len(body) >= 6:
        size, vendor, kind = struct.unpack("!HHH", body[:6])
        if vendor == 0:
            found[kind] = body[6:size & 0x3FF]
        body = body[max(size & 0x3FF, 6):]
    return found


def result(code, text):
    return avp(1, struct.pack("!HH", code, 0) + text)


def mangled(how, whole):
    """The datagrams that say this one in that way."""
    def plus(at, more):
        return whole[:at] + struct.pack("!H", (struct.unpack("!H", whole[at:at + 2])[0] + more) & 0xFFFF) + whole[at + 2:]

    def with_field(at, value):
        return whole[:at] + struct.pack("!H", value) + whole[at + 2:]

    ids = [at for at in range(20, len(whole) - 7) if whole[at:at + 6] in (number(9, 0)[:6], number(14, 0)[:6])]
    return {"never": [], "doubled": [whole] * 2, "cut": [whole[:len(whole) // 2]], "short": [plus(2, -2)], "long": [plus(2, 2)],
            "version": [plus(0, 1)], "bits": [plus(0, -0x0800)], "tunnel": [plus(4, 0x5555)], "session": [plus(6, 0x5555)],
            "ahead": [plus(8, 9)], "old": [plus(8, -1)], "unsent": [plus(10, 9)], "attribute": [with_field(12, 0x8005)],
            "type": [with_field(18, 99)], "id": [with_field(ids[0] + 6, 0)] if ids else [whole]}.get(how, [whole])


class Message:
    def __init__(self, count, kind, parts, session, how):
        self.count, self.kind, self.how = count, kind, how
        self.body = number(0, kind) + b"".join(parts)
        self.to_session = session
        self.sent_at = None


class Call:
    """One client at a time: the numbers it gave, how far the two counts of messages are, what is not yet acknowledged."""

    def __init__(self, listener, client, part, ordinal):
        self.listener, self.client = listener, client
        self.part, *words = part.split()
        self.ways = list(zip(words[::2], words[1::2]))
        self.tunnel = self.session = self.sent = self.received = 0
        self.unacknowledged = []
        self.asked_again = self.prompted = self.silent = False
        self.ending = part
        self.ppp = PPPServer(self.send_frame)
        self.wild = Wild(self.ppp, self.hang_up, f"{part} {ordinal}")

    def hang_up(self, how=None):
        self.send(CDN, result(3, b"go home"), number(14, SESSION), session=self.session, how=how)

    def send(self, kind, *parts, session=0, how=None):
        how = how or next((h for name, h in self.ways if NAMES[name] == kind), "whole")
        message = Message(self.sent, kind, parts, session, how)
        self.sent += 1
        self.unacknowledged.append(message)
        if how.endswith("late"):
            self.send(HELLO, how="whole")
        self.transmit(message)

    def transmit(self, message):
        self.say(message.to_session, message.count, message.body, message.how)
        if message.how.startswith("once-"):
            message.how = "whole"
        message.sent_at = time.monotonic()

    def say(self, session, count, body, how):
        whole = struct.pack("!HHHHHH", 0xC802, 12 + len(body), self.tunnel, session, count, self.received) + body
        for datagram in mangled(how.removeprefix("once-"), whole):
            self.put(datagram)

    def put(self, datagram):
        try:
            self.listener.sendto(datagram, self.client)
        except OSError as error:  # nothing goes out in clear, and the client's association has ended
            print("not sent:", error, flush=True)

    def acknowledge(self):
        name, how = next((way for way in self.ways if way[0] == "ZLB"), ("ZLB", "whole"))
        if how.startswith("once-"):
            self.ways.remove((name, how))
        if how != "late" or self.asked_again:
            self.say(0, self.sent, b"", how)

    def acknowledged(self, count):
        # Numbers go round: what is not behind the count is still to be acknowledged.
        before = self.unacknowledged
        self.unacknowledged = [m for m in before if (m.count - count) & 0xFFFF < 0x8000]
        if self.prompted and before and not self.unacknowledged:
            print("answered", flush=True)

    def again(self):
        for message in self.unacknowledged:
            if time.monotonic() - message.sent_at >= AGAIN:
                self.transmit(message)

    def send_frame(self, frame):
        self.put(struct.pack("!HHH", 0x0002, self.tunnel, self.session) + b"\xff\x03" + frame)

    def prompt(self):
        """SIGUSR1."""
        self.prompted = True
        self.ppp.prompt(self.part)
        if self.part == "wild":
            self.wild.begin()
        self.silent = self.part == "mute-control"
        for name, how in self.ways:
            if name == "HELLO":
                self.send(HELLO, how=how)
            elif name == "SLI":
                self.send(SLI, avp(35, struct.pack("!HII", 0, 0xFFFFFFFF, 0xFFFFFFFF)), session=self.session, how=how)
            elif name == "WEN":
                self.send(WEN, avp(34, struct.pack("!HIIIIII", 0, 1, 2, 3, 4, 5, 6)), session=self.session, how=how)
            elif name == "CDN":
                self.hang_up(how)
            elif name == "StopCCN":
                self.send(STOPCCN, result(6, b"closing time"), number(9, TUNNEL), how=how)
        if self.part == "mangle":
            self.send(HELLO, how="whole")

    def reply(self, kind, values):
        """What is said to this message, other than that it has arrived. Answers whether there was anything."""
        if kind == SCCRQ and self.part == "stopccn":
            self.send(STOPCCN, result(4, b"not you"), number(9, TUNNEL))
        elif kind == SCCRQ and self.part != "mute":
            more = avp(11, b"who are you, then?") if self.part == "challenge" else b""
            self.send(SCCRP, number(2, 0x0100), avp(3, struct.pack("!I", 3)), avp(7, b"peer"), number(9, TUNNEL),
                      number(10, 4), more)
            if ("ICRP", "early") in self.ways:
                self.send(ICRP, number(14, SESSION))
        elif kind == ICRQ:
            self.session = struct.unpack("!H", values[14])[0]
            if self.part == "cdn":
                self.send(CDN, result(4, b"all lines are taken"), number(14, SESSION), session=self.session)
            elif ("ICRP", "early") in self.ways:
                return False
            else:
                self.send(ICRP, number(14, SESSION), session=self.session)
        else:
            return False
        return True

    def negotiates(self):
        """The client's PPP has said something, so that it is not overtaken by what ends the call."""
        ending, self.ending = self.ending, None
        if ending == "cdn-later":
            self.hang_up()
        elif ending == "stopccn-later":
            self.send(STOPCCN, result(6, b"closing time"), number(9, TUNNEL))

    def hear(self, kind, count, next_count, values):
        if self.silent:
            return
        self.acknowledged(next_count)
        if kind == SCCRQ and count == 0:
            self.tunnel = struct.unpack("!H", values[9])[0]
        if kind and count == self.received:
            self.received += 1
            if not self.reply(kind, values):
                self.acknowledge()
        elif kind:
            self.asked_again = True
            self.acknowledge()  # one that was answered already
        if kind == STOPCCN:
            self.unacknowledged = []


class Peer:
    def __init__(self, address, parts):
        self.listener = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.listener.bind((address, 1701))
        self.parts = list(parts)
        self.call, self.calls, self.first = None, 0, b""

    def read(self):
        datagram, client = self.listener.recvfrom(4096)
        flags, length, _, _, count, next_count = struct.unpack("!HHHHHH", datagram[:12].ljust(12, b"\0"))
        if not flags & 0x8000:
            # The client's kernel says neither lengths nor numbers in the packets of the call.
            if self.call and self.call.part in ("serve", "mute-control", "mangle", "wild", *PARTS):
                self.call.ppp.receive(datagram[6:])
            elif self.call:
                self.call.negotiates()
            return
        values = avps(datagram[12:length])
        kind = struct.unpack("!H", values[0])[0] if 0 in values else 0
        print("message", kind, "number", count, flush=True)
        if kind == SCCRQ and (self.call is None or values.get(9) != self.first):
            self.first = values.get(9)
            part = self.parts.pop(0) if len(self.parts) > 1 else self.parts[0]
            print("plays", part, flush=True)
            self.calls += 1
            self.call = Call(self.listener, client, part, self.calls)
        if self.call and self.call.part == "garbage":
            self.call.put(b"HTTP/1.1 400 Bad Request\r\n\r\n")
        elif self.call:
            self.call.hear(kind, count, next_count, values)

    def run(self, prompts):
        while True:
            ready, _, _ = select.select([self.listener, prompts], [], [], AGAIN / 2)
            if prompts in ready:
                prompts.recv(1)
                self.call.prompt()
            if self.listener in ready:
                self.read()
            if self.call:
                self.call.wild.act()
            if self.call and not self.call.silent:
                self.call.again()


def main(address, *parts):
    for part in parts:
        if not re.search(f"^  (.*, )?{re.escape(part.split()[0])}[ ,\n]", __doc__, re.MULTILINE):
            sys.exit("there is no part " + part)
    prompts, prompter = socket.socketpair()
    prompter.setblocking(False)
    signal.signal(signal.SIGUSR1, lambda *_: None)
    signal.set_wakeup_fd(prompter.fileno())
    Peer(address, parts).run(prompts)


main(*sys.argv[1:])
