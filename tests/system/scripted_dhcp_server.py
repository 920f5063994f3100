"""A DHCP server that says what a test tells it to, for what a real one refuses to send.

Run as a program on the LAN: `scripted_dhcp_server.py ANSWERS`, a JSON list of answers, each an
address, a lease time and [code, hexadecimal bytes] options. It offers the first; each renewal is
answered with the next, the last one for good; null is silence.
"""

from __future__ import annotations

import json
import socket
import struct
import sys
from typing import Any

SERVER = "10.1.2.1"
_COOKIE = b"\x63\x82\x53\x63"
_DISCOVER, _OFFER, _REQUEST, _ACK = 1, 2, 3, 5
_MESSAGE_TYPE, _LEASE_TIME, _SERVER_ID, _END = 53, 51, 54, 255


def _message_type(packet: bytes) -> int:
    position = packet.index(_COOKIE) + 4
    while packet[position] != _MESSAGE_TYPE:
        position += 1 if packet[position] == 0 else 2 + packet[position + 1]
    return packet[position + 2]


def _option(code: int, content: bytes) -> bytes:
    return bytes((code, len(content))) + content


def _reply(packet: bytes, kind: int, answer: dict[str, Any]) -> bytes:
    head = struct.pack("!BBBB4s", 2, 1, 6, 0, packet[4:8]) + bytes(8)
    head += socket.inet_aton(answer["address"]) + socket.inet_aton(SERVER) + bytes(4)
    options = _option(_MESSAGE_TYPE, bytes([kind]))
    options += _option(_SERVER_ID, socket.inet_aton(SERVER))
    options += _option(_LEASE_TIME, struct.pack("!I", answer.get("lease", 3600)))
    for code, content in answer["options"]:
        options += _option(code, bytes.fromhex(content))
    return head + packet[28:44] + bytes(192) + _COOKIE + options + bytes([_END])


def main() -> None:
    answers = json.loads(sys.argv[1])
    server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    server.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b"lan0")
    server.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
    server.bind(("", 67))
    print("ready", flush=True)
    while True:
        packet = server.recv(2048)
        kind = _message_type(packet)
        is_renewal = kind == _REQUEST and packet[12:16] != bytes(4)
        if is_renewal and len(answers) > 1:
            del answers[0]
        if answers[0] is not None and kind in (_DISCOVER, _REQUEST):
            reply = _reply(packet, _OFFER if kind == _DISCOVER else _ACK, answers[0])
            client = socket.inet_ntoa(packet[12:16])
            server.sendto(reply, ("255.255.255.255" if client == "0.0.0.0" else client, 68))


if __name__ == "__main__":
    main()
