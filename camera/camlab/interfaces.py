"""Network interfaces of a machine: TAPs, their state and their link modes."""

from __future__ import annotations

import ctypes
import fcntl
import os
import socket
import struct
from dataclasses import dataclass
from enum import IntFlag

from .namespaces import Machine

_TUNSETIFF = 0x400454CA
_IFF_TAP, _IFF_NO_PI = 0x0002, 0x1000
_IFF_UP, _IFF_RUNNING = 0x1, 0x40
_SIOCGIFFLAGS, _SIOCSIFFLAGS, _SIOCSIFHWADDR, _SIOCETHTOOL = 0x8913, 0x8914, 0x8924, 0x8946
_ETHTOOL_GSET, _ETHTOOL_SSET = 0x1, 0x2
_ARPHRD_ETHER = 1
# struct ethtool_cmd of <linux/ethtool.h>
_ETHTOOL_COMMAND = struct.Struct("=IIIHBBBBBBIIHBBI8x")


class Mode(IntFlag):
    """Bits of the `supported` and `advertising` words of <linux/ethtool.h>."""

    HALF_10 = 1 << 0
    FULL_10 = 1 << 1
    HALF_100 = 1 << 2
    FULL_100 = 1 << 3
    HALF_1000 = 1 << 4
    FULL_1000 = 1 << 5
    AUTONEG = 1 << 6
    TWISTED_PAIR = 1 << 7
    MII = 1 << 9
    PAUSE = 1 << 13
    ASYM_PAUSE = 1 << 14
    FULL_2500 = 1 << 15


FAST_ETHERNET = (
    Mode.HALF_10 | Mode.FULL_10 | Mode.HALF_100 | Mode.FULL_100 | Mode.AUTONEG | Mode.TWISTED_PAIR
)
GIGABIT_ETHERNET = FAST_ETHERNET | Mode.FULL_1000


@dataclass(frozen=True)
class LinkModes:
    """What ETHTOOL_GSET tells; duplex is 0 half, 1 full, 255 unknown."""

    supported: int = int(GIGABIT_ETHERNET)
    advertising: int = int(GIGABIT_ETHERNET)
    speed: int = 1000
    duplex: int = 1
    autoneg: bool = True


def make_tap(machine: Machine, name: str, mac: str, up: bool = True) -> int:
    """Make a TAP; it lives as long as the returned descriptor, which is its cable."""
    descriptor = machine.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK)
    fcntl.ioctl(descriptor, _TUNSETIFF, _request(name, "H", _IFF_TAP | _IFF_NO_PI))
    with machine.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        address = bytes.fromhex(mac.replace(":", ""))
        fcntl.ioctl(control, _SIOCSIFHWADDR, _request(name, "H6s", _ARPHRD_ETHER, address))
    set_up(machine, "lo")
    if up:
        set_up(machine, name)
    return descriptor


def set_up(machine: Machine, name: str, up: bool = True) -> None:
    """Take an interface up or down."""
    flags = _flags(machine, name)
    flags = flags | _IFF_UP if up else flags & ~_IFF_UP
    with machine.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        fcntl.ioctl(control, _SIOCSIFFLAGS, _request(name, "H", flags))


def is_up(machine: Machine, name: str) -> bool:
    """Whether an interface is up, with or without a carrier."""
    return bool(_flags(machine, name) & _IFF_UP)


def is_running(machine: Machine, name: str) -> bool:
    """Whether an interface is up, has a carrier, and the kernel passes frames to it."""
    return bool(_flags(machine, name) & _IFF_RUNNING)


def _flags(machine: Machine, name: str) -> int:
    with machine.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        answer = fcntl.ioctl(control, _SIOCGIFFLAGS, _request(name, "H", 0))
    return int(struct.unpack_from("H", answer, 16)[0])


def get_link_modes(machine: Machine, name: str) -> LinkModes:
    """Return the link modes of an interface."""
    fields = _ETHTOOL_COMMAND.unpack(_ethtool(machine, name, _ETHTOOL_COMMAND.pack(*_GET)))
    return LinkModes(
        supported=fields[1],
        advertising=fields[2],
        speed=fields[3] | fields[12] << 16,
        duplex=fields[4],
        autoneg=bool(fields[8]),
    )


_GET = (_ETHTOOL_GSET,) + (0,) * 15


def set_link_modes(machine: Machine, name: str, modes: LinkModes) -> None:
    """Set the link modes of a TAP, even those that it says to support."""
    fields = list(_GET)
    fields[0] = _ETHTOOL_SSET
    fields[1], fields[2] = modes.supported, modes.advertising
    fields[3], fields[12] = modes.speed & 0xFFFF, modes.speed >> 16
    fields[4], fields[8] = modes.duplex, int(modes.autoneg)
    _ethtool(machine, name, _ETHTOOL_COMMAND.pack(*fields))


def _ethtool(machine: Machine, name: str, command: bytes) -> bytes:
    buffer = ctypes.create_string_buffer(command, len(command))
    with machine.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        fcntl.ioctl(control, _SIOCETHTOOL, _request(name, "P", ctypes.addressof(buffer)))
    return buffer.raw


def _request(name: str, layout: str, *values: object) -> bytes:
    """A struct ifreq."""
    return struct.pack("16s", name.encode()) + struct.pack(layout, *values).ljust(24, b"\0")
