"""What real DHCP clients and rdnssd learn from servers on the LAN, from the wire to the kernel."""

from __future__ import annotations

import json
import signal
import time
from collections.abc import Callable

import pytest
from expectations import (
    ALIAS_DOWN,
    MULTICAST_ROUTE,
    NO_ALIAS,
    compact,
    done,
    ifconfig,
    ipv4_of_kernel,
    labelled,
    probe,
    start_with_free_addresses,
)
from leases import (
    DNS,
    DOMAIN,
    HELPER,
    IPV4_KEYS,
    IPV6_KEYS,
    LOST_LEASE,
    NTP,
    RELOAD_NTP,
    ROUTER,
    SEARCH,
    SUBNET_MASK,
    addresses,
    call_helper,
    default_gateways,
    dnsmasq,
    has_leased_network,
    has_no_lease,
    lease,
    lease_request,
    lease_server,
    mask,
    names,
    prepare_lan,
    renew,
    reports,
    scripted_server,
    settings,
    udhcpc,
    wait_for_link,
    wait_reports,
)
from stored_settings import stored

from camlab import Camera, Command, Process
from camlab.namespaces import ENVIRONMENT

MakeCamera = Callable[..., Camera]

BUS_NAME = "com.vesko.networkingV2"
REMOVE_ROUTES = "while /sbin/route del default gw 0.0.0.0 dev eth0 2>/dev/null ; do : ; done"


def add_gateway(address: str) -> str:
    """The command that adds a default gateway."""
    return f"/sbin/route add default gw {address} eth0 2>/dev/null"


@pytest.fixture
def lan_camera(camera: Camera) -> Camera:
    """Return a camera whose LAN has 10.1.2.1 and whose link is ready."""
    return prepare_lan(camera)


@pytest.fixture
def leased_camera(lan_camera: Camera) -> Camera:
    """Return a camera that has got 10.1.2.50/24 from a real server."""
    lease_server(lan_camera)
    start_with_free_addresses(lan_camera)
    assert wait_reports(lan_camera, 1) == [lease_request()]
    lan_camera.clear_commands()
    return lan_camera


def blocks(camera: Camera, path: str) -> list[str]:
    """The lines of a generated file that name servers."""
    lines = camera.read_file(path).splitlines()
    return [line for line in lines if line.startswith(("nameserver", "server", "search"))]


# A lease comes


def test_a_lease_becomes_settings_address_route_and_servers(lan_camera: Camera) -> None:
    lease_server(lan_camera)
    start_with_free_addresses(lan_camera)
    assert wait_reports(lan_camera, 1) == [lease_request()]
    assert lan_camera.commands()[-7:] == [
        *done(ALIAS_DOWN),
        ifconfig("10.1.2.50/24"),
        *done(MULTICAST_ROUTE, REMOVE_ROUTES, MULTICAST_ROUTE),
        *done(add_gateway("10.1.2.1"), RELOAD_NTP),
    ]
    has_leased_network(lan_camera)
    assert blocks(lan_camera, "/etc/resolv.conf") == [
        "nameserver 10.1.2.53",
        "nameserver 10.1.2.54",
    ]
    assert blocks(lan_camera, "/etc/ntp.conf") == ["server -4 10.1.2.123"]


def test_what_was_reported_is_kept_where_only_root_can_see_it(leased_camera: Camera) -> None:
    [folder, file] = leased_camera.run(
        ["stat", "-c", "%U %a", "/run/quarn", "/run/quarn/udhcpc.json"], check=True
    ).stdout.splitlines()
    assert (folder, file) == ("root 700", "root 600")
    kept = json.loads(leased_camera.read_file("/run/quarn/udhcpc.json"))
    assert kept["mark"].split(":")[0] == str(udhcpc(leased_camera))
    assert leased_camera.read_file("/run/quarn/udhcpc.json") == (
        f'{{"mark":"{kept["mark"]}","request":{lease_request()}}}'
    )


def test_a_renewal_that_changes_nothing_runs_no_command(leased_camera: Camera) -> None:
    renew(leased_camera)
    assert wait_reports(leased_camera, 2)[1:] == [lease_request(is_new=False)]
    assert leased_camera.commands() == []
    has_leased_network(leased_camera)


def test_a_new_address_with_the_same_gateway_keeps_its_default_route(lan_camera: Camera) -> None:
    options = [(SUBNET_MASK, mask(24)), (ROUTER, addresses("10.1.2.1"))]
    scripted_server(lan_camera, lease("10.1.2.50", *options), lease("10.1.2.51", *options))
    start_with_free_addresses(lan_camera)
    wait_reports(lan_camera, 1)
    assert default_gateways(lan_camera) == ["10.1.2.1"]
    lan_camera.clear_commands()
    renew(lan_camera)
    wait_reports(lan_camera, 2)
    assert lan_camera.commands() == [
        NO_ALIAS,
        ifconfig("10.1.2.51/24"),
        *done(MULTICAST_ROUTE, REMOVE_ROUTES, MULTICAST_ROUTE),
        *done(add_gateway("10.1.2.1"), RELOAD_NTP),
    ]
    assert ipv4_of_kernel(lan_camera) == [labelled("10.1.2.51/24")]
    assert default_gateways(lan_camera) == ["10.1.2.1"]


# Two seconds each with the real prober: a boot needs these two and no more.
def test_a_boot_probes_link_local_and_fallback_once_whether_a_lease_comes_or_not(
    lan_camera: Camera,
) -> None:
    start_with_free_addresses(lan_camera)
    link_local = stored(lan_camera)["IPv4.LocalLink.Address"]
    needed = [probe(link_local), probe("192.168.0.20")]
    assert call_helper(lan_camera, "udhcpc", "leasefail") == (0, [])
    assert probes(lan_camera) == needed
    lan_camera.reboot()
    wait_for_link(lan_camera)
    lease_server(lan_camera)
    start_with_free_addresses(lan_camera)
    wait_reports(lan_camera, 1)
    has_leased_network(lan_camera)
    assert probes(lan_camera) == needed


def probes(camera: Camera) -> list[Command]:
    """The probes up to now."""
    camera.get("[NIC/eth0]MTU")
    return [command for command in camera.commands() if "arping" in command.text]


# A lease goes


def lost_lease_commands(camera: Camera) -> list[Command]:
    """What the daemon runs when the lease is gone."""
    link_local = stored(camera)["IPv4.LocalLink.Address"]
    return [
        probe(link_local),
        probe("192.168.0.20"),
        ifconfig(f"{link_local}/16"),
        ifconfig("192.168.0.20/24", "eth0:1"),
        *done(MULTICAST_ROUTE, RELOAD_NTP),
    ]


# Takes 40 s: udhcpc gives no lease up before some 35.
def test_with_its_server_gone_a_lease_ends_in_link_local_and_fallback(lan_camera: Camera) -> None:
    options = [(SUBNET_MASK, mask(24)), (ROUTER, addresses("10.1.2.1"))]
    scripted_server(lan_camera, lease("10.1.2.50", *options, lease=1), None)
    start_with_free_addresses(lan_camera)
    wait_reports(lan_camera, 1)
    lan_camera.clear_commands()
    assert wait_reports(lan_camera, 2, timeout=60)[1:] == [LOST_LEASE]
    assert lan_camera.commands() == lost_lease_commands(lan_camera)
    has_no_lease(lan_camera)


def test_a_lease_that_is_released_is_lost(leased_camera: Camera) -> None:
    leased_camera.run(["kill", "-USR2", str(udhcpc(leased_camera))], check=True)
    assert wait_reports(leased_camera, 2)[1:] == [LOST_LEASE]
    assert leased_camera.commands() == lost_lease_commands(leased_camera)
    has_no_lease(leased_camera)
    assert blocks(leased_camera, "/etc/resolv.conf") == []
    assert blocks(leased_camera, "/etc/ntp.conf") == []


# Takes 17 s: the camera's packet filter drops the broadcast answer to the first, unicast renewal,
# and the client sends the next, whose answer it reads past the filter, after ten seconds.
def test_a_server_that_refuses_the_lease_and_offers_another(lan_camera: Camera) -> None:
    first_server = lease_server(lan_camera)
    start_with_free_addresses(lan_camera)
    wait_reports(lan_camera, 1)
    first_server.stop()
    lan_camera.lan.run(["rm", "/tmp/leases"], check=True)
    lease_server(lan_camera, "10.1.2.70")
    renew(lan_camera)
    assert wait_reports(lan_camera, 3)[1:] == [LOST_LEASE, lease_request("10.1.2.70")]
    has_leased_network(lan_camera, "10.1.2.70")


def test_a_client_that_finds_no_server_loses_the_lease_of_the_one_before(
    leased_camera: Camera,
) -> None:
    assert call_helper(leased_camera, "udhcpc", "leasefail") == (0, [])
    assert wait_reports(leased_camera, 2)[1:] == [LOST_LEASE]
    has_no_lease(leased_camera)


# The daemon or its client starts again


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL])
def test_a_daemon_that_is_restarted_gets_its_lease_back_in_one_report(
    leased_camera: Camera, number: signal.Signals
) -> None:
    first_client = udhcpc(leased_camera)
    leased_camera.stop_daemon(number)
    start_with_free_addresses(leased_camera)
    assert wait_reports(leased_camera, 1) == [lease_request(is_new=False)]
    assert udhcpc(leased_camera) != first_client
    has_leased_network(leased_camera)


def test_a_client_that_is_restarted_with_the_same_lease_changes_nothing(
    leased_camera: Camera,
) -> None:
    first_client = udhcpc(leased_camera)
    leased_camera.api_set({"[IPv4/DHCP]Enabled": True})
    has_leased_network(leased_camera)
    leased_camera.clear_commands()
    assert wait_reports(leased_camera, 3)[2:] == [lease_request(is_new=False)]
    assert leased_camera.commands() == []
    assert udhcpc(leased_camera) != first_client
    has_leased_network(leased_camera)


def test_dhcp_off_and_on_again_within_a_lease_brings_it_back_whole(leased_camera: Camera) -> None:
    leased_camera.api_set({"[IPv4/DHCP]Enabled": False})
    assert settings(leased_camera, IPV4_KEYS) == [None, None, [], [], [], []]
    leased_camera.api_set({"[IPv4/DHCP]Enabled": True})
    assert wait_reports(leased_camera, 4)[3:] == [lease_request(is_new=False)]
    has_leased_network(leased_camera)


def test_a_report_under_way_while_dhcp_is_switched_off_reaches_neither_address_nor_route_nor_server(
    leased_camera: Camera,
) -> None:
    switch_off = ["/usr/bin/dbus-send", "--system", "--type=method_call", f"--dest={BUS_NAME}"]
    switch_off += [f"/{BUS_NAME.replace('.', '/')}", f"{BUS_NAME}.api_set"]
    late = {"ip": "10.1.2.78", "subnet": "255.255.255.0", "router": "10.1.2.1", "dns": "10.1.2.53"}
    hanging = leased_camera.hang("/sbin/ifconfig *", times=1)
    early = {**late, "ip": "10.1.2.77"}
    assert call_helper(leased_camera, "udhcpc", "bound", **early) == (0, [])
    leased_camera.recorder.wait_for(ALIAS_DOWN, finished=False)
    off = {
        "[IPv4/DHCP]Enabled": False,
        "[IPv4/Manual]Address": "10.1.2.99",
        "[IPv4/Manual]Netmask": 24,
    }
    leased_camera.run([*switch_off, f"string:{compact(off)}"], check=True)
    assert call_helper(leased_camera, "udhcpc", "bound", **late) == (0, [])
    hanging.release()
    assert json.loads(wait_reports(leased_camera, 4)[3])["[IPv4/DHCP]Address"] == "10.1.2.78"
    assert ipv4_of_kernel(leased_camera) == [labelled("10.1.2.99/24")]
    assert default_gateways(leased_camera) == []
    assert blocks(leased_camera, "/etc/resolv.conf") == []
    leased_camera.api_set({"[IPv4/DHCP]Enabled": True})
    assert wait_reports(leased_camera, 6)[5] == lease_request()
    has_leased_network(leased_camera)


# Servers that lie


def test_hostile_options_are_dropped_one_by_one_and_cost_no_lease(lan_camera: Camera) -> None:
    servers = [f"10.9.0.{number}" for number in range(1, 41)]
    scripted_server(
        lan_camera,
        lease(
            "10.1.2.50",
            (SUBNET_MASK, mask(24)),
            (ROUTER, addresses("127.0.0.1", "10.1.2.1", "224.0.0.1")),
            (DNS, addresses("0.0.0.0", *servers, "127.0.0.53", "255.255.255.255")),
            (DOMAIN, b"x\nnameserver 6.6.6.6"),
            (NTP, addresses("10.1.2.123", "239.1.1.1")),
            (
                SEARCH,
                names(b"good.example", b"$(reboot)", b"x\ny.example", b"'a\".b", b"two.example"),
            ),
        ),
    )
    start_with_free_addresses(lan_camera)
    assert wait_reports(lan_camera, 1) == [
        compact({"[IPv4/DHCP]Address": "10.1.2.50", "[IPv4/DHCP]Netmask": 24})[:-1]
        + ',"[IPv4/DHCP]Gateways":[],'
        + compact(
            {
                "[IPv4/DHCP]Gateways": ["10.1.2.1"],
                "[DNS/IPv4/DHCP]Servers": servers,
                "[DNS/IPv4/DHCP]Search": ["good.example", "two.example"],
                "[NTP/IPv4/DHCP]Servers": ["10.1.2.123"],
            }
        )[1:]
    ]
    dropped = [line for line in lan_camera.log_lines() if line.startswith("<4>log_dropped: ")]
    assert dropped == [
        f"<4>log_dropped: Dropping '{item}' from the {what}: not usable"
        for item, what in [
            ("0.0.0.0", "DHCP DNS servers"),
            ("127.0.0.53", "DHCP DNS servers"),
            ("255.255.255.255", "DHCP DNS servers"),
            ("$(reboot)", "DHCP search list"),
            ("x\\x0ay.example", "DHCP search list"),
            ("'a\".b", "DHCP search list"),
            ("239.1.1.1", "DHCP NTP servers"),
            ("127.0.0.1", "DHCP gateways"),
            ("224.0.0.1", "DHCP gateways"),
        ]
    ]
    assert ipv4_of_kernel(lan_camera) == [labelled("10.1.2.50/24")]
    assert default_gateways(lan_camera) == ["10.1.2.1"]


def test_a_search_list_of_a_real_server_comes_before_its_domain(lan_camera: Camera) -> None:
    lease_server(lan_camera, "10.1.2.50", "--dhcp-option-force=119,one.example,two.example")
    start_with_free_addresses(lan_camera)
    wait_reports(lan_camera, 1)
    assert lan_camera.get("[DNS/IPv4/DHCP]Search") == ["one.example", "two.example"]


@pytest.mark.parametrize(
    ("options", "netmask"),
    [
        ([], ""),
        ([(SUBNET_MASK, bytes(4))], "0.0.0.0"),
        ([(SUBNET_MASK, mask(32))], "255.255.255.255"),
    ],
)
def test_a_lease_without_a_usable_netmask_takes_its_class_s(
    lan_camera: Camera, options: list[tuple[int, bytes]], netmask: str
) -> None:
    scripted_server(lan_camera, lease("192.0.2.50", *options))
    start_with_free_addresses(lan_camera)
    wait_reports(lan_camera, 1)
    assert lan_camera.wait_log("prefix_length_of") == (
        f"<4>prefix_length_of: The lease has no usable netmask ('{netmask}'). Using /24"
    )
    assert ipv4_of_kernel(lan_camera) == [labelled("192.0.2.50/24")]


@pytest.mark.parametrize(
    "address", ["127.0.0.2", "224.0.0.9", "240.0.0.1", "10.1.2.0", "10.1.2.255"]
)
def test_a_lease_of_an_address_that_no_host_may_have_is_none(
    lan_camera: Camera, address: str
) -> None:
    scripted_server(lan_camera, lease(address, (SUBNET_MASK, mask(24))))
    start_with_free_addresses(lan_camera)
    assert lan_camera.wait_log("A lease of") == (
        f"<3>read_ipv4_lease: A lease of '{address}' is of no use: no host may have that address"
    )
    has_no_lease(lan_camera, netmask=None)
    assert reports(lan_camera) == []


def test_a_renewal_to_an_address_that_no_host_may_have_is_a_lost_lease(lan_camera: Camera) -> None:
    options = [(SUBNET_MASK, mask(24)), (ROUTER, addresses("10.1.2.1"))]
    scripted_server(lan_camera, lease("10.1.2.50", *options), lease("127.0.0.1", *options))
    start_with_free_addresses(lan_camera)
    wait_reports(lan_camera, 1)
    renew(lan_camera)
    assert wait_reports(lan_camera, 2)[1:] == [LOST_LEASE]
    has_no_lease(lan_camera)


# DHCPv6 and router advertisements


@pytest.fixture
def ipv6_camera(make_camera: MakeCamera) -> Camera:
    """Return a camera whose LAN has 2001:db8::1, with DHCP for IPv4 off."""
    camera = make_camera(variables={"vesko_ipv4_dhcp_enable": "0"})
    camera.lan.own("2001:db8::1")
    camera.rule(RELOAD_NTP, status=0)
    return camera


def dhcpv6_server(camera: Camera) -> Process:
    """Run a server that leases 2001:db8::100 and no other address."""
    return dnsmasq(
        camera,
        "--dhcp-range=2001:db8::100,2001:db8::100,64,2m",
        "--dhcp-option=option6:dns-server," + ",".join(f"[2001:db8::{n}]" for n in range(50, 90)),
        "--dhcp-option=option6:domain-search,example.org,lab.example.org",
        "--dhcp-option=option6:sntp-server,[2001:db8::123]",
    )


def global_ipv6(camera: Camera) -> list[str]:
    """eth0's global IPv6 addresses."""
    return camera.addresses(6, "global")


# The link has just come up: the client is held back until its link-local address may be used.
def test_a_stateful_lease_becomes_settings_and_an_address_and_its_release_takes_them_away(
    ipv6_camera: Camera,
) -> None:
    dhcpv6_server(ipv6_camera)
    start_with_free_addresses(ipv6_camera)
    assert wait_reports(ipv6_camera, 1) == [
        compact(
            {
                "[IPv6/Stateful]Addresses": ["2001:db8::100/128"],
                "[DNS/IPv6/DHCP]Servers": ["2001:db8::50", "2001:db8::51", "2001:db8::52"],
                "[DNS/IPv6/DHCP]Search": ["example.org", "lab.example.org"],
                "[NTP/IPv6/DHCP]Servers": ["2001:db8::123"],
            }
        )
    ]
    assert global_ipv6(ipv6_camera) == ["2001:db8::100/128"]
    assert "nameserver 2001:db8::50" in blocks(ipv6_camera, "/etc/resolv.conf")
    assert blocks(ipv6_camera, "/etc/ntp.conf") == ["server -6 2001:db8::123"]
    ipv6_camera.run(
        [
            *("/usr/sbin/dhclient", "-6", "-r", "-cf", "/etc/isc-dhcp/isc_dhclient6.conf"),
            *("-pf", "/var/run/dhclient6.pid", "eth0"),
        ]
    )
    assert wait_reports(ipv6_camera, 2)[1:] == [compact({key: [] for key in IPV6_KEYS})]
    assert global_ipv6(ipv6_camera) == []


def test_a_stateful_lease_comes_back_after_a_restart_of_the_daemon(ipv6_camera: Camera) -> None:
    dhcpv6_server(ipv6_camera)
    start_with_free_addresses(ipv6_camera)
    [report] = wait_reports(ipv6_camera, 1)
    ipv6_camera.kill_daemon()
    start_with_free_addresses(ipv6_camera)
    assert wait_reports(ipv6_camera, 1) == [report]
    assert global_ipv6(ipv6_camera) == ["2001:db8::100/128"]


def test_an_address_that_a_renewal_passes_over_stays_until_its_time_is_up(
    ipv6_camera: Camera,
) -> None:
    scripted_server(
        ipv6_camera,
        {"renewal": 1, "addresses": [["2001:db8::100", 4]]},
        {"renewal": 900, "addresses": [["2001:db8::200", 3600]]},
        program="scripted_dhcpv6_server.py",
    )
    start_with_free_addresses(ipv6_camera)
    told = [json.loads(report)[IPV6_KEYS[0]] for report in wait_reports(ipv6_camera, 4)]
    old, new = "2001:db8::100/128", "2001:db8::200/128"
    assert told == [[old], [old], [old, new], [new]]
    assert global_ipv6(ipv6_camera) == [new]


def test_the_addresses_of_a_lease_come_back_with_the_next_client(ipv6_camera: Camera) -> None:
    leased = ["2001:db8::100", "2001:db8::200"]
    scripted_server(
        ipv6_camera,
        {"renewal": 900, "addresses": [[address, 3600] for address in leased]},
        program="scripted_dhcpv6_server.py",
    )
    start_with_free_addresses(ipv6_camera)
    wait_reports(ipv6_camera, 2)
    ipv6_camera.stop_daemon()
    start_with_free_addresses(ipv6_camera)
    told = [json.loads(report)[IPV6_KEYS[0]] for report in wait_reports(ipv6_camera, 2)]
    assert told == [[f"{leased[0]}/128"], [f"{address}/128" for address in leased]]
    assert sorted(global_ipv6(ipv6_camera)) == [f"{address}/128" for address in leased]


def test_router_advertisements_bring_names_without_dhcp(ipv6_camera: Camera) -> None:
    start_with_free_addresses(ipv6_camera)
    ipv6_camera.run(["install", "-d", "-o", "nobody", "/run/rdnssd"], check=True)
    ipv6_camera.start(["/sbin/rdnssd", "-f", "-H", "/usr/lib/quarn/rdnssd.hook"])
    dnsmasq(
        ipv6_camera,
        *("--enable-ra", "--dhcp-range=2001:db8::,ra-only", "--ra-param=lan0,4"),
        "--dhcp-option=option6:dns-server,[2001:db8::53],[fe80::1],[::1]",
        "--dhcp-option=option6:domain-search,example.org,lab.example.org",
    )
    wait_reports(ipv6_camera, 1)
    assert settings(ipv6_camera, ["[DNS/IPv6/Discovery]Servers", "[DNS/IPv6/Discovery]Search"]) == [
        ["2001:db8::53", "fe80::1"],
        ["example.org", "lab.example.org"],
    ]
    assert blocks(ipv6_camera, "/etc/resolv.conf") == [
        "nameserver 2001:db8::53",
        "nameserver fe80::1%eth0",
    ]


# The helper by itself


def test_a_client_begins_when_eth0_is_shaped_or_half_a_second_later(camera: Camera) -> None:
    def duration() -> float:
        begin = time.monotonic()
        assert call_helper(camera, "udhcpc", "deconfig") == (0, [])
        return time.monotonic() - begin

    assert duration() >= 0.5
    shape = ["/sbin/tc", "qdisc", "replace", "dev", "eth0", "root", "handle", "1:", "htb"]
    camera.run(shape, check=True)
    assert min(duration() for _ in range(3)) < 0.5


def test_the_helper_does_not_wait_for_a_daemon_that_is_busy(leased_camera: Camera) -> None:
    hanging = leased_camera.hang("/sbin/ifconfig *")
    variables = {"ip": "10.1.2.77", "subnet": "255.255.255.0"}
    assert call_helper(leased_camera, "udhcpc", "bound", **variables) == (0, [])
    leased_camera.recorder.wait_for(ALIAS_DOWN, finished=False)
    variables["ip"] = "10.1.2.78"
    assert call_helper(leased_camera, "udhcpc", "bound", **variables) == (0, [])
    hanging.release()
    wait_reports(leased_camera, 3)
    assert ipv4_of_kernel(leased_camera) == [labelled("10.1.2.78/24")]


def test_what_no_daemon_took_does_not_count_as_reported(leased_camera: Camera) -> None:
    before = leased_camera.read_file("/run/quarn/udhcpc.json")
    leased_camera.kill_daemon()
    assert call_helper(leased_camera, "udhcpc", "leasefail") == (
        1,
        ["<4>report: The daemon could not be told: it does not run"],
    )
    assert leased_camera.read_file("/run/quarn/udhcpc.json") == before


def test_without_a_bus_the_helper_says_so_and_ends(leased_camera: Camera) -> None:
    leased_camera.stop_bus()
    status, log = call_helper(leased_camera, "udhcpc", "leasefail")
    assert status == 1
    assert len(log) == 1 and log[0].startswith("<4>report: The daemon could not be told: ")


def test_a_client_that_has_ended_has_nothing_to_say(leased_camera: Camera) -> None:
    environment = {**ENVIRONMENT, "interface": "eth0"}
    orphan = leased_camera.run([HELPER, "udhcpc", "leasefail"], environment=environment)
    assert (orphan.returncode, orphan.stderr) == (
        0,
        "<6>report_lease: Not reporting: the client has ended\n",
    )
    leased_camera.get("[NIC/eth0]MTU")
    assert reports(leased_camera) == [lease_request()]


def test_a_folder_of_reports_that_is_not_roots_is_not_used(leased_camera: Camera) -> None:
    leased_camera.run(["chown", "nobody", "/run/quarn"], check=True)
    status, log = call_helper(leased_camera, "udhcpc", "leasefail")
    assert (status, log) == (0, [])
    leased_camera.get("[NIC/eth0]MTU")
    assert reports(leased_camera) == [lease_request()]


def test_other_callers_are_told_how_it_is_called(camera: Camera) -> None:
    calls: list[list[str]] = [[], ["udhcpc"], ["x"], ["rdnssd", "x"]]
    for arguments in calls:
        result = camera.run([HELPER, *arguments])
        assert result.returncode == 2
        assert result.stderr.startswith(
            "usage: quarn-dhcp-event udhcpc EVENT | dhclient | rdnssd\n"
        )
