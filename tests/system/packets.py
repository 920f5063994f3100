"""Packets from the LAN to the camera, and which of them its packet filter lets in."""

from __future__ import annotations

import select
import socket
import struct
from collections.abc import Iterable, Sequence
from dataclasses import dataclass
from itertools import count
from typing import NamedTuple

from camlab import Camera

TCP, UDP = socket.IPPROTO_TCP, socket.IPPROTO_UDP
_SYN = 0x02
# Fewer than the queues of the two network cards hold.
_BATCH = 200
_fresh_port = count(20000)


class Ports(NamedTuple):
    """Where a packet comes from and where it goes."""

    source: int
    destination: int


@dataclass(frozen=True)
class Sender:
    """The host on the LAN under one of its addresses."""

    camera: Camera
    source: str
    target: str

    @property
    def family(self) -> int:
        """AF_INET or AF_INET6."""
        return socket.AF_INET6 if ":" in self.target else socket.AF_INET

    def let_in(self, protocol: int, packets: Sequence[Ports], marker: Ports) -> set[Ports]:
        """Return those that get past the filter, the marker left out.

        A TCP port that nobody listens on shows by the reset that the camera sends, a UDP packet by
        a raw socket of the camera, which stands behind the filter. Packets keep their order: once
        the marker, which the filter lets in, has come, no earlier one is on its way.
        """
        passed: set[Ports] = set()
        receiver = self.camera.lan if protocol == TCP else self.camera
        with (
            self.camera.lan.socket(self.family, socket.SOCK_RAW, protocol) as out,
            receiver.socket(self.family, socket.SOCK_RAW, protocol) as arrivals,
        ):
            out.bind((self.source, 0))
            for start in range(0, len(packets), _BATCH):
                for ports in (*packets[start : start + _BATCH], marker):
                    out.sendto(self._packet(protocol, ports), (self.target, 0))
                while (ports := self._arrival(arrivals, protocol)) != marker:
                    passed.add(ports)
        return passed

    def open_ports(self, protocol: int, ports: Iterable[int], marker: int) -> set[int]:
        """Return the destination ports that are let in, of those asked for."""
        source = next(_fresh_port)
        packets = [Ports(source, port) for port in ports]
        passed = self.let_in(protocol, packets, Ports(next(_fresh_port), marker))
        return {packet.destination for packet in passed if packet.source == source}

    def open_source_ports(
        self, protocol: int, ports: Iterable[int], to: int, marker: int
    ) -> set[int]:
        """Return the source ports that are let in to a closed destination port."""
        packets = [Ports(port, to) for port in ports]
        passed = self.let_in(protocol, packets, Ports(next(_fresh_port), marker))
        return {packet.source for packet in passed if packet.destination == to}

    def is_let_in(self, protocol: int) -> bool:
        """Whether a packet of a protocol without ports gets past the filter."""
        with (
            self.camera.lan.socket(self.family, socket.SOCK_RAW, protocol) as out,
            self.camera.socket(self.family, socket.SOCK_RAW, protocol) as arrivals,
        ):
            out.bind((self.source, 0))
            out.sendto(b"from the LAN", (self.target, 0))
            # Packets keep their order: an answer to this one means that the other has come.
            assert self.open_ports(TCP, [22], 22) == {22}
            return bool(select.select([arrivals], [], [], 0)[0])

    def _packet(self, protocol: int, ports: Ports) -> bytes:
        if protocol == TCP:
            packet = struct.pack("!HHIIBBHHH", *ports, 1, 0, 5 << 4, _SYN, 1024, 0, 0)
        else:
            packet = struct.pack("!HHHH", *ports, 8, 0)
        at = 16 if protocol == TCP else 6
        checksum = struct.pack("!H", self._checksum(protocol, packet))
        return packet[:at] + checksum + packet[at + 2 :]

    def _checksum(self, protocol: int, packet: bytes) -> int:
        source, target = (
            socket.inet_pton(self.family, address.split("%")[0])
            for address in (self.source, self.target)
        )
        covered = source + target + struct.pack("!II", protocol, len(packet)) + packet
        total = sum(struct.unpack(f"!{len(covered) // 2}H", covered))
        total = (total & 0xFFFF) + (total >> 16)
        return ~(total + (total >> 16)) & 0xFFFF or 0xFFFF

    def _arrival(self, arrivals: socket.socket, protocol: int) -> Ports:
        while True:
            assert select.select([arrivals], [], [], 10)[0], "the marker was not let in"
            packet, sender = arrivals.recvfrom(256)
            header = (packet[0] & 15) * 4 if self.family == socket.AF_INET else 0
            first, second = struct.unpack_from("!HH", packet, header)
            other_end = self.target if protocol == TCP else self.source
            if sender[0].split("%")[0] == other_end:
                return Ports(second, first) if protocol == TCP else Ports(first, second)
