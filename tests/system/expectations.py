"""What several system tests expect word for word, and a request seen whole."""

from __future__ import annotations

import ipaddress
import json
import re
from collections.abc import Callable
from typing import Any, NamedTuple

from camlab import Camera, Command, Signal

SUCCESS = '{"success":true,"errors":[]}'
APPLY_ERROR = {"code": 1, "msg": "There was an error in applying the settings"}

MULTICAST_ROUTE = (
    "if ! /sbin/route | grep 224.0.0.0 >/dev/null ; then  "
    "/sbin/route add -net 224.0.0.0 netmask 240.0.0.0 dev eth0 ; fi"
)
FLUSH_IPV6 = (
    "for A in $(ip -6 addr show dev eth0 | grep global |  grep -v dynamic | cut -d ' ' -f 6); "
    "do  ip addr del $A dev eth0; done"
)
ALIAS_DOWN = "/sbin/ifconfig eth0:1 down"
# What ifconfig answers and says where the alias is not there.
NO_ALIAS = Command(ALIAS_DOWN, 255)
NO_ALIAS_LOG = "SIOCSIFFLAGS: Cannot assign requested address"
DECONFIGURE = "/sbin/ifconfig eth0 0.0.0.0"
MULTICAST_NETWORK = "224.0.0.0/4"


class Outcome(NamedTuple):
    """What a set request led to: its answer, the commands that ran, and the log."""

    response: str
    commands: list[Command]
    log: list[str]


def compact(value: Any) -> str:
    """JSON as the daemon prints it."""
    return json.dumps(value, separators=(",", ":"), ensure_ascii=False)


def error(code: int, message: str, key: str | None = None) -> dict[str, Any]:
    """An entry of a response's error list."""
    return ({} if key is None else {"key": key}) | {"code": code, "msg": message}


def answer(*errors: dict[str, Any], success: bool = False, **values: Any) -> str:
    """The whole text of a response."""
    return compact({"success": success, "errors": list(errors), **values})


def masked(lines: list[str]) -> list[str]:
    """Log lines without the source's line numbers."""
    return [re.sub(r"^(<\d>\w+):\d+: ", r"\1:LINE: ", line) for line in lines]


def error_log(code: int, message: str, key: str | None = None) -> str:
    """The log line of an error entry."""
    if key is None:
        return f"<5>json_response_add_error: Adding error {code} to JSON response: {message}"
    return (
        f"<5>json_response_add_error: For setting '{key}', "
        f"adding error {code} to JSON response {message}"
    )


def set_settings(camera: Camera, request: dict[str, Any] | str) -> Outcome:
    """Set settings, and return all that followed; the line that quotes the request is left out."""
    text = request if isinstance(request, str) else compact(request)
    camera.clear_commands()
    logged = len(camera.log_lines())
    response = camera.api_set_text(text)
    log = masked(camera.log_lines()[logged:])
    # Signals of an earlier request go out before this one's lines, those of this one after them.
    while not log.pop(0).startswith("<5>api_set: API call: SET.  Data: "):
        pass
    end = "<7>api_set:LINE: Finished with SET command"
    log = log[: log.index(end) + 1] if end in log else log
    return Outcome(response, camera.commands(), log)


def refusal(
    request: dict[str, Any], *errors: dict[str, Any], log: list[str] | None = None
) -> Outcome:
    """What follows a request that is refused for its values: nothing but answer and log."""
    lines = [error_log(entry["code"], entry["msg"], entry.get("key")) for entry in errors]
    last = f"<3>api_set: Failed setting validation: {compact(request)}"
    return Outcome(answer(*errors), [], [*(lines if log is None else log), last])


# Commands and their log


def done(*texts: str) -> list[Command]:
    """Commands that ran and succeeded."""
    return [Command(text, 0) for text in texts]


def probe(address: str, taken: bool = False) -> Command:
    """The probe of an address."""
    return Command(f"/usr/sbin/arping -D -c2 {address}", int(taken))


def ifconfig(address: str, interface: str = "eth0", status: int = 0) -> Command:
    """The command that sets an address, given with its prefix length."""
    network = ipaddress.ip_interface(address).network
    return Command(
        f"/sbin/ifconfig {interface} {address.split('/')[0]} netmask {network.netmask} "
        f"broadcast {network.broadcast_address}",
        status,
    )


def ifconfig_log(address: str) -> list[str]:
    """What setting an address says."""
    return [
        f"<6>_do_ifconfig: Setting IPv4 address={address}",
        *console(f"Set eth0 IPv4 address {address}", "_do_ifconfig"),
    ]


def add_ipv6(address: str, status: int = 0) -> Command:
    """The command that adds an IPv6 address."""
    return Command(f"/sbin/ip -6 addr add {address} dev eth0", status)


def add_ipv6_log(address: str) -> list[str]:
    """What adding an IPv6 address says."""
    return console(f"Added eth0 IPv6 address {address}", "add_ipv6_address")


def console(text: str, function: str) -> list[str]:
    """A message for the serial console, and its log line."""
    return [f"QUARN: {text}", f"<5>{function}: Console Output: {text}"]


APPLYING_IPV4 = "<6>apply_settings: Applying IPv4 Addresses"
APPLYING_IPV6 = "<6>apply_settings: If IPv6 enabled, applying IPv6 addresses"
SETTING_MTU = "<6>apply_settings: Set the MTU on eth0"


# A daemon that has started


def start(camera: Camera, **variables: str) -> list[str]:
    """Start the daemon; return its messages to the supervisor."""
    camera.clear_commands()
    camera.start_daemon(environment=variables)
    return camera.wait_ready()


def start_with_free_addresses(camera: Camera, **variables: str) -> None:
    """Start the daemon where every probe finds its address free at once."""
    camera.rule("/usr/sbin/arping *", status=0)
    assert start(camera, **variables) == ["READY=1"]


def boot_commands(
    ipv4: list[Command], ipv6: list[Command] | None = None, loopback: int = 2
) -> list[Command]:
    """All commands of a start; `loopback` is the status of its address, 2 where it is there."""
    return [
        Command("/sbin/ip addr add 127.0.0.1/8 dev lo 2>/dev/null", loopback),
        *done("/sbin/ip link set lo up", "ip link set eth0 up"),
        *ipv4,
        *done(FLUSH_IPV6),
        *(ipv6 or []),
        *done("/sbin/ip link set eth0 mtu 1500"),
    ]


# The kernel


def ipv4_of_kernel(camera: Camera) -> list[tuple[str, str, str]]:
    """eth0's IPv4 addresses: label, address with prefix length, broadcast address."""
    [interface] = camera.ip("-4", "address", "show", "dev", "eth0") or [{}]
    return [
        (entry["label"], f"{entry['local']}/{entry['prefixlen']}", entry.get("broadcast", ""))
        for entry in interface.get("addr_info", [])
    ]


def labelled(address: str, label: str = "eth0") -> tuple[str, str, str]:
    """How the kernel lists an address that ifconfig has set."""
    broadcast = ipaddress.ip_interface(address).network.broadcast_address
    return (label, address, str(broadcast))


def destinations(camera: Camera) -> list[str]:
    """Where eth0's IPv4 routes lead."""
    return [route["dst"] for route in camera.routes()]


# A camera with a manual address: it probes for none, so all that it does is the same each time

MANUAL_IPV4 = {
    "vesko_ipv4_dhcp_enable": "0",
    "vesko_ipv4_link_local_enable": "0",
    "netdev0": "00005e005301" "c000020a" "ffffff00" "c0000201",
}
MANUAL_ADDRESS = "192.0.2.10"
LINK_LOCAL_IPV6 = "fe80::200:5eff:fe00:5301"


def start_manual(make_camera: Callable[..., Camera], **options: Any) -> Camera:
    """Return a camera with the address 192.0.2.10/24 whose daemon is ready and logs all it can."""
    camera = make_camera(**{"variables": MANUAL_IPV4, **options})
    camera.wait_until(lambda: camera.addresses(6), "eth0 has its link-local address")
    assert start(camera, QUARN_LOG_LEVEL="debug") == ["READY=1"]
    camera.wait_log(f"Sending DBUS Signal IPv4AddressChange={MANUAL_ADDRESS}")
    return camera


def lines_of_level(lines: list[str], *priorities: int) -> list[str]:
    """The log lines of some priorities, without line numbers."""
    begins = tuple(f"<{priority}>" for priority in priorities)
    return [line for line in masked(lines) if line.startswith(begins)]


def all_signals(camera: Camera) -> list[Signal]:
    """All signals up to now. A change of the MTU is announced last: when it is, nothing is left."""
    mtu = 1472 if camera.get("[NIC/eth0]MTU") == 1471 else 1471
    assert camera.api_set_text(compact({"[NIC/eth0]MTU": mtu})) == SUCCESS
    last = Signal("MTUChange", (mtu,))
    while camera.wait_signal("MTUChange") != last:
        pass
    signals = camera.signals()
    camera.clear_signals()
    assert signals.pop() == last
    return signals


# A camera without a lease


def addresses_without_lease(link_local: str, fallback: str) -> list[Command]:
    """The commands that set both addresses."""
    return [
        ifconfig(f"{link_local}/16"),
        ifconfig(f"{fallback}/24", "eth0:1"),
        *done(MULTICAST_ROUTE),
    ]


def ipv4_step(camera: Camera) -> list[str]:
    """What the daemon logged at its start while it set the IPv4 addresses."""
    log = masked(camera.log_lines())
    first = log.index(APPLYING_IPV4)
    last = log.index("<6>apply_settings: If IPv6 enabled, applying IPv6 addresses")
    return log[first + 1 : last]
