"""The kinds of IPv6 addresses that eth0 can have, and what brings them."""

from __future__ import annotations

import socket
import struct
from typing import Any, NamedTuple

from expectations import (
    DECONFIGURE,
    FILTERS,
    FILTERS_WITHOUT_IPV6,
    FLUSH_IPV6,
    LINK_LOCAL_IPV6,
    NO_ALIAS,
    RELOAD_NTP_KEEPER,
    RELOAD_WEB_SERVER,
    STOP_DHCPV6,
    add_ipv6,
    done,
)
from transitions import FAILED, Set, State

from camlab import Camera, Command, Signal

# The addresses, one for each way to get one.
LINK_LOCAL = f"{LINK_LOCAL_IPV6}/64"
AUTOMATIC = "2001:db8:1:0:200:5eff:fe00:5301"
STATEFUL_ADDRESS = "2001:db8:2::100"
NEXT_STATEFUL = "2001:db8:2::101"
MANUAL_ADDRESS, MANUAL_GATEWAY = "2001:db8:3::5", "2001:db8:3::1"
ROUTER = "fe80::1"

LEARNED_KEYS = [
    "[IPv6/Stateful]Addresses",
    "[DNS/IPv6/DHCP]Servers",
    "[DNS/IPv6/DHCP]Search",
    "[NTP/IPv6/DHCP]Servers",
]


class Network(NamedTuple):
    """eth0 as the kernel has it, and what the daemon reads there; lists are sorted."""

    addresses: list[str]
    gateways: list[str]
    actual: list[str]
    actual_gateways: list[str]
    stateless: list[str]
    stateless_gateways: list[str]


def network(camera: Camera) -> Network:
    """What eth0 has now."""
    keys = [
        "[IPv6/Actual]Addresses",
        "[IPv6/Actual]Gateways",
        "[IPv6/Stateless]Addresses",
        "[IPv6/Stateless]Gateways",
    ]
    read = camera.api_get(keys)
    gateways = [
        hop["gateway"]
        for route in camera.ip("-6", "route", "show", "default")
        for hop in route.get("nexthops", [route])
    ]
    return Network(
        sorted(camera.addresses(6)), sorted(gateways), *(sorted(read[key]) for key in keys)
    )


OFF_NETWORK = Network([], [], [], [], [], [])
LINK_LOCAL_NETWORK = Network([LINK_LOCAL], [], [LINK_LOCAL], [], [], [])
AUTOMATIC_NETWORK = Network(
    [f"{AUTOMATIC}/64", LINK_LOCAL],
    [ROUTER],
    [f"{AUTOMATIC}/64", LINK_LOCAL],
    [ROUTER],
    [f"{AUTOMATIC}/64"],
    [ROUTER],
)
STATEFUL_NETWORK = Network(
    [f"{STATEFUL_ADDRESS}/128", LINK_LOCAL], [], [f"{STATEFUL_ADDRESS}/128", LINK_LOCAL], [], [], []
)
MANUAL_NETWORK = Network(
    [f"{MANUAL_ADDRESS}/64", LINK_LOCAL],
    [MANUAL_GATEWAY],
    [f"{MANUAL_ADDRESS}/64", LINK_LOCAL],
    [MANUAL_GATEWAY],
    [],
    [],
)
ALL_ADDRESSES = [
    *(f"{AUTOMATIC}/64", f"{STATEFUL_ADDRESS}/128", f"{MANUAL_ADDRESS}/64"),
    LINK_LOCAL,
]
ALL_NETWORK = Network(
    ALL_ADDRESSES,
    [MANUAL_GATEWAY, ROUTER],
    ALL_ADDRESSES,
    [MANUAL_GATEWAY, ROUTER],
    [f"{AUTOMATIC}/64"],
    [ROUTER],
)

# The kernel keeps a router that is ignored for as long as it said to be one.
LINK_LOCAL_AND_ROUTER = Network([LINK_LOCAL], [ROUTER], [LINK_LOCAL], [ROUTER], [], [ROUTER])
MANUAL_AND_ROUTER = MANUAL_NETWORK._replace(
    gateways=[MANUAL_GATEWAY, ROUTER],
    actual_gateways=[MANUAL_GATEWAY, ROUTER],
    stateless_gateways=[ROUTER],
)

# What users, clients and routers do

OFF_REQUEST = {"[IPv6]Enabled": False}
OFF_SET = Set(OFF_REQUEST)
# The gateway set by hand cannot be added to a kernel without IPv6.
OFF_FAILS = Set(OFF_REQUEST, FAILED)
ON_SET = Set({"[IPv6]Enabled": True})
BY_HAND = {
    "[IPv6/Manual]Addresses": [f"{MANUAL_ADDRESS}/64"],
    "[IPv6/Manual]Gateways": [MANUAL_GATEWAY],
}
TAKEN_AWAY: dict[str, Any] = {"[IPv6/Manual]Addresses": [], "[IPv6/Manual]Gateways": []}
MANUAL_SET = Set(BY_HAND)
MANUAL_TAKEN_AWAY = Set(TAKEN_AWAY)
# Without router advertisements there is no DHCPv6.
IGNORE_REQUEST = {"[IPv6/Stateful]Enabled": False, "[IPv6/Stateless]AcceptRA": False}
DHCPV6_OFF_REQUEST = {"[IPv6/Stateful]Enabled": False}


def lease_report(address: str) -> Set:
    """What quarn-dhcp-event reports of a DHCPv6 lease."""
    return Set(
        {
            "[IPv6/Stateful]Addresses": [f"{address}/128"],
            "[DNS/IPv6/DHCP]Servers": ["2001:db8:2::53"],
            "[DNS/IPv6/DHCP]Search": ["lan.example.org"],
            "[NTP/IPv6/DHCP]Servers": ["2001:db8:2::123"],
        }
    )


LEASE = lease_report(STATEFUL_ADDRESS)
NEXT_LEASE = lease_report(NEXT_STATEFUL)
LEASE_LOST = Set({key: [] for key in LEARNED_KEYS})


def router_advertises(camera: Camera) -> None:
    """A router of the LAN says which prefix is in use there."""
    if f"{ROUTER}/64" not in camera.lan.run(["ip", "address", "show", "dev", "lan0"]).stdout:
        camera.lan.own(ROUTER)
    kind, code, checksum, hop_limit, flags, lifetime = 134, 0, 0, 64, 0, 1800
    message = struct.pack("!BBHBBHII", kind, code, checksum, hop_limit, flags, lifetime, 0, 0)
    on_link_and_autonomous, valid, preferred = 0xC0, 3600, 1800
    message += struct.pack("!BBBBIII", 3, 4, 64, on_link_and_autonomous, valid, preferred, 0)
    message += socket.inet_pton(socket.AF_INET6, "2001:db8:1::")
    with camera.lan.socket(socket.AF_INET6, socket.SOCK_RAW, socket.IPPROTO_ICMPV6) as router:
        router.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_HOPS, 255)
        router.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b"lan0")
        router.bind((ROUTER, 0))
        router.sendto(message, ("ff02::1", 0))
    camera.wait_until(lambda: f"{AUTOMATIC}/64" in camera.addresses(6), "eth0 has made its address")


# The states

LEARNED_NOTHING: list[Any] = [[], [], [], []]
LEARNED_LEASE = [
    *([f"{STATEFUL_ADDRESS}/128"], ["2001:db8:2::53"]),
    *(["lan.example.org"], ["2001:db8:2::123"]),
]
LEASED_SERVERS = ["nameserver 2001:db8:2::53", "server -6 2001:db8:2::123"]

# Without IPv4, of which nothing is to be seen here.
STORED: dict[str, Any] = {
    "IPv4.DHCP.Enabled": False,
    "IPv4.LocalLink.Enabled": False,
    "IPv6.Enabled": True,
    "IPv6.Stateless.AcceptRA": True,
    "IPv6.Stateful.Enabled": True,
    "IPv6.Manual.Addresses": [],
    "IPv6.Manual.Gateways": [],
}
SAVED_MANUAL = {
    "IPv6.Manual.Addresses": [f"{MANUAL_ADDRESS}/64"],
    "IPv6.Manual.Gateways": [MANUAL_GATEWAY],
}
SAVED_TAKEN_AWAY: dict[str, Any] = {"IPv6.Manual.Addresses": [], "IPv6.Manual.Gateways": []}
SAVED_ON = {"IPv6.Enabled": True}
SAVED_OFF = {"IPv6.Enabled": False}
SAVED_DHCPV6_OFF = {"IPv6.Stateful.Enabled": False}
SAVED_IGNORE = {"IPv6.Stateful.Enabled": False, "IPv6.Stateless.AcceptRA": False}

OFF = State("IPv6 off", OFF_NETWORK, LEARNED_NOTHING, [], {**STORED, **SAVED_OFF})
ALONE = State("IPv6 link-local only", LINK_LOCAL_NETWORK, LEARNED_NOTHING, [], STORED)
AUTO = State("autoconfigured", AUTOMATIC_NETWORK, LEARNED_NOTHING, [], STORED, (router_advertises,))
STATEFUL = State("stateful", STATEFUL_NETWORK, LEARNED_LEASE, LEASED_SERVERS, STORED, (LEASE,))
MANUAL = State("IPv6 manual", MANUAL_NETWORK, LEARNED_NOTHING, [], {**STORED, **SAVED_MANUAL})
ALL = State(
    "autoconfigured, stateful and manual",
    ALL_NETWORK,
    LEARNED_LEASE,
    LEASED_SERVERS,
    {**STORED, **SAVED_MANUAL},
    (router_advertises, LEASE),
)
STATES = (OFF, ALONE, AUTO, STATEFUL, MANUAL, ALL)

# What the steps run

RELOAD = done(RELOAD_NTP_KEEPER)
NO_IPV4 = [NO_ALIAS, *done(DECONFIGURE)]
DROP_AUTOMATIC = done(
    "for ADDR in $(ip -6 addr show eth0 | grep \"scope global dynamic\" | cut -d ' ' -f 6); "
    "do ip addr del $ADDR dev eth0; done"
)
FLUSH = done(FLUSH_IPV6)
ADD_MANUAL = [add_ipv6(f"{MANUAL_ADDRESS}/64")]
ADD_STATEFUL = [add_ipv6(f"{STATEFUL_ADDRESS}/128")]


def gateway(action: str, status: int = 0) -> list[Command]:
    """The command that adds or removes the gateway set by hand."""
    text = f"/sbin/route -A inet6 {action} default gw {MANUAL_GATEWAY} eth0 2>/dev/null"
    return [Command(text, status)]


def switched_off(gateways: list[Command] | None = None) -> list[Command]:
    """The commands of IPv6 switched off."""
    return [
        *(*FLUSH, *done(RELOAD_WEB_SERVER), *FILTERS_WITHOUT_IPV6),
        *(*(gateways or []), *STOP_DHCPV6, *RELOAD),
    ]


SWITCHED_ON = [*FLUSH, *done(RELOAD_WEB_SERVER), *FILTERS, *STOP_DHCPV6, *RELOAD]
SWITCHED_ON_MANUAL = [
    *(*FLUSH, *ADD_MANUAL, *done(RELOAD_WEB_SERVER), *FILTERS),
    *(*gateway("add"), *STOP_DHCPV6, *RELOAD),
]
SET_BY_HAND = [*FLUSH, *ADD_MANUAL, *gateway("add"), *RELOAD]
SET_BY_HAND_WITH_LEASE = [*FLUSH, *ADD_MANUAL, *ADD_STATEFUL, *gateway("add"), *RELOAD]
LEASE_COMES = [*FLUSH, *ADD_STATEFUL, *RELOAD]
LEASE_COMES_TO_MANUAL = [*FLUSH, *ADD_MANUAL, *ADD_STATEFUL, *RELOAD]
MANUAL_GOES = [*FLUSH, *gateway("del"), *RELOAD]


def added(*addresses: str) -> list[Signal]:
    """The signals of addresses that have come."""
    return [Signal("IPv6AddressAdded", (address,)) for address in addresses]


def removed(*addresses: str) -> list[Signal]:
    """The signals of addresses that have gone."""
    return [Signal("IPv6AddressRemoved", (address,)) for address in addresses]
