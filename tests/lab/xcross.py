#!/usr/bin/env python3
"""Tiny frame/datagram sender and receiver for the lab smoke test.

  xcross.py rawrecv TOKEN TIMEOUT          wait for an EtherType 0x2386 frame
                                           whose payload holds TOKEN
  xcross.py rawsend IFACE TOKEN            broadcast one such frame
  xcross.py udprecv PORT TOKEN TIMEOUT     wait for a datagram holding TOKEN
  xcross.py udpsend ADDR PORT TOKEN        send one datagram (broadcast and
                                           multicast allowed)

Receivers print "ready" once listening, then "got <source>" and exit 0, or
exit 1 at the time-out.
"""
import select
import socket
import sys
import time

ETH_P_TAV = 0x2386


def wait_for(sock, token, timeout, source):
    print("ready", flush=True)
    end = time.monotonic() + timeout
    while True:
        left = end - time.monotonic()
        if left <= 0 or not select.select([sock], [], [], left)[0]:
            return 1
        data, addr = sock.recvfrom(65535)
        if token in data:
            print("got", source(data, addr), flush=True)
            return 0


def main(argv):
    mode = argv[1]
    if mode == "rawrecv":
        s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_TAV))
        return wait_for(s, argv[2].encode(), float(argv[3]),
                        lambda d, a: ":".join("%02x" % b for b in d[6:12]))
    if mode == "rawsend":
        s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_TAV))
        s.bind((argv[2], 0))
        mac = s.getsockname()[4]
        s.send(b"\xff" * 6 + mac + ETH_P_TAV.to_bytes(2, "big") + argv[3].encode())
        return 0
    if mode == "udprecv":
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        s.bind(("0.0.0.0", int(argv[2])))
        return wait_for(s, argv[3].encode(), float(argv[4]), lambda d, a: a[0])
    if mode == "udpsend":
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        s.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        s.sendto(argv[4].encode(), (argv[2], int(argv[3])))
        return 0
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
