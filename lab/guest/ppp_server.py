"""The server's half of PPP (RFC 1661, 1332, 1334), as little of it as a client needs to come up and to ping: PAP that
accepts anybody and prints who it was and how long the password, addresses, echoes. It only answers, and so needs no
clock: for what got lost, the client asks again."""
import random
import struct
import time

LCP, PAP, IPCP, IP = 0xC021, 0xC023, 0x8021, 0x0021
REQUEST, ACK, NAK, REJECT, TERMINATE, TERMINATED, ECHO, ECHOED = 1, 2, 3, 4, 5, 6, 9, 10
SERVER, CLIENT = bytes((10, 99, 0, 1)), bytes((10, 99, 0, 2))
MAGIC = b"peer"
NAME_SERVER = bytes((10, 99, 0, 53))
ADDRESS, FIRST_NAME_SERVER = 3, 129  # options of IPCP
PARTS = ("mute-ppp", "renegotiate", "restart", "renegotiate-mute", "restart-mute")
WISHES = {LCP: struct.pack("!BBHBB", 3, 4, PAP, 5, 6) + MAGIC, IPCP: bytes((ADDRESS, 6)) + SERVER}


def options(data):
    while len(data) >= 2 and data[1] >= 2:
        yield data[0], data[:data[1]]
        data = data[data[1]:]


class PPPServer:
    def __init__(self, send):
        self.send = send  # takes a frame without address and control
        self.mute = False
        self.twice = False  # to negotiate the addresses so often, and tell a name server
        self.repeated = False
        self.refused = 0
        self.due = None
        self.client = CLIENT
        self.addresses = True  # to give one
        self.leave = None  # how to hang up, and the protocol at whose first request
        self.leaves_at = None
        self.asked = {}  # by protocol: the client's request with which ours went out; none when it has been granted

    def say(self, protocol, code, identifier, data=b""):
        self.send(struct.pack("!HBBH", protocol, code, identifier, 4 + len(data)) + data)

    def ask(self, protocol, identifier):
        """Once, and again when the client asks again: one too many would take down what it has just brought up."""
        if self.asked.setdefault(protocol, identifier) == identifier:
            self.say(protocol, REQUEST, 1, WISHES[protocol])

    def receive(self, frame):
        if frame[:2] == b"\xff\x03":
            frame = frame[2:]
        if self.mute or len(frame) < 6:
            return
        protocol, code, identifier, size = struct.unpack("!HBBH", frame[:6])
        data = frame[6:2 + size]
        if protocol == self.leaves_at:
            self.mute = True
            self.leave()
            return
        if protocol == IP:
            self.answer_ping(frame[2:])
        elif protocol == LCP:
            self.link(code, identifier, data)
        elif protocol == PAP and code == REQUEST:
            self.say(PAP, ACK, identifier, b"\0")
            name, password = data[1:1 + data[0]], data[2 + data[0]:]
            print("PAP from", name.decode(errors="replace"), "with", len(password), "bytes", flush=True)
        elif protocol == IPCP:
            self.network(code, identifier, data)

    def begin(self):
        """Asks for its side of the link without being asked, as a server does whose kernel carries its packets; again after 3 s."""
        self.asked[LCP] = -1
        self.say(LCP, REQUEST, 1, WISHES[LCP])
        self.due = time.monotonic() + 3

    def wait(self):
        return None if self.due is None else max(0, self.due - time.monotonic())

    def remind(self):
        if self.due is not None and time.monotonic() >= self.due:
            self.due = None
            if self.asked[LCP] == -1:
                self.begin()

    def prompt(self, part):
        """What a peer of that part does when it is told to."""
        if part.startswith("re"):
            self.renegotiate(LCP if part.startswith("restart") else IPCP)
        self.mute = part in ("mute-ppp", "renegotiate-mute", "restart-mute")

    def renegotiate(self, protocol):
        """What was agreed on, once more: the addresses, or the link with all that comes after it."""
        self.asked = {LCP: None, IPCP: None} if protocol == IPCP else {LCP: None}
        self.say(protocol, REQUEST, 2, WISHES[protocol])

    def link(self, code, identifier, data):
        if code == REQUEST:
            self.say(LCP, ACK, identifier, data)
            self.ask(LCP, identifier)
        elif code == ACK:
            self.asked[LCP] = None
        elif code in (NAK, REJECT):
            # It insists, twice, and then ends it.
            self.refused += 1
            if self.refused < 3:
                self.say(LCP, REQUEST, 2 + self.refused, WISHES[LCP])
            else:
                self.say(LCP, TERMINATE, 9)
        elif code == TERMINATE:
            self.say(LCP, TERMINATED, identifier)
        elif code == ECHO:
            self.say(LCP, ECHOED, identifier, MAGIC + data[4:])

    def network(self, code, identifier, data):
        if code == ACK:
            self.asked[IPCP] = None
        if code != REQUEST:
            return
        self.ask(IPCP, identifier)
        given = {ADDRESS: self.client} if self.addresses else {}
        if self.twice:
            given[FIRST_NAME_SERVER] = NAME_SERVER
        unwanted = b"".join(option for kind, option in options(data) if kind not in given)
        if unwanted:
            self.say(IPCP, REJECT, identifier, unwanted)
            return
        fitting = b"".join(bytes((kind, 6)) + given[kind] for kind, _ in options(data))
        self.say(IPCP, ACK if data == fitting else NAK, identifier, fitting)
        if self.twice and data == fitting and not self.repeated:
            self.repeated = True
            self.renegotiate(IPCP)

    def answer_ping(self, packet):
        head = (packet[0] & 15) * 4
        if len(packet) < head + 8 or packet[9] != 1 or packet[16:20] != SERVER or packet[head] != 8:
            return
        # Neither the exchanged addresses change the sum of the packet's head, nor does anything but the type the message's.
        total = struct.unpack("!H", packet[head + 2:head + 4])[0] + 0x0800
        total = (total & 0xFFFF) + (total >> 16)
        echo = b"\0\0" + struct.pack("!H", total) + packet[head + 4:]
        self.send(struct.pack("!H", IP) + packet[:12] + packet[16:20] + packet[12:16] + packet[20:head] + echo)


class Wild:
    """What a server may do to a link that is up: a few of these deeds in an order that SEED says, and then HANG_UP."""

    def __init__(self, ppp, hang_up, seed):
        self.ppp, self.hang_up, self.random, self.due = ppp, hang_up, random.Random(seed), None
        self.left = self.random.randint(2, 6)

    def begin(self):
        self.due = time.monotonic()

    def wait(self):
        """How long until the next, in seconds; none when there is none."""
        return None if self.due is None else max(0, self.due - time.monotonic())

    def act(self):
        if self.due is None or time.monotonic() < self.due:
            return
        self.due = time.monotonic() + self.random.uniform(0.05, 1.5)
        self.left -= 1
        if self.left < 0:
            self.due = None
            print("hangs up", flush=True)
            self.hang_up()
            return
        deed = self.random.choice((self.addresses, self.everything, self.other_address, self.fall_silent, self.speak,
                                   self.no_addresses, self.garbage))
        print("does", deed.__name__, flush=True)
        deed()

    def addresses(self):
        self.ppp.renegotiate(IPCP)

    def everything(self):
        self.ppp.renegotiate(LCP)

    def other_address(self):
        self.ppp.client = CLIENT[:3] + bytes((self.random.randint(2, 200),))
        self.ppp.renegotiate(IPCP)

    def fall_silent(self):
        self.ppp.mute = True

    def speak(self):
        self.ppp.mute = False

    def no_addresses(self):
        self.ppp.say(IPCP, TERMINATE, 7)

    def garbage(self):
        for protocol in (LCP, PAP, IPCP, 0xC223, 0x80FD):
            size = self.random.randint(0, 40)
            self.ppp.say(protocol, self.random.randint(1, 15), self.random.randint(0, 255), self.random.randbytes(size))
