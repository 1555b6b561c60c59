# SPDX-License-Identifier: GPL-2.0-only
"""What runs on the two hosts of the lab: one end of a connection.

    peer.py serve PORT SEND RECEIVE            waits for one TCP connection, exchanges files
    peer.py connect ADDRESS PORT SEND RECEIVE  makes one, exchanges files
    peer.py listen PORT COUNT                  prints "TTL SOURCE-PORT TEXT" of each UDP datagram
    peer.py listen6 PORT COUNT                 the same for IPv6, with the hop limit
    peer.py talk ADDRESS PORT COUNT            sends that many UDP datagrams, one after the other

An exchange sends in both directions at once. Each file goes with its length in front, so neither
side has to close its half early. Servers print "ready" when they can be reached.
"""
import socket
import struct
import sys
import threading
import time

TIMEOUT = 60
CHUNK = 1 << 16
IP_RECVTTL = 12  # <linux/in.h>; not in Python's socket module


def exchange(connection, send_path, receive_path):
    with open(send_path, "rb") as source:
        data = source.read()
    sender = threading.Thread(
        target=lambda: connection.sendall(struct.pack("!Q", len(data)) + data))
    sender.start()
    received = bytearray()
    wanted = None
    while wanted is None or len(received) < wanted:
        piece = connection.recv(CHUNK)
        if not piece:
            sys.exit("the connection ended early")
        received += piece
        if wanted is None and len(received) >= 8:
            wanted = struct.unpack("!Q", received[:8])[0]
            del received[:8]
    sender.join()
    with open(receive_path, "wb") as target:
        target.write(received)


def serve(port, send_path, receive_path):
    both = socket.has_dualstack_ipv6()
    with socket.create_server(("", int(port)), dualstack_ipv6=both,
                              family=socket.AF_INET6 if both else socket.AF_INET) as server:
        print("ready", flush=True)
        server.settimeout(TIMEOUT)
        connection, _ = server.accept()
        with connection:
            connection.settimeout(TIMEOUT)
            exchange(connection, send_path, receive_path)
            # The client closes first.
            connection.recv(1)


def connect(address, port, send_path, receive_path):
    with socket.create_connection((address, int(port)), timeout=TIMEOUT) as connection:
        exchange(connection, send_path, receive_path)


def listen(port, count):
    print_hops(socket.AF_INET, port, count, (socket.IPPROTO_IP, IP_RECVTTL),
               (socket.IPPROTO_IP, socket.IP_TTL))


def listen6(port, count):
    print_hops(socket.AF_INET6, port, count, (socket.IPPROTO_IPV6, socket.IPV6_RECVHOPLIMIT),
               (socket.IPPROTO_IPV6, socket.IPV6_HOPLIMIT))


def print_hops(family, port, count, option, wanted):
    with socket.socket(family, socket.SOCK_DGRAM) as server:
        server.bind(("", int(port)))
        server.setsockopt(*option, 1)
        server.settimeout(TIMEOUT)
        print("ready", flush=True)
        for _ in range(int(count)):
            text, ancillary, _, source = server.recvmsg(CHUNK, 256)
            ttl = next(struct.unpack("i", data)[0] for level, kind, data in ancillary
                       if (level, kind) == wanted)
            print(ttl, source[1], text.decode(), flush=True)


def talk(address, port, count):
    family = socket.AF_INET6 if ":" in address else socket.AF_INET
    with socket.socket(family, socket.SOCK_DGRAM) as client:
        client.bind(("", 40000))
        for _ in range(int(count)):
            client.sendto(b"the same text every time", (address, int(port)))
            time.sleep(0.01)


if __name__ == "__main__":
    {"serve": serve, "connect": connect, "listen": listen, "listen6": listen6,
     "talk": talk}[sys.argv[1]](*sys.argv[2:])
