"""A DHCP server that says what a test tells it to, for what a real one refuses to send.

Run as a program on the LAN: `scripted_dhcp_server.py ANSWERS`, a JSON list of answers, each an
address, a lease time and [code, hexadecimal bytes] options. It offers the first; each renewal is
answered with the next, the last one for good. null is silence, a list is the answers of several
servers, each with a "server" address of its own. With "refuse": "all" or "requests" an answer is a
refusal; with "garbage" all that looks like a reply and is none comes before each. The kind of each
question that was answered is printed.
"""

from __future__ import annotations

import json
import socket
import struct
import sys
import time
from collections.abc import Iterator
from typing import Any

SERVER = "10.1.2.1"
FORGED = "10.6.6.6"  # the address in what is no reply
_COOKIE = b"\x63\x82\x53\x63"
_DISCOVER, _OFFER, _REQUEST, _ACK, _NAK = 1, 2, 3, 5, 6
_PAD, _ROUTER, _OVERLOAD, _MESSAGE_TYPE, _LEASE_TIME, _SERVER_ID, _END = 0, 3, 52, 53, 51, 54, 255
_YOUR_ADDRESS = 16


def _message_type(packet: bytes) -> int:
    position = packet.index(_COOKIE) + 4
    while packet[position] != _MESSAGE_TYPE:
        position += 1 if packet[position] == _PAD else 2 + packet[position + 1]
    return packet[position + 2]


def _option(code: int, content: bytes) -> bytes:
    return bytes((code, len(content))) + content


def _reply(packet: bytes, kind: int, answer: dict[str, Any]) -> bytes:
    server = socket.inet_aton(answer.get("server", SERVER))
    head = struct.pack("!BBBB4s", 2, 1, 6, 0, packet[4:8]) + bytes(8)
    head += socket.inet_aton(answer["address"]) + server + bytes(4)
    options = _option(_MESSAGE_TYPE, bytes([kind]))
    options += _option(_SERVER_ID, server)
    options += _option(_LEASE_TIME, struct.pack("!I", answer.get("lease", 3600)))
    for code, content in answer["options"]:
        options += _option(code, bytes.fromhex(content))
    return head + packet[28:44] + bytes(192) + _COOKIE + options + bytes([_END])


def garbage(reply: bytes) -> Iterator[bytes]:
    """What looks like this reply and is none to this client."""
    options_at = reply.index(_COOKIE) + 4
    forged = reply[:_YOUR_ADDRESS] + socket.inet_aton(FORGED) + reply[_YOUR_ADDRESS + 4 :]
    head, options = forged[:options_at], forged[options_at:]
    noise = bytes(position * 73 % 251 for position in range(1400))
    yield from (b"", b"\x02", noise, bytes(1400), b"\xff" * 1400)
    yield from (forged[:cut] for cut in (3, 43, 235, options_at - 1, options_at))
    yield forged[:4] + bytes(byte ^ 0xFF for byte in forged[4:8]) + forged[
        8:
    ]  # to another question
    yield forged[:28] + bytes(byte ^ 0xFF for byte in forged[28:34]) + forged[
        34:
    ]  # to another host
    yield head[:-4] + b"\x63\x82\x53\x64" + options  # not DHCP
    # Options that reach over the packet's end, before the one that tells what it is.
    yield head + bytes((_ROUTER, 255, 10, 6, 6, 6)) + options
    yield head + bytes((_ROUTER,))
    yield head + bytes((_OVERLOAD, 1, 3)) + bytes(1000)
    yield head + bytes(1000)  # no option at all


def _kind_of_reply(kind: int, answer: dict[str, Any]) -> int:
    if answer.get("refuse") == "all" or (answer.get("refuse") == "requests" and kind == _REQUEST):
        return _NAK
    return _OFFER if kind == _DISCOVER else _ACK


def _replies(packet: bytes, kind: int, answer: Any) -> Iterator[bytes]:
    for one in answer if isinstance(answer, list) else [answer]:
        reply = _reply(packet, _kind_of_reply(kind, one), one)
        if one.get("garbage"):
            yield from garbage(reply)
        yield reply


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
        if answers[0] is None or kind not in (_DISCOVER, _REQUEST):
            continue
        client = socket.inet_ntoa(packet[12:16])
        target = "255.255.255.255" if client == "0.0.0.0" else client
        if is_renewal:
            time.sleep(0.05)  # udhcpc begins to listen after it has asked
        for reply in _replies(packet, kind, answers[0]):
            server.sendto(reply, (target, 68))
        print({_DISCOVER: "discover", _REQUEST: "request"}[kind], flush=True)


if __name__ == "__main__":
    main()
