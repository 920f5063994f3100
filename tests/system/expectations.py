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


# The start-up list's parts, in its order


def shaping_classes(burst: int) -> list[Command]:
    """The commands that make or replace the classes of eth0's tree."""
    rates = (
        (0, 1, f"rate 80000kbit ceil 80000kbit burst {burst}b "),
        (1, 2, f"rate 79500kbit ceil 80000kbit burst {burst}b prio 4"),
        (1, 3, f"rate 90kbit ceil 68000kbit burst {burst}b prio 3"),
        (1, 4, f"rate 400kbit ceil 80000kbit burst {burst}b prio 2"),
        (1, 5, f"rate 10kbit ceil 64000kbit burst {burst}b prio 1"),
    )
    return done(
        *(
            f"/sbin/tc class replace dev eth0 parent 1:{parent} classid 1:{number} htb {rate}"
            for parent, number, rate in rates
        )
    )


HOSTNAME = done("/bin/hostname -F /etc/hostname")
_NFS_ROOT = "cat /proc/cmdline | grep -q 'root=/dev/nfs'"
NO_NFS_ROOT = Command(_NFS_ROOT, 1)
IPV4_FILTER = [NO_NFS_ROOT, *done("/usr/sbin/iptables-restore < /tmp/.quarn/iptables.rules")]
FILTERS = [
    *IPV4_FILTER,
    NO_NFS_ROOT,
    *done("/usr/sbin/ip6tables-restore < /tmp/.quarn/ip6tables.rules"),
]
# With IPv6 off the rules of IPv6 are written and not loaded.
FILTERS_WITHOUT_IPV6 = FILTERS[:-1]
# There is no client, and so no process id to kill.
STOP_DHCPV4 = [Command("/bin/kill `cat /var/run/udhcpc.eth0.pid 2>/dev/null` 2>/dev/null", 1)]
STOP_DHCPV6 = [Command("/bin/kill `cat /var/run/dhclient6.pid 2>/dev/null` 2>/dev/null", 1)]
STOP_CLIENTS = STOP_DHCPV4 + STOP_DHCPV6
NOT_SHAPED = done("/sbin/tc qdisc show dev eth0 | grep -q pfifo_fast")
SHAPED = [Command("/sbin/tc qdisc show dev eth0 | grep -q pfifo_fast", 1)]
SHAPING_CLASSES = shaping_classes(burst=10240)
_ADD_FILTER = "/sbin/tc filter add dev eth0 protocol ip parent 1: prio"
SHAPING = [
    *NOT_SHAPED,
    *done("/sbin/tc qdisc replace dev eth0 root handle 1: htb default 5 r2q 100"),
    *SHAPING_CLASSES,
    *done(
        f"{_ADD_FILTER} 0 u32 match ip protocol 17 0xff flowid 1:2",
        f"{_ADD_FILTER} 35 u32 match ip protocol 1 0xff flowid 1:3",
        f"{_ADD_FILTER} 60 u32 match ip protocol 2 0xff flowid 1:3",
        f"{_ADD_FILTER} 45 u32 match ip sport 22 0xffff flowid 1:3",
        f"{_ADD_FILTER} 40 u32 match ip sport 161 0xffff flowid 1:3",
    ),
]
# Where a tree stands already, only its classes are replaced.
SHAPING_AGAIN = [*SHAPED, *SHAPING_CLASSES]
# What a live change has running services do.
RELOAD_NTP_KEEPER = "kill -USR2 $(pidof -s ntp-keeper)"
RELOAD_WEB_SERVER = "systemctl reload nginx.service"


def routes(*gateways: str) -> list[Command]:
    """The commands of the IPv4 routes: those of before go, the multicast route and these come."""
    return done(
        "while /sbin/route del default gw 0.0.0.0 dev eth0 2>/dev/null ; do : ; done",
        MULTICAST_ROUTE,
        *(f"/sbin/route add default gw {gateway} eth0 2>/dev/null" for gateway in gateways),
    )


def shaping_ports(
    again: bool = False, http: int = 80, https: int = 443, rtsp: int = 554
) -> list[Command]:
    """The commands of the filters for the ports of services; the first time there is none to remove."""
    filters = ((10, http, 4), (11, https, 4), (20, rtsp, 3))
    return [
        *SHAPED,
        *(
            command
            for prio, port, number in filters
            for command in (
                Command(
                    f"/sbin/tc filter del dev eth0 protocol ip parent 1: prio {prio}",
                    0 if again else 2,
                ),
                Command(
                    f"{_ADD_FILTER} {prio} u32 match ip sport {port} 0xffff flowid 1:{number}", 0
                ),
            )
        ),
    ]


def boot_commands(
    ipv4: list[Command],
    ipv6: list[Command] | None = None,
    loopback: int = 2,
    *,
    ipv4_routes: list[Command] | None = None,
    ipv6_enabled: bool = True,
    again: bool = False,
    nfs: bool = False,
) -> list[Command]:
    """All commands of a start.

    `loopback` is the status of its address, 2 where it is there. `ipv4_routes` are left out where
    there is no address. `again`: eth0 is shaped already. `nfs`: the root is on the network, and
    eth0 is not shaped at all.
    """
    filters = FILTERS if ipv6_enabled else FILTERS_WITHOUT_IPV6
    shaping = [*(SHAPING_AGAIN if again else SHAPING), *shaping_ports(again)]
    return [
        Command("/sbin/ip addr add 127.0.0.1/8 dev lo 2>/dev/null", loopback),
        *done("/sbin/ip link set lo up", "ip link set eth0 up"),
        *HOSTNAME,
        *ipv4,
        *done(FLUSH_IPV6),
        *(ipv6 or []),
        *(Command(_NFS_ROOT, 0) if nfs and check == NO_NFS_ROOT else check for check in filters),
        *(ipv4_routes or []),
        *STOP_CLIENTS,
        *done("/sbin/ip link set eth0 mtu 1500"),
        *([] if nfs else shaping),
    ]


# What is not there in a camera


def silence_services(camera: Camera) -> None:
    """Have the services that a change reaches answer at once, and the DHCP clients end at once."""
    for program in ("/usr/sbin/udhcpc", "/usr/sbin/dhclient"):
        camera.files.link(program, "/bin/true")
    for command in (RELOAD_NTP_KEEPER, RELOAD_WEB_SERVER):
        camera.rule(command, status=0)


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


# All commands of its first start.
MANUAL_BOOT = boot_commands(
    [NO_ALIAS, ifconfig(f"{MANUAL_ADDRESS}/24"), *done(MULTICAST_ROUTE)],
    ipv4_routes=routes("192.0.2.1"),
)


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
