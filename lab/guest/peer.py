"""A PPTP peer (RFC 2637) that plays parts: peer.py ADDRESS PART..., one part for each client, the last for all that follow

  refuse-control  answers Start-Control-Connection with result 4 (requester not authorised)
  refuse-call     accepts the control connection, answers Outgoing-Call with result 7 (administratively prohibited)
  busy            the same with result 4 (busy)
  close-early     closes the TCP connection without a word
  close-in-call   accepts the control connection and closes when a call is asked for
  garbage         answers with bytes that are no PPTP message
  mute            accepts the TCP connection and never says anything
  no-ppp          accepts control connection and call, answers echoes, and never sends a PPP frame
  serve           a server as it should be, to a link that can be pinged: PPP with PAP for anybody, without encryption
  mute-ppp        the same, and from SIGUSR1 on it says nothing in PPP any more
  mute-control    the same, and from SIGUSR1 on it answers no control message
  renegotiate     the same, and at SIGUSR1 it negotiates PPP's addresses once more
  restart         the same, and at SIGUSR1 it negotiates all of PPP once more
  no-address      the same, but it gives no address
  leave-authenticating, leave-network
                  the same, but it ends the call when the client has shown its account, or asks for an address
  first           the same, but it asks for its side of the link as soon as the call stands, and again after 3 s
  wild SEED       the same, and from SIGUSR1 on it does what comes into its mind, until it hangs up
  twice           the same with a name server, and it negotiates the addresses once more as soon as they stand
  renegotiate-mute, restart-mute
                  the same, and says nothing in PPP after the beginning of that
  close           the same, and at SIGUSR1 it closes the TCP connection
  mangle MESSAGE HOW...
                  the same, but it says these messages in a way of their own (the part is one argument)

The messages: SCCRP, OCRP and StopCCRP when they are due; Echo-Request, Echo-Reply, SLI (Set-Link-Info), WEN (WAN-Error-Notify),
CDN (Call-Disconnect-Notify) and StopCCRQ at SIGUSR1, in that order of the part, and then eight Echo-Requests. When the last of
these is answered, it prints "answered". The ways:

  whole     as it should be
  bytes     byte by byte
  doubled   twice
  late      after an Echo-Request and a Set-Link-Info
  early     SCCRP before it is asked for, OCRP before the SCCRP, and then once more in time
  cut       half of it
  short, long, empty, huge
            with a length that is 4 less or more than its own, 0, or 65535
  magic, kind, type
            with another magic cookie, as no control message, as a message that does not exist
  reserved  with something in the fields that are to be 0
  id        with the id of another call; an Echo-Reply to a question that nobody asked
"""
import re
import select
import signal
import socket
import struct
import sys

from ppp_server import IPCP, PAP, PARTS, PPPServer, Wild

MAGIC = 0x1A2B3C4D
LAST_ECHO = 1008


def message(control, body):
    return struct.pack("!HHIHH", 12 + len(body), 1, MAGIC, control, 0) + body


def echo(identifier):
    return message(5, struct.pack("!I", identifier))


def start_reply(result):
    return message(2, struct.pack("!HBBIIHH64s64s", 0x0100, result, 0, 3, 3, 1, 1, b"lab", b"peer"))


def mangled(how, whole, ids):
    """The message in that way. IDS: where its id is."""
    def with_field(at, form, value):
        return whole[:at] + struct.pack(form, value) + whole[at + struct.calcsize(form):]

    foreign = bytearray(whole)
    foreign[ids + 1] ^= 0x55
    return {"doubled": whole * 2, "late": echo(1) + message(15, struct.pack("!HHII", 0, 0, 0, 0)) + whole,
            "cut": whole[:len(whole) // 2], "short": with_field(0, "!H", len(whole) - 4),
            "long": with_field(0, "!H", len(whole) + 4), "empty": with_field(0, "!H", 0), "huge": with_field(0, "!H", 0xFFFF),
            "magic": with_field(4, "!I", MAGIC + 1), "kind": with_field(2, "!H", 2), "type": with_field(8, "!H", 99),
            "reserved": with_field(10, "!H", 0xFFFF), "id": bytes(foreign)}.get(how, whole)


class Packets:
    """The packets of one call: enhanced GRE (RFC 2637, section 4.1)."""

    def __init__(self, address):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_GRE)
        self.socket.bind((address, 0))
        self.client = self.call = None

    def begin(self, client, call, peers_call):
        self.client, self.call, self.peers_call, self.sent = client, call, peers_call, 0

    def send(self, frame):
        self.sent += 1
        head = struct.pack("!HHHHI", 0x3001, 0x880B, len(frame), self.peers_call, self.sent)
        self.socket.sendto(head + frame, (self.client, 0))

    def receive(self):
        packet, (sender, _) = self.socket.recvfrom(65535)
        packet = packet[(packet[0] & 15) * 4:]
        flags, kind, size, call = struct.unpack("!HHHH", packet[:8])
        start = 16 if flags & 0x80 else 12
        mine = sender == self.client and call == self.call and kind == 0x880B and flags & 0x1000
        return packet[start:start + size] if mine else b""


class Client:
    def __init__(self, connection, address, call, packets, part):
        self.connection, self.address, self.call, self.packets = connection, address, call, packets
        self.part, *words = part.split()
        self.ways = list(zip(words[::2], words[1::2]))
        self.bytes = b""
        self.mute = False
        self.ppp = PPPServer(packets.send)
        self.ppp.twice = self.part == "twice"
        self.ppp.addresses = self.part != "no-address"
        self.ppp.leave = lambda: self.say("CDN")
        self.ppp.leaves_at = {"leave-authenticating": PAP, "leave-network": IPCP}.get(self.part)
        self.wild = Wild(self.ppp, lambda: self.say("CDN"), f"{part} {call}")
        packets.begin(address, call, 0)

    def say(self, name, how=None):
        whole, ids = {
            "SCCRP": lambda: (start_reply(4 if self.part == "refuse-control" else 1), 12),
            "OCRP": lambda: (self.call_reply({"refuse-call": 7, "busy": 4}.get(self.part, 1)), 14),
            "StopCCRP": lambda: (message(4, struct.pack("!BBH", 1, 0, 0)), 12),
            "Echo-Request": lambda: (echo(1000), 14),
            "Echo-Reply": lambda: (message(6, struct.pack("!IBBH", 1, 1, 0, 0)), 14),
            "SLI": lambda: (message(15, struct.pack("!HHII", self.packets.peers_call, 0, 0xFFFFFFFF, 0xFFFFFFFF)), 12),
            "WEN": lambda: (message(14, struct.pack("!HHIIIIII", self.packets.peers_call, 0, 1, 2, 3, 4, 5, 6)), 12),
            "CDN": lambda: (message(13, struct.pack("!HBBHH128s", self.call, 3, 0, 0, 0, b"")), 12),
            "StopCCRQ": lambda: (message(3, struct.pack("!BBH", 3, 0, 0)), 12),
        }[name]()
        how = how or dict(self.ways).get(name, "whole")
        said = mangled(how, whole, ids)
        for piece in [said[i:i + 1] for i in range(len(said))] if how == "bytes" else [said]:
            self.connection.sendall(piece)

    def call_reply(self, result):
        return message(8, struct.pack("!HHBBHIHHI", self.call, self.packets.peers_call, result, 0, 0, 64000, 64, 0, 0))

    def is_early(self, name):
        return (name, "early") in self.ways

    def prompt(self):
        """SIGUSR1."""
        self.mute = self.part == "mute-control"
        if self.part == "close":
            raise EOFError
        self.ppp.prompt(self.part)
        if self.part == "wild":
            self.wild.begin()
        for name, how in self.ways:
            if name not in ("SCCRP", "OCRP", "StopCCRP"):
                self.say(name, how)
        if self.part == "mangle":
            self.connection.sendall(b"".join(echo(LAST_ECHO - 7 + i) for i in range(8)))

    def handle(self, control, body):
        print("message", control, flush=True)
        if self.mute:
            return
        if control == 1:
            if self.is_early("OCRP"):
                self.say("OCRP")
            if not self.is_early("SCCRP"):
                self.say("SCCRP")
        elif control == 7:
            if self.part == "close-in-call":
                raise EOFError
            self.packets.begin(self.address, self.call, struct.unpack("!H", body[:2])[0])
            self.say("OCRP")
            if self.part == "first":
                self.ppp.begin()
        elif control == 5:
            self.connection.sendall(message(6, body[:4] + struct.pack("!BBH", 1, 0, 0)))
        elif control == 6 and struct.unpack("!I", body[:4])[0] == LAST_ECHO:
            print("answered", flush=True)
        elif control == 3:
            self.say("StopCCRP")
        elif control == 12:
            self.connection.sendall(message(13, struct.pack("!HBBHH128s", self.call, 4, 0, 0, 0, b"")))

    def read(self):
        data = self.connection.recv(4096)
        if not data:
            raise EOFError
        if self.part in ("garbage", "mute"):
            return
        self.bytes += data
        while len(self.bytes) >= 12:
            length, kind, magic, control = struct.unpack("!HHIH", self.bytes[:10])
            if kind != 1 or magic != MAGIC:
                raise EOFError
            if len(self.bytes) < length:
                return
            whole, self.bytes = self.bytes[:length], self.bytes[length:]
            self.handle(control, whole[12:])

    def serve(self, prompts):
        if self.part == "close-early":
            return
        if self.part == "garbage":
            self.connection.sendall(b"HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n" * 4)
        if self.is_early("SCCRP"):
            self.say("SCCRP")
        while True:
            ready, _, _ = select.select([self.connection, self.packets.socket, prompts], [], [],
                                        self.ppp.wait() if self.part == "first" else self.wild.wait())
            self.wild.act()
            self.ppp.remind()
            if prompts in ready:
                prompts.recv(1)
                self.prompt()
            if self.packets.socket in ready:
                frame = self.packets.receive()
                if self.part in ("serve", "mute-control", "twice", "first", "wild", "close", "mangle", "no-address", "leave-authenticating",
                                 "leave-network", *PARTS):
                    self.ppp.receive(frame)
            if self.connection in ready:
                self.read()


def main(address, *parts):
    for part in parts:
        if not re.search(f"^  (.*, )?{re.escape(part.split()[0])}[ ,\n]", __doc__, re.MULTILINE):
            sys.exit("there is no part " + part)
    prompts, prompter = socket.socketpair()
    prompter.setblocking(False)
    signal.signal(signal.SIGUSR1, lambda *_: None)
    signal.set_wakeup_fd(prompter.fileno())
    packets = Packets(address)
    listener = socket.create_server((address, 1723))
    number = 0
    while True:
        connection, (client, _) = listener.accept()
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        part = parts[min(number, len(parts) - 1)]
        print("plays", part, flush=True)
        with connection:
            try:
                Client(connection, client, 77 + number, packets, part).serve(prompts)
            except (EOFError, ConnectionError) as error:
                print("the client left", error, flush=True)
        number += 1


main(*sys.argv[1:])
