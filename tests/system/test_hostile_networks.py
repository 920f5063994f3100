"""Networks that mean no good, or do not work: the camera can be reached all the same, and says why."""

from __future__ import annotations

import socket
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager

import pytest
from expectations import (
    MANUAL_IPV4,
    SUCCESS,
    compact,
    done,
    set_settings,
    start_with_free_addresses,
)
from leases import (
    IPV4_KEYS,
    LOST_LEASE,
    RELOAD_NTP,
    ROUTER,
    SUBNET_MASK,
    addresses,
    default_gateways,
    has_no_lease,
    lease,
    mask,
    prepare_lan,
    renew,
    reports,
    scripted_server,
    settings,
    udhcpc,
    wait_reports,
)
from scripted_dhcp_server import garbage

from camlab import Camera

MakeCamera = Callable[..., Camera]

GOOD_OPTIONS = [(SUBNET_MASK, mask(24)), (ROUTER, addresses("10.1.2.1"))]
FALLBACK = "192.168.0.20"


@pytest.fixture
def lan_camera(camera: Camera) -> Camera:
    """Return a camera whose LAN has 10.1.2.1 and whose link is ready."""
    return prepare_lan(camera)


def is_reached(camera: Camera, address: str) -> bool:
    """Whether a host of the LAN gets an answer from that address of the camera."""
    ping = camera.lan.run(["busybox", "ping", "-c", "1", "-W", "10", address])
    return ping.returncode == 0


def is_reached_without_a_lease(camera: Camera) -> bool:
    """Whether the camera is reached at both addresses that it has without a lease."""
    has_no_lease(camera, camera.get("[IPv4/DHCP]Netmask"))
    camera.lan.own("192.168.0.1")
    camera.lan.own("169.254.0.1/16")
    link_local = camera.get("[IPv4/LocalLink]Address")
    return is_reached(camera, FALLBACK) and is_reached(camera, link_local)


def lines_of(camera: Camera, *functions: str) -> list[str]:
    """The log lines of some functions, from warnings upwards."""
    return [
        line
        for line in camera.log_lines()
        if line.startswith(tuple(f"<{level}>{name}: " for level in range(5) for name in functions))
    ]


# Gateways


def test_gateways_of_a_lease_that_are_unreachable_or_given_twice_cost_no_other(
    lan_camera: Camera,
) -> None:
    routers = addresses("10.9.9.9", "10.1.2.1", "10.1.2.1", "10.1.2.254")
    scripted_server(lan_camera, lease("10.1.2.50", (SUBNET_MASK, mask(24)), (ROUTER, routers)))
    start_with_free_addresses(lan_camera)
    wait_reports(lan_camera, 1)
    assert default_gateways(lan_camera) == ["10.1.2.254", "10.1.2.1"]
    assert [line for line in lan_camera.log_lines() if "Failed at adding" in line] == [
        "<5>set_ipv4_routes: Failed at adding 0-th gateway 10.9.9.9 from dhcp",
        "<5>set_ipv4_routes: Failed at adding 2-th gateway 10.1.2.1 from dhcp",
    ]
    assert lines_of(lan_camera, "add_ipv4_gateway") == [
        "<4>add_ipv4_gateway: System call to add 10.9.9.9 gateway failed",
        "<4>add_ipv4_gateway: System call to add 10.1.2.1 gateway failed",
    ]
    assert is_reached(lan_camera, "10.1.2.50")


def test_a_gateway_s_host_name_that_dead_servers_are_asked_for_holds_nobody_up_for_long(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    camera.rule(RELOAD_NTP, status=0)
    camera.lan.own("192.0.2.1")
    start_with_free_addresses(camera)
    dead = ["192.0.2.201", "192.0.2.202"]
    assert set_settings(camera, {"[DNS/Manual]Servers": dead}).response == SUCCESS
    begin = time.monotonic()
    outcome = set_settings(camera, {"[IPv4/Manual]Gateways": ["gateway.example", "192.0.2.1"]})
    # Two tries of a second at each server; the tools' own bounds would be three times that.
    assert time.monotonic() - begin < 9
    assert outcome.response == SUCCESS
    assert [line for line in outcome.log if "gateway.example" in line] == [
        "<4>add_ipv4_gateway: System call to add gateway.example gateway failed",
        "<5>set_ipv4_routes: Failed at adding 0-th gateway gateway.example set manually",
    ]
    assert default_gateways(camera) == ["192.0.2.1"]
    assert is_reached(camera, "192.0.2.10")


# Servers that refuse, lie or quarrel


@pytest.mark.parametrize(("refused", "last"), [("all", "discover"), ("requests", "request")])
def test_a_server_that_only_refuses_leaves_the_camera_its_addresses(
    lan_camera: Camera, refused: str, last: str
) -> None:
    server = scripted_server(lan_camera, lease("10.1.2.50", *GOOD_OPTIONS, refuse=refused))
    start_with_free_addresses(lan_camera)
    lan_camera.wait_until(lambda: last in server.stdout, "the server has refused")
    if refused == "requests":
        lan_camera.wait_log("udhcpc: received DHCP NAK")
    assert is_reached_without_a_lease(lan_camera)
    assert reports(lan_camera) == []


def test_a_server_that_refuses_to_renew_takes_its_lease_and_nothing_else(
    lan_camera: Camera,
) -> None:
    refusal = lease("10.1.2.50", refuse="all")
    server = scripted_server(lan_camera, lease("10.1.2.50", *GOOD_OPTIONS), refusal)
    start_with_free_addresses(lan_camera)
    wait_reports(lan_camera, 1)
    assert is_reached(lan_camera, "10.1.2.50")
    client = udhcpc(lan_camera)
    renew(lan_camera)
    assert wait_reports(lan_camera, 2)[1:] == [LOST_LEASE]
    assert "udhcpc: received DHCP NAK" in lan_camera.log_lines()
    assert is_reached_without_a_lease(lan_camera)
    lan_camera.wait_until(lambda: server.stdout.endswith("discover\n"), "the client asks on")
    assert udhcpc(lan_camera) == client


def test_a_lease_for_one_second_is_renewed_without_a_command(lan_camera: Camera) -> None:
    server = scripted_server(lan_camera, lease("10.1.2.50", *GOOD_OPTIONS, lease=1))
    start_with_free_addresses(lan_camera)
    wait_reports(lan_camera, 1)
    lan_camera.clear_commands()
    for count in (2, 3):
        renew(lan_camera)
        wait_reports(lan_camera, count)
    assert server.stdout.split() == ["ready", "discover", "request", "request", "request"]
    assert lan_camera.commands() == []
    assert is_reached(lan_camera, "10.1.2.50")


def test_of_two_servers_that_disagree_one_is_believed_in_all_it_says(lan_camera: Camera) -> None:
    lan_camera.lan.own("10.1.3.1")
    one = lease("10.1.2.50", *GOOD_OPTIONS)
    routers = (ROUTER, addresses("10.1.3.1"))
    other = lease("10.1.3.60", (SUBNET_MASK, mask(24)), routers, server="10.1.3.1")
    scripted_server(lan_camera, [one, other])
    start_with_free_addresses(lan_camera)
    wait_reports(lan_camera, 1)
    address, netmask, gateways, *_ = settings(lan_camera, IPV4_KEYS)
    leased = {"10.1.2.50": "10.1.2.1", "10.1.3.60": "10.1.3.1"}
    assert (netmask, gateways) == (24, [leased[address]])
    assert lan_camera.addresses(4) == [f"{address}/24"]
    assert default_gateways(lan_camera) == gateways
    assert is_reached(lan_camera, address)


def test_a_server_that_changes_its_mind_at_each_renewal_is_followed_each_time(
    lan_camera: Camera,
) -> None:
    lan_camera.lan.own("10.1.2.254")
    one = lease("10.1.2.50", *GOOD_OPTIONS)
    other = lease("10.1.2.60", (SUBNET_MASK, mask(24)), (ROUTER, addresses("10.1.2.254")))
    scripted_server(lan_camera, one, other, one)
    start_with_free_addresses(lan_camera)
    wait_reports(lan_camera, 1)
    steps = [("10.1.2.60", "10.1.2.254"), ("10.1.2.50", "10.1.2.1")]
    for count, (address, gateway) in enumerate(steps, 2):
        renew(lan_camera)
        wait_reports(lan_camera, count)
        assert lan_camera.addresses(4) == [f"{address}/24"]
        assert default_gateways(lan_camera) == [gateway]
        assert is_reached(lan_camera, address)


# Garbage


@contextmanager
def lan_socket(camera: Camera, family: int = socket.AF_INET) -> Iterator[socket.socket]:
    """A UDP socket of the LAN that may send to everybody."""
    with camera.lan.socket(family, socket.SOCK_DGRAM) as opened:
        opened.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b"lan0")
        opened.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        yield opened


def test_garbage_before_each_reply_of_a_server_changes_nothing(lan_camera: Camera) -> None:
    server = scripted_server(lan_camera, lease("10.1.2.50", *GOOD_OPTIONS, garbage=True))
    start_with_free_addresses(lan_camera)
    wait_reports(lan_camera, 1)
    client = udhcpc(lan_camera)
    renew(lan_camera)
    told = wait_reports(lan_camera, 2)
    leased = ["10.1.2.50", 24, ["10.1.2.1"], [], [], []]
    assert told[1:] == [compact(dict(zip(IPV4_KEYS, leased)))]
    assert server.stdout.split() == ["ready", "discover", "request", "request"]
    assert lan_camera.addresses(4) == ["10.1.2.50/24"]
    assert udhcpc(lan_camera) == client
    assert is_reached(lan_camera, "10.1.2.50")


def test_garbage_on_the_ports_of_both_clients_ends_neither(lan_camera: Camera) -> None:
    scripted_server(lan_camera, lease("10.1.2.50", *GOOD_OPTIONS))
    start_with_free_addresses(lan_camera)
    wait_reports(lan_camera, 1)
    before = clients(lan_camera)
    reply = bytes(236) + b"\x63\x82\x53\x63" + bytes((53, 1, 5, 255))
    [link_local] = lan_camera.addresses(6, "link")
    with lan_socket(lan_camera) as ipv4, lan_socket(lan_camera, socket.AF_INET6) as ipv6:
        for packet in garbage(reply):
            for target in ("10.1.2.50", "255.255.255.255"):
                ipv4.sendto(packet, (target, 68))
            ipv6.sendto(packet, (link_local.split("/")[0], 546, 0, interface_number(lan_camera)))
    renew(lan_camera)
    wait_reports(lan_camera, 2)
    assert clients(lan_camera) == before
    assert settings(lan_camera, IPV4_KEYS)[:3] == ["10.1.2.50", 24, ["10.1.2.1"]]
    assert is_reached(lan_camera, "10.1.2.50")


def clients(camera: Camera) -> list[str]:
    """The process ids of the running clients."""
    return sorted(camera.run(["pidof", "udhcpc", "dhclient"], check=True).stdout.split())


def interface_number(camera: Camera) -> int:
    """The number of lan0."""
    return int(camera.lan.run(["cat", "/sys/class/net/lan0/ifindex"], check=True).stdout)
