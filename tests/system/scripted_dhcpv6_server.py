"""A DHCPv6 server that says what a test tells it to, for what a real one refuses to send.

Run as a program on the LAN: `scripted_dhcpv6_server.py ANSWERS`, a JSON list of answers, each the
seconds until a renewal ("renewal") and "addresses", a list of an address and its lifetime in
seconds. It leases the first; each renewal is answered with the next, the last one for good. A client that asks whether its
addresses fit the link is told that they do.
"""

from __future__ import annotations

import json
import socket
import struct
import sys
from typing import Any

_SOLICIT, _ADVERTISE, _REQUEST, _CONFIRM, _RENEW, _REBIND, _REPLY = 1, 2, 3, 4, 5, 6, 7
_CLIENT_ID, _SERVER_ID, _IA_NA, _IA_ADDRESS, _STATUS = 1, 2, 3, 5, 13
_OWN_ID = bytes.fromhex("00030001" "00005e005302")


def _options(packet: bytes) -> dict[int, bytes]:
    found = {}
    position = 4
    while position + 4 <= len(packet):
        code, length = struct.unpack_from("!HH", packet, position)
        found[code] = packet[position + 4 : position + 4 + length]
        position += 4 + length
    return found


def _option(code: int, content: bytes) -> bytes:
    return struct.pack("!HH", code, len(content)) + content


def _association(asked: bytes, answer: dict[str, Any]) -> bytes:
    renewal = answer["renewal"]
    association = asked[:4] + struct.pack("!II", renewal, 2 * renewal)
    for address, lifetime in answer["addresses"]:
        packed = socket.inet_pton(socket.AF_INET6, address)
        association += _option(_IA_ADDRESS, packed + struct.pack("!II", lifetime, lifetime))
    return _option(_IA_NA, association)


def _reply(packet: bytes, answer: dict[str, Any]) -> bytes:
    asked = _options(packet)
    kind = _ADVERTISE if packet[0] == _SOLICIT else _REPLY
    head = bytes((kind,)) + packet[1:4]
    head += _option(_CLIENT_ID, asked[_CLIENT_ID]) + _option(_SERVER_ID, _OWN_ID)
    if packet[0] == _CONFIRM:
        return head + _option(_STATUS, bytes(2))
    return head + _association(asked[_IA_NA], answer)


def main() -> None:
    answers = json.loads(sys.argv[1])
    server = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
    server.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b"lan0")
    server.bind(("::", 547))
    group = socket.inet_pton(socket.AF_INET6, "ff02::1:2")
    interface = struct.pack("@I", socket.if_nametoindex("lan0"))
    server.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_JOIN_GROUP, group + interface)
    print("ready", flush=True)
    while True:
        packet, client = server.recvfrom(2048)
        if packet[0] in (_RENEW, _REBIND) and len(answers) > 1:
            del answers[0]
        if packet[0] in (_SOLICIT, _REQUEST, _CONFIRM, _RENEW, _REBIND):
            server.sendto(_reply(packet, answers[0]), client)


if __name__ == "__main__":
    main()
