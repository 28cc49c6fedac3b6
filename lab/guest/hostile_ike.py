"""On the router, speaks IKE to the client under the server's name: hostile_ike.py LINK SERVER CLIENT

LINK leads to the client. It prints "listening" and keeps what the two say. At SIGUSR1 it says, from the server's ports 500 and
4500, all that is no message of the server's: what was said before, in this order and others, whole, cut, longer and with a bit
turned; what the client itself has said; notifications and deletes that nobody has signed, for the real cookies and SPIs; exchanges
that somebody begins who does not know the secret; headers, lengths, markers and sizes that cannot be. Then it prints
"said N, heard M", with what the client answered meanwhile. At SIGTERM it prints "the client last spoke to port P" and ends.
"""
import os
import random
import select
import signal
import socket
import struct
import sys
import time

MAIN, AGGRESSIVE, INFORMATIONAL, TRANSACTION, QUICK = 2, 4, 5, 6, 32
IKE, NAT_TRAVERSAL = 500, 4500
MARKER = bytes(4)
NOBODY = bytes(8)
ETH_P_IP, ETH_P_ALL = 0x0800, 3  # only who listens to all hears what goes out
FRAGMENT = 1400
TAKES_TURNS = 8  # the client hears what is said only if its socket's queue is not full
RFC_3947 = bytes.fromhex("4a131c81070358455c5728f20e95452f")


def payload(body, following=0, length=None):
    return struct.pack("!BBH", following, 0, len(body) + 4 if length is None else length) + body


def message(cookies, first, exchange, number=0, body=b"", flags=0, version=0x10, length=None):
    length = 28 + len(body) if length is None else length
    return cookies + struct.pack("!BBBBII", first, version, exchange, flags, number, length) + body


def notification(kind, spi=b"", protocol=1, data=b""):
    return payload(struct.pack("!IBBH", 1, protocol, len(spi), kind) + spi + data)


def deletion(protocol, spis):
    return payload(struct.pack("!IBBH", 1, protocol, len(spis[0]), len(spis)) + b"".join(spis))


def offer():
    """What each client has among its own: AES-256, SHA-1, group 2, a shared secret."""
    attributes = b"".join(struct.pack("!HH", 0x8000 | kind, value)
                          for kind, value in ((1, 7), (14, 256), (2, 2), (4, 2), (3, 1), (11, 1), (12, 3600)))
    transform = payload(struct.pack("!BBH", 1, 1, 0) + attributes)
    return struct.pack("!II", 1, 1) + payload(struct.pack("!BBBB", 1, 1, 0, 1) + transform)


class Wire:
    """Between the link and the client, where no connection tracking looks."""

    def __init__(self, link, server, client):
        self.link, self.server, self.client = link, socket.inet_aton(server), socket.inet_aton(client)
        self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(ETH_P_ALL))
        self.socket.bind((link, ETH_P_ALL))
        self.client_port = self.client_link = self.last_port = None
        self.server_said, self.client_said, self.spis = [], [], {}

    def hear(self, patience=0.0):
        """Everything that has come. How many messages of the client's were among it."""
        before = len(self.client_said)
        while select.select([self.socket], [], [], patience)[0]:
            packet, address = self.socket.recvfrom(65536)
            if address[1] == ETH_P_IP:
                self.take(packet, address)
            patience = 0
        return len(self.client_said) - before

    def take(self, packet, address):
        source, destination = packet[12:16], packet[16:20]
        if {source, destination} != {self.server, self.client}:
            return
        if source == self.client:
            self.client_link = address[4]
        body = packet[(packet[0] & 15) * 4:struct.unpack("!H", packet[2:4])[0]]
        if packet[9] == socket.IPPROTO_ESP:
            self.spis[source] = body[:4]
        if packet[9] != socket.IPPROTO_UDP or struct.unpack("!H", packet[6:8])[0] & 0x1fff:
            return
        ports, said = struct.unpack("!HH", body[:4]), body[8:]
        own, other = ports if source == self.server else ports[::-1]
        if own not in (IKE, NAT_TRAVERSAL):
            return
        if own == NAT_TRAVERSAL and said[:4] != MARKER:
            if len(said) > 8:
                self.spis[source] = said[:4]
            return
        said = said[4:] if own == NAT_TRAVERSAL else said
        self.client_port = other
        if source == self.server:
            self.server_said.append((own, said))
        else:
            self.client_said.append(said)
            self.last_port = own

    def say(self, port, said):
        """To the client from that port of the server's, in fragments where it must be."""
        datagram = struct.pack("!HHHH", port, self.client_port, 8 + len(said), 0) + said
        number = random.randrange(1, 65536)
        for at in range(0, len(datagram), FRAGMENT):
            part = datagram[at:at + FRAGMENT]
            more = 0x2000 if at + FRAGMENT < len(datagram) else 0
            head = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(part), number, more | at // 8, 64, socket.IPPROTO_UDP, 0,
                               self.server, self.client)
            total = sum(struct.unpack("!10H", head))
            total = (total & 0xffff) + (total >> 16)
            checksum = ~(total + (total >> 16)) & 0xffff
            self.socket.sendto(head[:10] + struct.pack("!H", checksum) + head[12:] + part,
                               (self.link, ETH_P_IP, 0, 0, self.client_link))


class Hostile:
    def __init__(self, wire):
        self.wire, self.said, self.heard = wire, 0, 0
        self.port, last = wire.server_said[-1]
        self.cookies = last[:16]
        self.before = [said for _, said in wire.server_said]
        self.spis = [wire.spis[wire.client], wire.spis[wire.server]]

    def send(self, port, datagram):
        self.wire.say(port, datagram)
        self.said += 1
        if self.said % TAKES_TURNS == 0:
            self.heard += self.wire.hear(0.01)

    def tell(self, said):
        """From both ports, as it must be and as it must not be."""
        for port in (IKE, NAT_TRAVERSAL):
            for marker in (b"", MARKER):
                # Without the marker it is ESP, and that is the kernel's.
                if port == IKE or marker:
                    self.send(port, marker + said)

    def everything(self):
        for part in (self.repeated, self.reflected, self.unsigned, self.guessed, self.begun, self.impossible, self.oversized,
                     self.no_messages, self.half_agreed, self.repeated):
            part()
        self.heard += self.wire.hear(0.5)

    def repeated(self):
        for said in self.before + self.before[::-1] + random.sample(self.before, len(self.before)):
            self.tell(said)
        for said in self.before:
            at = random.randrange(28, len(said))
            self.tell(said[:at] + bytes([said[at] ^ 1 << random.randrange(8)]) + said[at + 1:])
            self.tell(said[:at])
            self.tell(said + os.urandom(16))

    def reflected(self):
        for said in list(self.wire.client_said):
            self.tell(said)
            self.tell(said[8:16] + said[:8] + said[16:])

    def unsigned(self):
        inner = [notification(kind, self.cookies) for kind in (4, 9, 11, 14, 18, 23, 24, 16384, 24576, 24578, 36136, 36137)]
        inner = [(11, each) for each in inner] + [(12, deletion(1, [self.cookies]))]
        inner += [(12, deletion(3, [spi])) for spi in self.spis] + [(12, deletion(3, self.spis))]
        inner += [(11, notification(kind, spi, 3)) for kind in (11, 14) for spi in self.spis]
        for first, body in inner:
            for flags in (0, 1, 4):
                self.tell(message(self.cookies, first, INFORMATIONAL, random.randrange(1 << 32), body, flags))
            self.tell(message(self.cookies, 8, INFORMATIONAL, 1, payload(bytes(32), first) + body))
            self.tell(message(self.cookies, first, INFORMATIONAL, 0, body))
            self.tell(message(self.cookies[:8] + NOBODY, first, INFORMATIONAL, 0, body))

    def guessed(self):
        for exchange in (INFORMATIONAL, QUICK, MAIN, AGGRESSIVE):
            for size in (0, 8, 15, 16, 64, 160, 1024):
                for flags in (0, 1):
                    self.tell(message(self.cookies, 8, exchange, random.randrange(1, 1 << 32), os.urandom(size), flags))
        numbers = {struct.unpack("!I", said[20:24])[0] for said in self.before}
        for number in numbers:
            self.tell(message(self.cookies, 8, QUICK, number, os.urandom(160), 1))

    def begun(self):
        association = payload(offer(), 13) + payload(RFC_3947)
        for cookies in (self.cookies, self.cookies[:8] + NOBODY, NOBODY + self.cookies[8:], NOBODY * 2, os.urandom(16)):
            for exchange in (MAIN, AGGRESSIVE, QUICK):
                self.tell(message(cookies, 1, exchange, 0, association))
        for _ in range(60):
            self.send(self.port, self.framed(message(os.urandom(8) + NOBODY, 1, MAIN, 0, association)))

    def framed(self, said):
        return said if self.port == IKE else MARKER + said

    def half_agreed(self):
        """A main mode of somebody who reads the answers, and knows all but the secret."""
        time.sleep(1)  # until the client answers again
        self.heard += self.wire.hear()
        own = os.urandom(8)
        self.send(self.port, self.framed(message(own + NOBODY, 1, MAIN, 0, payload(offer(), 13) + payload(RFC_3947))))
        answers = self.wait_for(own, 1)
        cookies = answers[-1][:16]
        body = payload(b"\1" + os.urandom(127), 10) + payload(os.urandom(32), 20) + payload(os.urandom(20), 20) + \
            payload(os.urandom(20))
        self.send(self.port, self.framed(message(cookies, 4, MAIN, 0, body)))
        self.wait_for(own, 2)
        for port, marker in ((self.port, b"" if self.port == IKE else MARKER), (NAT_TRAVERSAL, MARKER)):
            self.send(port, marker + message(cookies, 5, MAIN, 0, os.urandom(64), 1))

    def wait_for(self, cookie, count):
        end = time.monotonic() + 5
        while time.monotonic() < end:
            self.heard += self.wire.hear(0.05)
            answers = [said for said in self.wire.client_said if said[:8] == cookie]
            if len(answers) >= count:
                return answers
        sys.exit("the client does not go along with a main mode of the server's")

    def impossible(self):
        whole = self.before[-1]
        for size in range(0, 28):
            self.tell(whole[:size])
        for length in (0, 1, 27, 28, len(whole) - 1, len(whole) + 1, 0xffff, 0x7fffffff, 0xffffffff):
            self.tell(whole[:24] + struct.pack("!I", length) + whole[28:])
        for inner in (0, 1, 3, 5, 0xfffc, 0xffff):
            self.tell(message(self.cookies, 11, INFORMATIONAL, 7, payload(bytes(24), 12, inner)))
            self.tell(message(self.cookies, 1, MAIN, 0, payload(bytes(40), 1, inner)))
        for kind in (0, 2, 14, 21, 35, 46, 128, 130, 132, 255):
            self.tell(message(self.cookies, kind, INFORMATIONAL, 9, payload(os.urandom(32), kind)))
        for exchange in (0, 1, 3, TRANSACTION, 31, 33, 34, 37, 240, 255):
            self.tell(message(self.cookies, 8, exchange, 9, os.urandom(64), 1))
        for version in (0x00, 0x11, 0x20, 0xff):
            self.tell(message(self.cookies, 8, INFORMATIONAL, 9, os.urandom(64), 1, version))
        for flags in (2, 3, 0xfe, 0xff):
            self.tell(message(self.cookies, 8, QUICK, 9, os.urandom(64), flags))

    def oversized(self):
        many = b"".join(payload(os.urandom(16), 13) for _ in range(2000)) + payload(os.urandom(16))
        for exchange in (MAIN, INFORMATIONAL, QUICK):
            self.tell(message(self.cookies, 13, exchange, 5, many))
            self.tell(message(self.cookies, 8, exchange, 5, os.urandom(60000), 1))
        self.tell(message(os.urandom(8) + NOBODY, 1, MAIN, 0, payload(offer() + bytes(50000), 13) + payload(RFC_3947)))

    def no_messages(self):
        for port in (IKE, NAT_TRAVERSAL):
            for datagram in (b"", b"\xff", b"\0", b"\xff\xff", MARKER[:3], MARKER, MARKER + b"\xff", MARKER * 2, MARKER * 100,
                             MARKER + os.urandom(27), b"\xff" * 100):
                self.send(port, datagram)


def main(link, server, client):
    wire = Wire(link, server, client)
    received = []
    for each in (signal.SIGUSR1, signal.SIGTERM):
        signal.signal(each, lambda number, _: received.append(number))
    print("listening", flush=True)
    while signal.SIGTERM not in received:
        wire.hear(0.1)
        if signal.SIGUSR1 in received:
            received.remove(signal.SIGUSR1)
            hostile = Hostile(wire)
            hostile.everything()
            print(f"said {hostile.said}, heard {hostile.heard}", flush=True)
    wire.hear()
    print(f"the client last spoke to port {wire.last_port}", flush=True)


main(*sys.argv[1:])
