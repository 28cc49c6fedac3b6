"""A PPTP peer (RFC 2637) that plays a part: peer.py ADDRESS PART

  refuse-control  answers Start-Control-Connection with result 4 (requester not authorised)
  refuse-call     accepts the control connection, answers Outgoing-Call with result 7 (administratively prohibited)
  busy            the same with result 4 (busy)
  close-early     closes the TCP connection without a word
  close-in-call   accepts the control connection and closes when a call is asked for
  garbage         answers with bytes that are no PPTP message
  mute            accepts the TCP connection and never says anything
  no-ppp          accepts control connection and call, answers echoes, and never sends a PPP frame
"""
import os
import socket
import struct
import sys

MAGIC = 0x1A2B3C4D


def read_exactly(connection, count):
    data = b""
    while len(data) < count:
        piece = connection.recv(count - len(data))
        if not piece:
            raise EOFError
        data += piece
    return data


def read_message(connection):
    head = read_exactly(connection, 10)
    length, kind, magic, control = struct.unpack("!HHIH", head)
    if kind != 1 or magic != MAGIC:
        raise EOFError
    return control, read_exactly(connection, length - 10)


def message(control, body):
    return struct.pack("!HHIHH", 12 + len(body), 1, MAGIC, control, 0) + body


def start_reply(result):
    return message(2, struct.pack("!HBBIIHH64s64s", 0x0100, result, 0, 3, 3, 1, 1, b"lab", b"peer"))


def call_reply(peers_call, result):
    return message(8, struct.pack("!HHBBHIHHI", 77, peers_call, result, 0, 0, 64000, 64, 0, 0))


def play(connection, part):
    if part == "close-early":
        return
    if part == "garbage":
        connection.sendall(b"HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n" * 4)
    if part in ("garbage", "mute"):
        while connection.recv(4096):
            pass
        return
    while True:
        control, body = read_message(connection)
        print("message", control, flush=True)
        if control == 1:
            connection.sendall(start_reply(4 if part == "refuse-control" else 1))
        elif control == 7:
            if part == "close-in-call":
                return
            connection.sendall(call_reply(struct.unpack("!H", body[2:4])[0], {"refuse-call": 7, "busy": 4}.get(part, 1)))
        elif control == 5:
            connection.sendall(message(6, body[2:6] + struct.pack("!BBH", 1, 0, 0)))
        elif control == 3:
            connection.sendall(message(4, struct.pack("!BBH", 1, 0, 0)))
        elif control == 12:
            connection.sendall(message(13, struct.pack("!HBBHH128s", 77, 4, 0, 0, 0, b"")))


def main(address, part):
    if part not in __doc__:
        sys.exit("there is no part " + part)
    listener = socket.create_server((address, 1723))
    while True:
        connection, _ = listener.accept()
        with connection:
            try:
                play(connection, part)
            except (EOFError, ConnectionError) as error:
                print("the client left", error, flush=True)


main(*sys.argv[1:])
