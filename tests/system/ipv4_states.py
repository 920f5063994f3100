"""The kinds of IPv4 addresses that eth0 can have, and what brings them."""

from __future__ import annotations

from typing import Any, NamedTuple

from expectations import (
    ALIAS_DOWN,
    DECONFIGURE,
    MULTICAST_NETWORK,
    MULTICAST_ROUTE,
    NO_ALIAS,
    RELOAD_NTP_KEEPER,
    STOP_DHCPV4,
    addresses_without_lease,
    compact,
    done,
    ifconfig,
    ipv4_of_kernel,
    labelled,
    probe,
    routes,
)
from transitions import (
    FAILED,
    NFS_ADDRESS,
    NFS_ROOT,
    Set,
    State,
    call_without_waiting,
    power_cut,
    take,
)

from camlab import Camera, Command, Signal

# The addresses, one for each way to get one.
MANUAL_ADDRESS, MANUAL_GATEWAY = "10.0.0.5", "10.0.0.1"
LEASED_ADDRESS, LEASED_GATEWAY = "10.1.2.50", "10.1.2.1"
NEXT_ADDRESS, NEXT_GATEWAY = "10.1.2.51", "10.1.2.2"
LINK_LOCAL_ADDRESS = "169.254.7.7"
FALLBACK_ADDRESS = "192.168.0.20"

LEARNED_KEYS = [
    "[IPv4/DHCP]Address",
    "[IPv4/DHCP]Netmask",
    "[IPv4/DHCP]Gateways",
    "[DNS/IPv4/DHCP]Servers",
    "[DNS/IPv4/DHCP]Search",
    "[NTP/IPv4/DHCP]Servers",
]


class Network(NamedTuple):
    """eth0 as the kernel has it, and the address that the daemon reads there."""

    addresses: list[tuple[str, str, str]]  # label, address with prefix length, broadcast address
    routes: list[tuple[str, str | None]]  # destination, gateway
    actual: tuple[str | None, int | None]  # address, prefix length


def network(camera: Camera) -> Network:
    """What eth0 has now."""
    keys = ["[IPv4/Actual]Address", "[IPv4/Actual]Netmask"]
    actual = camera.api_get(keys)
    return Network(
        ipv4_of_kernel(camera),
        [(route["dst"], route.get("gateway")) for route in camera.routes()],
        (actual.get(keys[0]), actual.get(keys[1])),
    )


MULTICAST = (MULTICAST_NETWORK, None)
NOTHING = Network([], [], (None, None))
MANUAL_NETWORK = Network(
    [labelled("10.0.0.5/24")],
    [("default", "10.0.0.1"), ("10.0.0.0/24", None), MULTICAST],
    ("10.0.0.5", 24),
)
NEXT_MANUAL_NETWORK = Network([labelled("10.0.0.6/24")], MANUAL_NETWORK.routes, ("10.0.0.6", 24))
LEASED_NETWORK = Network(
    [labelled("10.1.2.50/24")],
    [("default", "10.1.2.1"), ("10.1.2.0/24", None), MULTICAST],
    ("10.1.2.50", 24),
)
# The lost lease's address is still there, its gateway is not.
LOST_NETWORK = LEASED_NETWORK._replace(routes=[("10.1.2.0/24", None), MULTICAST])
LINK_LOCAL_NETWORK = Network(
    [labelled("169.254.7.7/16")], [("169.254.0.0/16", None), MULTICAST], ("169.254.7.7", 16)
)
BOTH_NETWORK = Network(
    [labelled("169.254.7.7/16"), labelled("192.168.0.20/24", "eth0:1")],
    [("169.254.0.0/16", None), ("192.168.0.0/24", None), MULTICAST],
    ("169.254.7.7", 16),
)
FALLBACK_NETWORK = Network(
    [labelled("192.168.0.20/24")], [("192.168.0.0/24", None), MULTICAST], ("192.168.0.20", 24)
)
NFS_NETWORK = Network(
    [("eth0", NFS_ADDRESS, "")], [("10.0.0.0/24", None), MULTICAST], ("10.0.0.9", 24)
)

# The requests of users and clients

DHCP_OFF = Set({"[IPv4/DHCP]Enabled": False})
DHCP_ON = Set({"[IPv4/DHCP]Enabled": True})
BY_HAND = {"[IPv4/Manual]Address": MANUAL_ADDRESS, "[IPv4/Manual]Gateways": [MANUAL_GATEWAY]}
MANUAL_SET = Set(BY_HAND)
DHCP_OFF_MANUAL_SET = Set({"[IPv4/DHCP]Enabled": False, **BY_HAND})
LINK_LOCAL_OFF = Set({"[IPv4/LocalLink]Enabled": False})
LINK_LOCAL_ON = Set({"[IPv4/LocalLink]Enabled": True})
LINK_LOCAL_OFF_DHCP_ON = Set({"[IPv4/LocalLink]Enabled": False, "[IPv4/DHCP]Enabled": True})

NO_SERVERS: dict[str, Any] = {
    "[IPv4/DHCP]Gateways": [],
    "[DNS/IPv4/DHCP]Servers": [],
    "[DNS/IPv4/DHCP]Search": [],
    "[NTP/IPv4/DHCP]Servers": [],
}


def lease_report(address: str, gateway: str, is_new: bool = True) -> str:
    """What quarn-dhcp-event reports; of a new address it empties the list of gateways first."""
    begin = compact({"[IPv4/DHCP]Address": address, "[IPv4/DHCP]Netmask": 24})[:-1]
    empty = ',"[IPv4/DHCP]Gateways":[]' if is_new else ""
    rest = {
        "[IPv4/DHCP]Gateways": [gateway],
        "[DNS/IPv4/DHCP]Servers": ["10.1.2.53"],
        "[DNS/IPv4/DHCP]Search": ["lan.example.org"],
        "[NTP/IPv4/DHCP]Servers": ["10.1.2.123"],
    }
    return f"{begin}{empty},{compact(rest)[1:]}"


LEASE = Set(lease_report(LEASED_ADDRESS, LEASED_GATEWAY))
RENEWAL = Set(lease_report(LEASED_ADDRESS, LEASED_GATEWAY, is_new=False))
NEXT_LEASE = Set(lease_report(NEXT_ADDRESS, LEASED_GATEWAY))
NEXT_ROUTER = Set(lease_report(LEASED_ADDRESS, NEXT_GATEWAY, is_new=False))
LEASE_LOST = Set({"[IPv4/DHCP]Address": None, **NO_SERVERS})
# What a client reports that knows no null.
ZERO_REQUEST = {"[IPv4/DHCP]Address": "0.0.0.0", "[IPv4/DHCP]Netmask": 24, **NO_SERVERS}
ZERO = Set(ZERO_REQUEST)
ZERO_FAILS = Set(ZERO_REQUEST, FAILED)

NEXT_MANUAL = {"[IPv4/Manual]Address": "10.0.0.6"}


def saved_and_not_applied(camera: Camera) -> None:
    """Another address is stored, and used from the next boot on."""
    take(camera, Set({"[Settings]Apply": False}))
    take(camera, Set(NEXT_MANUAL))
    assert camera.commands() == []
    power_cut(camera)


def cut_off_while_applying(camera: Camera) -> None:
    """Another address is stored, and before it is on eth0 the plug is pulled."""
    hung = camera.hang(ALIAS_DOWN)
    with call_without_waiting(camera, NEXT_MANUAL):
        camera.recorder.wait_for(ALIAS_DOWN, finished=False)
        camera.clear_commands()
        power_cut(camera, hung.release)


# The states

LEARNED_NOTHING: list[Any] = [None, None, [], [], [], []]
LEARNED_LEASE = [
    *(LEASED_ADDRESS, 24, [LEASED_GATEWAY]),
    *(["10.1.2.53"], ["lan.example.org"], ["10.1.2.123"]),
]
LEARNED_ZERO = ["0.0.0.0", 24, [], [], [], []]
# The lost lease's netmask is left: nothing has taken its place.
NETMASK_LEFT: list[Any] = [None, 24, [], [], [], []]
LEASED_SERVERS = ["nameserver 10.1.2.53", "server -4 10.1.2.123"]

STORED_WITH_DHCP: dict[str, Any] = {
    "IPv4.DHCP.Enabled": True,
    "IPv4.LocalLink.Enabled": True,
    "IPv4.LocalLink.Address": LINK_LOCAL_ADDRESS,
    "IPv4.VeskoConf.Address": FALLBACK_ADDRESS,
    "IPv4.Manual.Address": None,
    "IPv4.Manual.DefaultGateway": None,
    "IPv4.Manual.Gateways": [],
}
STORED_WITHOUT_DHCP = {**STORED_WITH_DHCP, "IPv4.DHCP.Enabled": False}
STORED_WITHOUT_LINK_LOCAL = {**STORED_WITH_DHCP, "IPv4.LocalLink.Enabled": False}
STORED_MANUAL: dict[str, Any] = {
    **STORED_WITHOUT_DHCP,
    "IPv4.Manual.Address": MANUAL_ADDRESS,
    "IPv4.Manual.DefaultGateway": MANUAL_GATEWAY,
}

NONE = State("none", NOTHING, LEARNED_NOTHING, [], STORED_WITHOUT_DHCP)
MANUAL = State("manual", MANUAL_NETWORK, LEARNED_NOTHING, [], STORED_MANUAL)
LEASED = State("leased", LEASED_NETWORK, LEARNED_LEASE, LEASED_SERVERS, STORED_WITH_DHCP, (LEASE,))
LOST_LINK_LOCAL = State(
    "lost, link-local", LINK_LOCAL_NETWORK, LEARNED_ZERO, [], STORED_WITH_DHCP, (LEASE, ZERO)
)
LOST = State("lost", LOST_NETWORK, LEARNED_ZERO, [], STORED_WITHOUT_LINK_LOCAL, (LEASE, ZERO_FAILS))
BOTH = State("link-local and fallback", BOTH_NETWORK, LEARNED_NOTHING, [], STORED_WITH_DHCP)
FALLBACK = State("fallback", FALLBACK_NETWORK, LEARNED_NOTHING, [], STORED_WITHOUT_LINK_LOCAL)
NFS = State(
    "NFS root", NFS_NETWORK, LEARNED_NOTHING, [], STORED_WITH_DHCP, kernel_command_line=NFS_ROOT
)
STATES = (NONE, MANUAL, LEASED, LOST_LINK_LOCAL, LOST, BOTH, FALLBACK, NFS)

# What is saved on the way

SAVED_DHCP_ON = {"IPv4.DHCP.Enabled": True}
SAVED_DHCP_OFF = {"IPv4.DHCP.Enabled": False}
SAVED_LINK_LOCAL_ON = {"IPv4.LocalLink.Enabled": True}
SAVED_LINK_LOCAL_OFF = {"IPv4.LocalLink.Enabled": False}
SAVED_MANUAL = {
    "IPv4.DHCP.Enabled": False,
    "IPv4.Manual.Address": MANUAL_ADDRESS,
    "IPv4.Manual.DefaultGateway": MANUAL_GATEWAY,
}

# What the steps run

RELOAD = done(RELOAD_NTP_KEEPER)
MULTICAST_COMMAND = done(MULTICAST_ROUTE)
RESTART_CLIENT = [*STOP_DHCPV4, *RELOAD]
PROBES = [probe(LINK_LOCAL_ADDRESS), probe(FALLBACK_ADDRESS)]

TO_NONE = [NO_ALIAS, *done(DECONFIGURE)]
TO_MANUAL = [NO_ALIAS, ifconfig("10.0.0.5/24"), *MULTICAST_COMMAND]
TO_NEXT_MANUAL = [NO_ALIAS, ifconfig("10.0.0.6/24"), *MULTICAST_COMMAND]
TO_LEASED = [NO_ALIAS, ifconfig("10.1.2.50/24"), *MULTICAST_COMMAND]
TO_LINK_LOCAL = [ifconfig("169.254.7.7/16")]
TO_BOTH = [*PROBES, *addresses_without_lease(LINK_LOCAL_ADDRESS, FALLBACK_ADDRESS)]
TO_FALLBACK = [probe(FALLBACK_ADDRESS), NO_ALIAS, ifconfig("192.168.0.20/24"), *MULTICAST_COMMAND]


def with_alias(commands: list[Command]) -> list[Command]:
    """The same where there is an alias to take down."""
    return [Command(ALIAS_DOWN, 0) if command == NO_ALIAS else command for command in commands]


NO_DHCP_ANY_MORE = [*TO_NONE, *RESTART_CLIENT]
DHCP_ONCE_MORE = [*TO_BOTH, *RESTART_CLIENT]
DHCP_WITHOUT_LINK_LOCAL = [*TO_FALLBACK, *RESTART_CLIENT]
MANUAL_AGAIN = [*TO_MANUAL, *routes(MANUAL_GATEWAY), *RESTART_CLIENT]
LEASE_COMES = [*TO_LEASED, *routes(LEASED_GATEWAY), *RELOAD]


def announced(*addresses: str) -> list[Signal]:
    """The signals of new addresses."""
    return [Signal("IPv4AddressChange", (address,)) for address in addresses]
