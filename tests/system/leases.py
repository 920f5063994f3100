"""A LAN with DHCP servers: what they lease, and what becomes of it in the camera."""

from __future__ import annotations

import ipaddress
import json
from pathlib import Path
from typing import Any

from expectations import MULTICAST_NETWORK, ipv4_of_kernel, labelled
from stored_settings import stored

from camlab import Camera, Process
from camlab.namespaces import ENVIRONMENT

Answer = dict[str, Any]

HELPER = "/usr/lib/quarn/quarn-dhcp-event"
SCRIPTED_SERVERS = Path(__file__).parent
RELOAD_NTP = "kill -USR2 $(pidof -s ntp-keeper)"

IPV4_KEYS = [
    "[IPv4/DHCP]Address",
    "[IPv4/DHCP]Netmask",
    "[IPv4/DHCP]Gateways",
    "[DNS/IPv4/DHCP]Servers",
    "[DNS/IPv4/DHCP]Search",
    "[NTP/IPv4/DHCP]Servers",
]
LOST_LEASE = (
    '{"[IPv4/DHCP]Address":null,"[IPv4/DHCP]Gateways":[],"[DNS/IPv4/DHCP]Servers":[],'
    '"[DNS/IPv4/DHCP]Search":[],"[NTP/IPv4/DHCP]Servers":[]}'
)
IPV6_KEYS = [
    "[IPv6/Stateful]Addresses",
    "[DNS/IPv6/DHCP]Servers",
    "[DNS/IPv6/DHCP]Search",
    "[NTP/IPv6/DHCP]Servers",
]

SUBNET_MASK, ROUTER, DNS, DOMAIN, NTP, SEARCH = 1, 3, 6, 15, 42, 119


def wait_for_link(camera: Camera) -> None:
    """A frame that is sent before is lost, and the client tries again only after ten seconds."""
    camera.wait_until(lambda: camera.addresses(6), "eth0 has its link-local address")


def dnsmasq(camera: Camera, *options: str) -> Process:
    """Run dnsmasq on the LAN as nothing but a DHCP server and router."""
    server = camera.lan.start(
        [
            *("dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--port=0"),
            *("--interface=lan0", "--bind-interfaces", "--log-facility=-", "--no-ping"),
            *("--dhcp-leasefile=/tmp/leases", "--pid-file=/tmp/dnsmasq.pid"),
            *("--dhcp-authoritative", *options),
        ]
    )
    camera.wait_until(lambda: "DHCP" in server.stderr, "dnsmasq serves")
    return server


def lease_server(camera: Camera, first: str = "10.1.2.50", *options: str) -> Process:
    """Run a server that leases one address of 10.1.2.0/24, with two DNS servers and one for NTP."""
    return dnsmasq(
        camera,
        f"--dhcp-range={first},{first},255.255.255.0,2m",
        "--dhcp-option=option:router,10.1.2.1",
        "--dhcp-option=option:dns-server,10.1.2.53,10.1.2.54",
        "--dhcp-option=option:ntp-server,10.1.2.123",
        "--domain=lan.example.org",
        *options,
    )


def scripted_server(
    camera: Camera, *answers: Answer | list[Answer] | None, program: str = "scripted_dhcp_server.py"
) -> Process:
    """Run the server that says what a real one refuses to say."""
    code = (SCRIPTED_SERVERS / program).read_text(encoding="utf-8")
    server = camera.lan.start(["/usr/bin/python3", "-c", code, json.dumps(answers)])
    camera.wait_until(lambda: server.stdout, "the scripted server listens")
    return server


def lease(address: str, *options: tuple[int, bytes], **more: Any) -> Answer:
    """One answer of the scripted server."""
    return {"address": address, "options": [(code, text.hex()) for code, text in options], **more}


def reports(camera: Camera) -> list[str]:
    """The set requests that the daemon has got, in order."""
    begin = "<5>api_set: API call: SET.  Data: "
    return [line[len(begin) :] for line in camera.log_lines() if line.startswith(begin)]


def wait_reports(camera: Camera, count: int, timeout: float = 30) -> list[str]:
    """Wait until the daemon has got so many set requests, and has dealt with them."""
    camera.wait_log("api_set: API call: SET.  Data: ", count, timeout)
    camera.get("[NIC/eth0]MTU")  # answered when the request before it is done with
    return reports(camera)


def settings(camera: Camera, keys: list[str]) -> list[Any]:
    """The values of some settings."""
    response = camera.api_get(keys)
    return [response[key] for key in keys]


def udhcpc(camera: Camera) -> int:
    """The process id of the one DHCP client, as the camera sees it."""
    [pid] = camera.run(["pidof", "udhcpc"]).stdout.split()
    return int(pid)


def renew(camera: Camera) -> None:
    """Let the client renew its lease now."""
    camera.run(["kill", "-USR1", str(udhcpc(camera))], check=True)


def prepare_lan(camera: Camera) -> Camera:
    """Let the LAN have 10.1.2.1 and two DNS servers, and wait until the link is ready."""
    # Servers that are not there at all would hold every look-up of a name up.
    for address in ("10.1.2.1", "10.1.2.53", "10.1.2.54"):
        camera.lan.own(address)
    camera.rule(RELOAD_NTP, status=0)
    wait_for_link(camera)
    return camera


def lease_request(address: str = "10.1.2.50", *, is_new: bool = True) -> str:
    """The report of a lease of lease_server()."""
    return (
        f'{{"[IPv4/DHCP]Address":"{address}","[IPv4/DHCP]Netmask":24,'
        + ('"[IPv4/DHCP]Gateways":[],' if is_new else "")
        + '"[IPv4/DHCP]Gateways":["10.1.2.1"],"[DNS/IPv4/DHCP]Servers":["10.1.2.53","10.1.2.54"],'
        '"[DNS/IPv4/DHCP]Search":["lan.example.org"],"[NTP/IPv4/DHCP]Servers":["10.1.2.123"]}'
    )


def lease_settings(address: str = "10.1.2.50") -> list[Any]:
    """The values of IPV4_KEYS with a lease of lease_server()."""
    return [
        *(address, 24, ["10.1.2.1"], ["10.1.2.53", "10.1.2.54"]),
        *(["lan.example.org"], ["10.1.2.123"]),
    ]


def has_leased_network(camera: Camera, address: str = "10.1.2.50") -> None:
    """Settings and kernel are those of a lease of lease_server()."""
    assert settings(camera, IPV4_KEYS) == lease_settings(address)
    assert ipv4_of_kernel(camera) == [labelled(f"{address}/24")]
    assert [
        (route["dst"], route.get("gateway")) for route in camera.routes() if "." in route["dst"]
    ] == [("10.1.2.0/24", None), (MULTICAST_NETWORK, None)]
    assert default_gateways(camera) == ["10.1.2.1"]


def has_no_lease(camera: Camera, netmask: int | None = 24) -> None:
    """Settings and kernel are those of a camera without a lease, but for the lost one's netmask."""
    link_local = stored(camera)["IPv4.LocalLink.Address"]
    assert settings(camera, IPV4_KEYS) == [None, netmask, [], [], [], []]
    assert ipv4_of_kernel(camera) == [
        labelled(f"{link_local}/16"),
        labelled("192.168.0.20/24", "eth0:1"),
    ]
    assert default_gateways(camera) == []


def default_gateways(camera: Camera) -> list[str]:
    """The gateways of the kernel's IPv4 default routes."""
    return [route["gateway"] for route in camera.routes() if route["dst"] == "default"]


def call_helper(camera: Camera, *arguments: str, **variables: str) -> tuple[int, list[str]]:
    """Call the helper as a client's script does, with a shell as client; its status and log."""
    environment = {**ENVIRONMENT, "interface": "eth0", **variables}
    script = f'{HELPER} "$@"; exit $?'
    result = camera.run(
        ["/.camlab/real/sh", "-c", script, "sh", *arguments], environment=environment
    )
    return result.returncode, result.stderr.splitlines()


def mask(length: int) -> bytes:
    """A netmask as option 1 carries it."""
    return (0xFFFFFFFF << (32 - length) & 0xFFFFFFFF).to_bytes(4, "big")


def addresses(*texts: str) -> bytes:
    """IPv4 addresses as options carry them."""
    return b"".join(ipaddress.IPv4Address(text).packed for text in texts)


def names(*texts: bytes) -> bytes:
    """Domain names as option 119 carries them, one label a part between dots."""
    return b"".join(
        b"".join(bytes([len(label)]) + label for label in text.split(b".")) + b"\0"
        for text in texts
    )
