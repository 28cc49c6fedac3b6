"""An L2TP peer (RFC 2661, the server's side) that plays a part: l2tp_peer.py ADDRESS PART

  stopccn         answers Start-Control-Connection-Request with Stop-Control-Connection-Notification, result 4
                  (requester not authorised)
  stopccn-later   the same when the call stands, with result 6 (shutting down)
  cdn             accepts the control connection and refuses the call with Call-Disconnect-Notify, result 4
                  (no appropriate facilities, temporarily)
  cdn-later       the same when the call stands, with result 3 (administrative reasons)
  garbage         answers with bytes that are no L2TP message
  mute            acknowledges what it gets and never says anything
  challenge       wants the client to know a secret of the tunnel's own
  no-ppp          accepts everything and never sends a PPP frame
"""
import re
import socket
import struct
import sys

SCCRQ, SCCRP, SCCCN, STOPCCN, HELLO, ICRQ, ICRP, ICCN, CDN = 1, 2, 3, 4, 6, 10, 11, 12, 14
TUNNEL, SESSION = 4711, 815  # ours


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


class Call:
    """One client at a time: the numbers it gave, and how far the two counts of messages are."""

    def __init__(self, listener, client):
        self.listener, self.client = listener, client
        self.tunnel = self.session = self.sent = self.received = 0

    def send(self, kind, *parts, session=0):
        body = number(0, kind) + b"".join(parts) if kind else b""
        head = struct.pack("!HHHHHH", 0xC802, 12 + len(body), self.tunnel, session, self.sent, self.received)
        self.listener.sendto(head + body, self.client)
        self.sent += bool(kind)

    def play(self, part, kind, values):
        if kind == SCCRQ:
            self.tunnel = struct.unpack("!H", values[9])[0]
            if part == "stopccn":
                return self.send(STOPCCN, result(4, b"not you"), number(9, TUNNEL))
            if part == "mute":
                return self.send(0)
            more = avp(11, b"who are you, then?") if part == "challenge" else b""
            return self.send(SCCRP, number(2, 0x0100), avp(3, struct.pack("!I", 3)), avp(7, b"peer"), number(9, TUNNEL),
                             number(10, 4), more)
        if kind == ICRQ:
            self.session = struct.unpack("!H", values[14])[0]
            if part == "cdn":
                return self.send(CDN, result(4, b"all lines are taken"), number(14, SESSION), session=self.session)
            return self.send(ICRP, number(14, SESSION), session=self.session)
        if kind == ICCN and part == "cdn-later":
            return self.send(CDN, result(3, b"go home"), number(14, SESSION), session=self.session)
        if kind == ICCN and part == "stopccn-later":
            return self.send(STOPCCN, result(6, b"closing time"), number(9, TUNNEL))
        if kind:
            self.send(0)
        return None


def main(address, part):
    if not re.search(f"^  {re.escape(part)} ", __doc__, re.MULTILINE):
        sys.exit("there is no part " + part)
    listener = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    listener.bind((address, 1701))
    call = None
    while True:
        message, client = listener.recvfrom(4096)
        flags, length, _, _, count, _ = struct.unpack("!HHHHHH", message[:12].ljust(12, b"\0"))
        if not flags & 0x8000:
            continue  # PPP, which no part of these is interested in
        values = avps(message[12:length])
        kind = struct.unpack("!H", values[0])[0] if 0 in values else 0
        print("message", kind, "number", count, flush=True)
        if part == "garbage":
            listener.sendto(b"HTTP/1.1 400 Bad Request\r\n\r\n", client)
            continue
        if kind == SCCRQ and count == 0 and (call is None or call.client != client or call.received != 1):
            call = Call(listener, client)
        if call is None:
            continue
        if kind and count == call.received:
            call.received += 1
            call.play(part, kind, values)
        elif kind:
            call.send(0)  # one that was answered already


main(*sys.argv[1:])
