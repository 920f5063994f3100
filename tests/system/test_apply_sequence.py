"""What is carried out, and in which order."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any, NamedTuple

import pytest
from expectations import (
    APPLYING_IPV4,
    APPLYING_IPV6,
    APPLY_ERROR,
    FILTERS,
    FILTERS_WITHOUT_IPV6,
    FLUSH_IPV6,
    HOSTNAME,
    IPV4_FILTER,
    MANUAL_ADDRESS,
    MANUAL_BOOT,
    MANUAL_IPV4,
    MULTICAST_ROUTE,
    NO_ALIAS,
    RELOAD_NTP_KEEPER,
    RELOAD_WEB_SERVER,
    SETTING_MTU,
    SHAPED,
    SHAPING,
    STOP_DHCPV4,
    STOP_DHCPV6,
    SUCCESS,
    add_ipv6,
    answer,
    boot_commands,
    compact,
    console,
    done,
    ifconfig,
    lines_of_level,
    masked,
    probe,
    routes,
    set_settings,
    shaping_classes,
    shaping_ports,
    start,
    start_manual,
)
from stored_settings import plant

from camlab import Camera, Command
from camlab.namespaces import MS_BIND, MS_RDONLY, MS_REMOUNT

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

IPV6_SWITCHES = ("all/disable_ipv6", "default/accept_ra", "eth0/accept_ra")
DROP_DYNAMIC = (
    "for ADDR in $(ip -6 addr show eth0 | grep \"scope global dynamic\" | cut -d ' ' -f 6); "
    "do ip addr del $ADDR dev eth0; done"
)
SETTING_KERNEL_FLAG = "<6>apply_settings: Setting IPv6 kernel flag"
TURNING_ACCEPT_RA = "<6>apply_settings: Turning accept_ra on/off"
WRITING_RESOLV_CONF = "<6>apply_settings: Writing resolv.conf"
WRITING_NTP_CONF = "<6>apply_settings: Writing ntp.conf"
RELOADING_NTPD = "<6>apply_settings: Reloading NTPd"
WRITING_NGINX_CONF = "<6>apply_settings: Writting Nginx port configuration"
RELOADING_NGINX = "<6>apply_settings: Reloading Nginx webserver configuration"
APPLYING_IPTABLES = "<6>apply_settings: Writing and applying iptables restore file"
APPLYING_IP6TABLES = "<6>apply_settings: Writing and applying ip6tables restore file"
SETTING_UP_NIC = "<6>apply_settings: Using ethtool ioctl to set up NIC"
APPLYING_IPV4_ROUTES = "<6>apply_settings: Applying IPv4 routes"
APPLYING_IPV6_ROUTES = "<6>apply_settings: If IPv6 enabled, applying IPv6 routes"
STARTING_DHCPV4 = [
    "<6>apply_settings: If DHCPv4 enabled, start it",
    "<6>stop_any_dhcpv4: Stopping any running DHCPv4 client",
]
STARTING_DHCPV6 = [
    "<6>apply_settings: If IPv6 and DHCPv6 enabled, start the DHCPv6 client",
    "<6>stop_any_dhcpv6: Stopping any running DHCPv6 client",
]
APPLYING_SHAPING = "<6>apply_settings: Applying traffic shaping rules"
SHAPING_CLASSES_LOG = [
    f"<6>modify_or_create_class: Created HTB class 1:{number} : success" for number in range(1, 6)
]


def setting_hostname(name: str) -> list[str]:
    """What the host name's step says."""
    return [
        "<6>apply_settings: Setting hostname",
        f"<6>quarn_write_hostname: Writing hostname '{name}' to /etc/hostname",
    ]


def setting_ipv4(address: str, length: int = 24) -> list[str]:
    """What the IPv4 address's step says."""
    return [APPLYING_IPV4, f"<6>_do_ifconfig: Setting IPv4 address={address}/{length}"]


def added_gateway(gateway: str) -> str:
    """What an IPv4 gateway's addition says."""
    command = f"/sbin/route add default gw {gateway} eth0 2>/dev/null"
    return f"<6>add_ipv4_gateway: Added {gateway} as a gateway with '{command}'"


def shaping_ports_log(http: int = 80, https: int = 443, rtsp: int = 554) -> list[str]:
    """What the step of the services' ports says."""
    return [
        "<6>apply_settings: Applying traffic shaping filter rules for dynamic ports",
        f"<6>create_port_filter: Packets from port={http} classified to 1:4: success",
        f"<6>create_port_filter: Packets from port={https} classified to 1:4: success",
        f"<6>create_port_filter: Packets from port={rtsp} classified to 1:3: success",
    ]


# Router advertisements can be turned off only where DHCPv6 is.
NO_DHCPV6 = {"[IPv6/Stateful]Enabled": False}


def switches(camera: Camera) -> list[str]:
    """The kernel's switches of IPv6, in the order of IPV6_SWITCHES."""
    root = "/proc/sys/net/ipv6/conf"
    return [camera.run(["cat", f"{root}/{name}"]).stdout.strip() for name in IPV6_SWITCHES]


def set_switches_read_only(camera: Camera) -> None:
    """Keep the daemon from opening the kernel's switches for writing."""
    camera.mount("", "/proc/sys/net", flags=MS_REMOUNT | MS_BIND | MS_RDONLY)


def reaction(camera: Camera, request: dict[str, Any]) -> tuple[str, list[str], list[Command]]:
    """The flags of a request, all that was logged of its steps, and the commands that ran."""
    outcome = set_settings(camera, request)
    assert outcome.response == SUCCESS
    [flags] = [line for line in outcome.log if "Apply Flags" in line]
    return flags, lines_of_level(outcome.log, 6), outcome.commands


def flags_line(flags: int) -> str:
    return f"<7>apply_settings:LINE: Apply Flags: 0x{flags:08X} (restart=1)"


# The start


def test_a_start_carries_every_step_out_in_its_order(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    lines = masked(camera.log_lines())
    assert lines[0] == "<7>apply_settings:LINE: Apply Flags: 0xFFFFFFFF (restart=0)"
    assert lines_of_level(lines, 6) == [
        SETTING_KERNEL_FLAG,
        TURNING_ACCEPT_RA,
        "<6>apply_settings: Initializing lo and eth0",
        *setting_hostname("Corvy-0000000"),
        SETTING_UP_NIC,
        *setting_ipv4(MANUAL_ADDRESS),
        APPLYING_IPV6,
        WRITING_RESOLV_CONF,
        WRITING_NGINX_CONF,
        APPLYING_IPTABLES,
        APPLYING_IP6TABLES,
        APPLYING_IPV4_ROUTES,
        added_gateway("192.0.2.1"),
        APPLYING_IPV6_ROUTES,
        *STARTING_DHCPV4,
        *STARTING_DHCPV6,
        SETTING_MTU,
        WRITING_NTP_CONF,
        APPLYING_SHAPING,
        "<6>create_qdisc: Traffic shaping enabled with HTB qdisc: success",
        *SHAPING_CLASSES_LOG,
        "<6>create_proto_filter: Packets with proto=17 classified to 1:2: success",
        "<6>create_proto_filter: Packets with proto=1 classified to 1:3: success",
        "<6>create_proto_filter: Packets with proto=2 classified to 1:3: success",
        "<6>create_port_filter: Packets from port=22 classified to 1:3: success",
        "<6>create_port_filter: Packets from port=161 classified to 1:3: success",
        *shaping_ports_log(),
    ]
    assert camera.commands() == MANUAL_BOOT


def test_a_start_reloads_no_service(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    reloads = (RELOAD_NTP_KEEPER, RELOAD_WEB_SERVER)
    for command in reloads:
        camera.rule(command, status=1)
    assert start(camera) == ["READY=1"]
    assert [command for command in camera.commands() if command.text in reloads] == []
    assert "Reloading" not in "\n".join(camera.log_lines())


def test_a_start_finds_the_addresses_of_before_it_first_of_all(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    lines = masked(camera.log_lines())
    detected = "<7>apply_settings:LINE: Detected initial ip addresses on quarn boot."
    assert lines.index(detected) < lines.index(SETTING_KERNEL_FLAG)


def test_a_start_without_any_address_detects_none(make_camera: MakeCamera) -> None:
    camera = make_camera(variables={**MANUAL_IPV4, "vesko_ipv6_enable": "0"})
    start(camera, QUARN_LOG_LEVEL="debug")
    assert "Detected initial" not in "\n".join(camera.log_lines())


@pytest.mark.parametrize(
    ("ipv6", "accept_ra", "values"),
    [(True, True, ["0", "1", "1"]), (True, False, ["0", "0", "0"]), (False, True, ["1", "7", "7"])],
    ids=["IPv6", "IPv6 without router advertisements", "no IPv6"],
)
def test_a_start_sets_the_kernels_switches_of_ipv6(
    make_camera: MakeCamera, ipv6: bool, accept_ra: bool, values: list[str]
) -> None:
    camera = start_manual(make_camera)
    request = {**NO_DHCPV6, "[IPv6]Enabled": ipv6, "[IPv6/Stateless]AcceptRA": accept_ra}
    assert camera.api_set_text(compact(request)) == SUCCESS
    assert camera.stop_daemon() == 0
    for name in IPV6_SWITCHES:
        value = "0" if name.endswith("disable_ipv6") and not ipv6 else "7"
        camera.run(["sh", "-c", f"echo {value} >/proc/sys/net/ipv6/conf/{name}"], check=True)
    assert start(camera) == ["READY=1"]
    assert switches(camera) == values


# One flag alone, or in the smallest company that a row has it in


class Case(NamedTuple):
    """A request that leads to few steps."""

    request: dict[str, Any]
    flags: int
    steps: list[str]
    commands: list[Command]
    before: dict[str, Any] = {}


CASES = {
    "no flag": Case({"[IPv4/LocalLink]Enabled": True}, 0, [], []),
    "the MTU": Case(
        {"[NIC/eth0]MTU": 1400}, 0x10000, [SETTING_MTU], done("/sbin/ip link set eth0 mtu 1400")
    ),
    "an IPv4 address": Case(
        {"[IPv4/Manual]Address": "192.0.2.11"},
        0x2,
        setting_ipv4("192.0.2.11"),
        [NO_ALIAS, ifconfig("192.0.2.11/24"), *done(MULTICAST_ROUTE)],
    ),
    "an IPv6 address": Case(
        {"[IPv6/Manual]Addresses": ["2001:db8::1/64"]},
        0x4,
        [APPLYING_IPV6],
        [*done(FLUSH_IPV6), add_ipv6("2001:db8::1/64")],
    ),
    "a domain": Case({"[Hostname]Domain": "example"}, 0x8, [WRITING_RESOLV_CONF], []),
    "time service": Case(
        {"[NTP]Enabled": False},
        0x10,
        [WRITING_NTP_CONF, RELOADING_NTPD],
        done(RELOAD_NTP_KEEPER),
    ),
    "a certificate's authority": Case(
        {"[Webserver/HTTPS]Authority": "/etc/passwd"},
        0x20,
        [WRITING_NGINX_CONF, RELOADING_NGINX],
        done(RELOAD_WEB_SERVER),
    ),
    "an IPv4 network": Case(
        {"[IPTables/Deny]IPv4List": ["198.51.100.0/24"]}, 0x40, [APPLYING_IPTABLES], IPV4_FILTER
    ),
    "an IPv6 network": Case(
        {"[IPTables/Deny]IPv6List": ["2001:db8::/32"]},
        0x80,
        [APPLYING_IPTABLES, APPLYING_IP6TABLES],
        FILTERS,
    ),
    "a duplex mode": Case(
        {"[NIC/eth0/AutoNegotiated]FullDuplex": False}, 0x100, [SETTING_UP_NIC], []
    ),
    "a host name": Case({"[Hostname]Name": "door"}, 0x200, setting_hostname("door"), HOSTNAME),
    "no IPv6": Case(
        {"[IPv6]Enabled": False},
        0xACBC,
        [
            SETTING_KERNEL_FLAG,
            TURNING_ACCEPT_RA,
            APPLYING_IPV6,
            WRITING_RESOLV_CONF,
            WRITING_NGINX_CONF,
            RELOADING_NGINX,
            APPLYING_IPTABLES,
            APPLYING_IP6TABLES,
            APPLYING_IPV6_ROUTES,
            *STARTING_DHCPV6,
            WRITING_NTP_CONF,
            RELOADING_NTPD,
        ],
        [
            *done(FLUSH_IPV6, RELOAD_WEB_SERVER),
            *FILTERS_WITHOUT_IPV6,
            *STOP_DHCPV6,
            *done(RELOAD_NTP_KEEPER),
        ],
    ),
    "no router advertisements": Case(
        {"[IPv6/Stateless]AcceptRA": False},
        0x800,
        [TURNING_ACCEPT_RA],
        done(DROP_DYNAMIC),
        before=NO_DHCPV6,
    ),
    "router advertisements": Case(
        {"[IPv6/Stateless]AcceptRA": True},
        0x800,
        [TURNING_ACCEPT_RA],
        [],
        before={**NO_DHCPV6, "[IPv6/Stateless]AcceptRA": False},
    ),
    "an IPv4 gateway": Case(
        {"[IPv4/Manual]Gateways": ["192.0.2.2"]},
        0x1010,
        [APPLYING_IPV4_ROUTES, added_gateway("192.0.2.2"), WRITING_NTP_CONF, RELOADING_NTPD],
        [*routes("192.0.2.2"), *done(RELOAD_NTP_KEEPER)],
    ),
    "an IPv6 gateway": Case(
        {"[IPv6/Manual]Gateways": ["fe80::1"]},
        0x2010,
        [
            APPLYING_IPV6_ROUTES,
            "<6>single_ipv6_default_gateway: Added fe80::1 as an IPv6 default gateway",
            WRITING_NTP_CONF,
            RELOADING_NTPD,
        ],
        done("/sbin/route -A inet6 add default gw fe80::1 eth0 2>/dev/null", RELOAD_NTP_KEEPER),
    ),
    "DHCPv4": Case(
        {"[IPv4/DHCP]Enabled": True},
        0x501A,
        [
            *setting_ipv4("192.168.0.20"),
            WRITING_RESOLV_CONF,
            APPLYING_IPV4_ROUTES,
            *STARTING_DHCPV4,
            WRITING_NTP_CONF,
            RELOADING_NTPD,
        ],
        [
            probe("192.168.0.20"),
            NO_ALIAS,
            ifconfig("192.168.0.20/24"),
            *done(MULTICAST_ROUTE),
            *STOP_DHCPV4,
            *done(RELOAD_NTP_KEEPER),
        ],
    ),
    "no DHCPv6": Case(
        NO_DHCPV6,
        0x801C,
        [APPLYING_IPV6, WRITING_RESOLV_CONF, *STARTING_DHCPV6, WRITING_NTP_CONF, RELOADING_NTPD],
        [*done(FLUSH_IPV6), *STOP_DHCPV6, *done(RELOAD_NTP_KEEPER)],
    ),
    "a burst size": Case(
        {"[TrafficShaping]BurstSize": 20480},
        0x20000,
        [APPLYING_SHAPING, *SHAPING_CLASSES_LOG],
        [*SHAPED, *shaping_classes(burst=20480)],
    ),
    "a service's port": Case(
        {"[RTSP]Port": 8554},
        0x400C0,
        [APPLYING_IPTABLES, APPLYING_IP6TABLES, *shaping_ports_log(rtsp=8554)],
        [*FILTERS, *shaping_ports(again=True, rtsp=8554)],
    ),
    "several": Case(
        {"[NIC/eth0]MTU": 1400, "[IPv6/Manual]Addresses": [], "[IPv4/Manual]Address": "192.0.2.11"},
        0x10006,
        [*setting_ipv4("192.0.2.11"), APPLYING_IPV6, SETTING_MTU],
        [
            *(NO_ALIAS, ifconfig("192.0.2.11/24"), *done(MULTICAST_ROUTE)),
            *done(FLUSH_IPV6, "/sbin/ip link set eth0 mtu 1400"),
        ],
    ),
}


@pytest.mark.parametrize("case", CASES.values(), ids=CASES.keys())
def test_a_request_leads_to_the_steps_of_its_flags_and_to_no_other(
    make_camera: MakeCamera, case: Case
) -> None:
    camera = start_manual(make_camera)
    camera.rule("/usr/sbin/arping *", status=0)
    if case.before:
        assert camera.api_set_text(compact(case.before)) == SUCCESS
    assert reaction(camera, case.request) == (flags_line(case.flags), case.steps, case.commands)


def test_a_value_that_is_the_same_leads_to_no_step(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    assert reaction(camera, {"[NIC/eth0]MTU": 1500}) == (flags_line(0), [], [])


def test_a_value_of_the_boot_environment_that_is_the_same_is_applied_again(
    make_camera: MakeCamera,
) -> None:
    camera = start_manual(make_camera)
    assert reaction(camera, {"[IPv4/Manual]Address": MANUAL_ADDRESS}) == (
        flags_line(0x2),
        setting_ipv4(MANUAL_ADDRESS),
        [NO_ALIAS, ifconfig(f"{MANUAL_ADDRESS}/24"), *done(MULTICAST_ROUTE)],
    )


# IPv6 and router advertisements


def test_router_advertisements_are_ignored_and_what_they_gave_is_dropped(
    make_camera: MakeCamera,
) -> None:
    camera = start_manual(make_camera)
    assert camera.api_set_text(compact(NO_DHCPV6)) == SUCCESS
    lifetime = "valid_lft 1000 preferred_lft 1000"
    for address in ("2001:db8::a", "2001:db8::b"):
        camera.run(f"ip address add {address}/64 dev eth0 {lifetime}".split(), check=True)
    camera.run("ip address add 2001:db8::c/64 dev eth0".split(), check=True)
    # While the kernel still looks for duplicates its tool lists an address differently.
    camera.wait_until(lambda: not camera.ip("address", "show", "tentative"), "eth0 has addresses")
    outcome = set_settings(camera, {"[IPv6/Stateless]AcceptRA": False})
    assert lines_of_level(outcome.log, 5) == [
        "<5>set_accept_ra: Console Output: Now ignoring IPv6 router advertisements"
    ]
    assert "QUARN: Now ignoring IPv6 router advertisements" in outcome.log
    assert camera.addresses(6, scope="global") == ["2001:db8::c/64"]
    assert switches(camera) == ["0", "0", "0"]


def test_router_advertisements_are_accepted_again(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    request = {**NO_DHCPV6, "[IPv6/Stateless]AcceptRA": False}
    assert camera.api_set_text(compact(request)) == SUCCESS
    outcome = set_settings(camera, {"[IPv6/Stateless]AcceptRA": True})
    message = "Now accepting IPv6 router advertisements"
    assert [line for line in outcome.log if message in line] == console(message, "set_accept_ra")
    assert switches(camera) == ["0", "1", "1"]


def test_without_ipv6_the_switch_of_router_advertisements_is_logged_and_left_alone(
    make_camera: MakeCamera,
) -> None:
    camera = start_manual(make_camera)
    request = {**NO_DHCPV6, "[IPv6]Enabled": False}
    assert camera.api_set_text(compact(request)) == SUCCESS
    assert switches(camera) == ["1", "1", "1"]
    outcome = set_settings(camera, {"[IPv6/Stateless]AcceptRA": False})
    assert outcome.response == SUCCESS
    assert [line for line in outcome.log if "apply_settings" in line or "accept_ra" in line] == [
        flags_line(0x800),
        TURNING_ACCEPT_RA,
    ]
    assert outcome.commands == []
    assert switches(camera) == ["1", "1", "1"]


def test_ipv6_goes_and_comes_back_with_its_addresses(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    assert camera.api_set_text('{"[IPv6/Manual]Addresses": ["2001:db8::1/64"]}') == SUCCESS
    assert camera.api_set_text('{"[IPv6]Enabled": false}') == SUCCESS
    assert switches(camera)[0] == "1"
    assert camera.addresses(6) == []
    assert camera.api_set_text('{"[IPv6]Enabled": true}') == SUCCESS
    assert switches(camera) == ["0", "1", "1"]
    assert camera.addresses(6, scope="global") == ["2001:db8::1/64"]


# Failures


def test_a_failed_step_stops_no_other_and_is_answered_with_one_error(
    make_camera: MakeCamera,
) -> None:
    camera = start_manual(make_camera)
    camera.rule("/sbin/ifconfig *", status=1)
    camera.rule("/sbin/ip -6 addr add *", status=2)
    request = {
        "[NIC/eth0]MTU": 1400,
        "[IPv4/Manual]Address": "192.0.2.11",
        "[IPv6/Manual]Addresses": ["2001:db8::1/64", "2001:db8::2/64"],
    }
    outcome = set_settings(camera, request)
    assert outcome.response == answer(APPLY_ERROR, success=True)
    assert lines_of_level(outcome.log, 3, 6) == [
        APPLYING_IPV4,
        "<6>_do_ifconfig: Setting IPv4 address=192.0.2.11/24",
        "<3>_do_ifconfig: ifconfig returned 1",
        APPLYING_IPV6,
        "<3>add_ipv6_address: Couldn't add manual address 2001:db8::1/64",
        "<3>add_ipv6_address: Couldn't add manual address 2001:db8::2/64",
        "<6>set_ipv6_addresses: Failure setting IPv6 addresses",
        SETTING_MTU,
    ]
    assert camera.link()["mtu"] == 1400
    assert {key: camera.get(key) for key in request} == request


def test_a_web_server_that_cannot_be_reloaded_is_logged_and_no_error(
    make_camera: MakeCamera,
) -> None:
    camera = start_manual(make_camera)
    camera.rule(RELOAD_WEB_SERVER, status=5)
    outcome = set_settings(camera, {"[Webserver/HTTPS]Authority": "/etc/passwd"})
    assert outcome.response == SUCCESS
    assert lines_of_level(outcome.log, 3, 6) == [
        WRITING_NGINX_CONF,
        RELOADING_NGINX,
        "<3>reload_webserver: While reloading webserver, received code 5 on "
        f"'{RELOAD_WEB_SERVER}'",
    ]


def test_a_time_service_that_cannot_be_reloaded_is_an_error_and_stops_no_step(
    make_camera: MakeCamera,
) -> None:
    camera = start_manual(make_camera)
    camera.rule(RELOAD_NTP_KEEPER, status=1)
    outcome = set_settings(camera, {"[NTP]Enabled": False, "[TrafficShaping]BurstSize": 20480})
    assert outcome.response == answer(APPLY_ERROR, success=True)
    assert lines_of_level(outcome.log, 3, 6) == [
        WRITING_NTP_CONF,
        RELOADING_NTPD,
        f"<3>reload_ntp_keeper: Call to '{RELOAD_NTP_KEEPER}' had rc=1",
        APPLYING_SHAPING,
        *SHAPING_CLASSES_LOG,
    ]


# With manual IPv6 addresses and gateways, so that every step has something to do.
IPV6_GATEWAY = "/sbin/route -A inet6 add default gw fe80::1 eth0 2>/dev/null"
FULL_BOOT = boot_commands(
    [NO_ALIAS, ifconfig(f"{MANUAL_ADDRESS}/24"), *done(MULTICAST_ROUTE)],
    [add_ipv6("2001:db8::1/64")],
    ipv4_routes=[*routes("192.0.2.1"), *done(IPV6_GATEWAY)],
)
CHECKED = [
    "/sbin/ip link set lo up",
    "ip link set eth0 up",
    "/bin/hostname -F /etc/hostname",
    ifconfig(f"{MANUAL_ADDRESS}/24").text,
    add_ipv6("2001:db8::1/64").text,
    "/usr/sbin/iptables-restore < /tmp/.quarn/iptables.rules",
    "/usr/sbin/ip6tables-restore < /tmp/.quarn/ip6tables.rules",
    IPV6_GATEWAY,
    "/sbin/ip link set eth0 mtu 1500",
    SHAPING[-1].text,
    shaping_ports()[-1].text,
]


@pytest.mark.parametrize("command", CHECKED)
def test_a_failed_step_of_the_start_stops_no_other(make_camera: MakeCamera, command: str) -> None:
    camera = make_camera(variables={**MANUAL_IPV4, "vesko_ipv6_addresses": "2001:db8::1/64"})
    plant(camera, {"IPv6.Manual.Gateways": '["fe80::1"]'})
    # There already, so that the gateway is within reach even where the address cannot be set.
    camera.run(["ip", "address", "add", f"{MANUAL_ADDRESS}/24", "dev", "eth0"], check=True)
    camera.rule(command, status=1)
    assert start(camera) == ["ERRNO=5", "READY=1"]
    assert camera.commands() == [
        Command(text, 1 if text == command else status) for text, status in FULL_BOOT
    ]


def test_a_link_mode_that_is_none_fails_its_step_and_stops_no_other(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    plant(camera, {"NIC.eth0.AutoNegotiated.LinkSpeed": '"fast"'})
    assert start(camera) == ["ERRNO=5", "READY=1"]
    assert lines_of_level(camera.log_lines(), 3) == [
        "<3>ethtool_set_data: Value for [NIC/eth0/Manual]LinkSpeed was not a number",
        "<3>ethtool_set_data: Value for [NIC/eth0/Manual]FullDuplex was not a boolean",
    ]
    assert camera.commands() == MANUAL_BOOT


def test_what_a_start_does_not_check_is_no_failure(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    for pattern in ("*/sbin/route *", "for A in *", "/sbin/ifconfig eth0:1 down"):
        camera.rule(pattern, status=1)
    camera.files.make_folder("/tmp/.quarn/resolv.conf")
    camera.files.make_folder("/tmp/.quarn/ntp.conf")
    camera.files.make_folder("/tmp/.quarn/nginx.conf")
    assert start(camera) == ["READY=1"]
    unchecked = ("/sbin/route ", FLUSH_IPV6, NO_ALIAS.text)
    assert camera.commands() == [
        Command(text, 1 if any(part in text for part in unchecked) else status)
        for text, status in MANUAL_BOOT
    ]


@pytest.mark.parametrize(
    "request_",
    [{"[IPv6]Enabled": False}, {"[IPv6/Stateless]AcceptRA": False}],
    ids=["disable_ipv6", "accept_ra"],
)
def test_a_switch_of_the_kernel_that_cannot_be_opened_is_an_error_of_the_request(
    make_camera: MakeCamera, request_: dict[str, Any]
) -> None:
    camera = start_manual(make_camera)
    assert camera.api_set_text(compact(NO_DHCPV6)) == SUCCESS
    set_switches_read_only(camera)
    outcome = set_settings(camera, request_)
    assert outcome.response == answer(APPLY_ERROR, success=True)
    assert "router advertisements" not in "\n".join(outcome.log)
    assert switches(camera) == ["0", "1", "1"]


def test_a_start_that_cannot_open_the_kernels_switches_goes_on(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    set_switches_read_only(camera)
    assert start(camera) == ["ERRNO=5", "READY=1"]
    assert camera.addresses(4) == [f"{MANUAL_ADDRESS}/24"]
