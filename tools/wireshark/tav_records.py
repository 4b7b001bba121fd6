#!/usr/bin/python3
# SPDX-License-Identifier: ISC
"""Rewrites a capture of TAV traffic (pcap, Ethernet) as manager capture
records (link type USER0, README.md here): each raw frame of EtherType
0x2386 and each UDP datagram to or from port 62976, with the plaintext that
a cipher library deciphers beside it. With the device's own library this
makes a capture of real devices readable in Wireshark (tav.lua).

    tav_records.py --cipher /usr/lib/TAV_Auth.so IN.pcap OUT.pcap

Requests are marked as sent, everything else as received. Values are kept
as they are (nothing masked): the file is created with mode 0600."""
import argparse
import ctypes
import os
import struct
import sys

ETHERTYPE, UDP_PORT, USER0 = 0x2386, 62976, 147
REQUESTS = (0x7DFD, 0xFDFD, 0x0DFD)


class Buf(ctypes.Structure):
    _fields_ = [("data", ctypes.POINTER(ctypes.c_uint8)), ("length", ctypes.c_uint16)]


def decipher(lib, payload):
    """Plaintext of selector + ciphertext, or b'' when it does not decipher."""
    if len(payload) < 2:
        return b""
    cipher = payload[2:]
    size = lib.TAV_get_decrypted_msg_len(cipher, len(cipher))
    if size <= 0 or size > 0xFFFF:
        return b""
    inp = (ctypes.c_uint8 * len(cipher)).from_buffer_copy(cipher)
    out = (ctypes.c_uint8 * size)()
    bin_, bout = Buf(inp, len(cipher)), Buf(out, size)
    if lib.TAV_decode(struct.unpack(">H", payload[:2])[0], ctypes.byref(bin_), ctypes.byref(bout)) != 0:
        return b""
    return bytes(out[: bout.length])


def messages(frame):
    """(path, wire, payload, src ip, src port, dst ip, dst port) of a TAV frame."""
    if len(frame) < 14:
        return None
    etype = struct.unpack(">H", frame[12:14])[0]
    if etype == ETHERTYPE:
        return 1, frame, frame[14:], b"\0" * 4, 0, b"\0" * 4, 0
    if etype != 0x0800 or len(frame) < 34 or frame[23] != 17:
        return None
    ihl = (frame[14] & 15) * 4
    udp = 14 + ihl
    sport, dport, ulen = struct.unpack(">HHH", frame[udp:udp + 6])
    if UDP_PORT not in (sport, dport):
        return None
    data = frame[udp + 8:udp + ulen]
    return 2, data, data, frame[26:30], sport, frame[30:34], dport


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--cipher", required=True, help="cipher library (TAV_Auth.so)")
    ap.add_argument("input")
    ap.add_argument("output")
    a = ap.parse_args()
    lib = ctypes.CDLL(a.cipher)
    lib.TAV_get_decrypted_msg_len.argtypes = [ctypes.c_char_p, ctypes.c_uint16]
    lib.TAV_decode.argtypes = [ctypes.c_uint16, ctypes.POINTER(Buf), ctypes.POINTER(Buf)]
    with open(a.input, "rb") as f:
        raw = f.read()
    magic = raw[:4]
    order = "<" if magic in (b"\xd4\xc3\xb2\xa1", b"\x4d\x3c\xb2\xa1") else ">"
    if magic not in (b"\xd4\xc3\xb2\xa1", b"\xa1\xb2\xc3\xd4", b"\x4d\x3c\xb2\xa1", b"\xa1\xb2\x3c\x4d"):
        sys.exit("tav_records: %s is not a pcap file (pcapng: convert with editcap -F pcap)" % a.input)
    if struct.unpack(order + "I", raw[20:24])[0] != 1:
        sys.exit("tav_records: %s is not an Ethernet capture" % a.input)
    fd = os.open(a.output, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
    n = 0
    with os.fdopen(fd, "wb") as out:
        out.write(raw[:20] + struct.pack(order + "I", USER0))
        at = 24
        while at + 16 <= len(raw):
            sec, frac, incl, orig = struct.unpack(order + "IIII", raw[at:at + 16])
            frame = raw[at + 16:at + 16 + incl]
            at += 16 + incl
            m = messages(frame)
            if m is None:
                continue
            path, wire, payload, sip, sport, dip, dport = m
            plain = decipher(lib, payload)
            sent = len(plain) >= 2 and struct.unpack(">H", plain[:2])[0] in REQUESTS
            rec = (b"TAVP" + bytes([1, 0 if sent else 1, path, 0]) + sip + struct.pack(">H", sport) + dip +
                   struct.pack(">HHH", dport, len(wire), len(plain)) + wire + plain)
            out.write(struct.pack(order + "IIII", sec, frac, len(rec), len(rec)) + rec)
            n += 1
    print("tav_records: %d messages written to %s" % (n, a.output))


if __name__ == "__main__":
    main()
