"""Makes a tunnel in the kernel and stays with it: l2tp_tunnel.py PEER ID. Says so on standard output."""
import ctypes
import signal
import socket
import struct
import sys

AF_PPPOX, PX_PROTO_OL2TP = 24, 1


def main(peer, number):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as carrier:
        carrier.connect((peer, 1701))
        libc = ctypes.CDLL(None, use_errno=True)
        tunnel = libc.socket(AF_PPPOX, socket.SOCK_DGRAM, PX_PROTO_OL2TP)
        # struct sockaddr_pppol2tp, packed: the carrier's descriptor, the peer, our and its numbers of tunnel and session.
        address = struct.pack("=HIii", AF_PPPOX, PX_PROTO_OL2TP, 0, carrier.fileno())
        address += struct.pack("=H", socket.AF_INET) + struct.pack("!H", 1701) + socket.inet_aton(peer) + bytes(8)
        address += struct.pack("=HHHH", int(number), 0, int(number), 0)
        if tunnel < 0 or libc.connect(tunnel, address, len(address)) != 0:
            sys.exit(f"no tunnel: error {ctypes.get_errno()}")
        print("made", flush=True)
        signal.pause()


main(*sys.argv[1:])
