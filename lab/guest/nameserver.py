"""A name server that knows one answer: nameserver.py ADDRESS ANSWER

Listens on UDP port 53 of ADDRESS and gives every name the IPv4 address ANSWER, so that an answer tells who was asked.
"""
import socket
import sys


def answer(query, address):
    end = 12
    while query[end]:
        end += query[end] + 1
    question = query[12:end + 5]
    wants_ipv4 = question[-4:-2] == b"\0\1"
    # A response, recursion available, no error; whatever else the query carries (EDNS) is not understood, as allowed.
    head = query[:2] + b"\x81\x80" + b"\0\1" + (b"\0\1" if wants_ipv4 else b"\0\0") + bytes(4)
    record = b"\xc0\x0c\0\1\0\1\0\0\0\0\0\4" + socket.inet_aton(address) if wants_ipv4 else b""
    return head + question + record


def main(listening, address):
    server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    server.bind((listening, 53))
    while True:
        query, client = server.recvfrom(4096)
        if len(query) > 16 and query[4:6] == b"\0\1":
            try:
                server.sendto(answer(query, address), client)
            except OSError:
                pass  # the client's tunnel has just gone


main(*sys.argv[1:])
