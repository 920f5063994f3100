"""The resolver's file, and names that the camera's libc resolves through it."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest
from expectations import (
    RELOAD_NTP_KEEPER,
    SUCCESS,
    Outcome,
    compact,
    console,
    error,
    masked,
    refusal,
    set_settings,
    start,
    start_manual,
)
from stored_settings import plant
from service_cameras import (
    ADDRESS_SWITCHES,
    combinations,
    link_at,
    start_with_ipv4,
    started,
)

from camlab import Camera, Command, Process

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

HEADER = "# written by quarn\n"
DISABLED = HEADER + "\n# DNS is disabled.\n"
NO_SERVERS = HEADER + "\n# DNS is enabled, but no servers were found.\n"
APPLYING = "<6>apply_settings: Writing resolv.conf"
WROTE = console("Wrote /etc/resolv.conf", "quarn_write_resolvconf")
# A new server may be the time daemon's way to its own servers.
NTP_STEP = [
    "<6>apply_settings: Writing ntp.conf",
    *console("Wrote /etc/ntp.conf", "quarn_write_ntpconf"),
    "<6>apply_settings: Reloading NTPd",
]
RELOAD = Command(RELOAD_NTP_KEEPER, 0)
WRITING_SERVERS = "<7>quarn_write_resolvconf:LINE: Writing nameservers to /etc/resolv.conf"

IPV4, IPV6 = "[IPv4]Enabled", "[IPv6]Enabled"
SWITCHES = (
    *ADDRESS_SWITCHES,
    "[DNS]Enabled",
    "[DNS/Manual]Enabled",
    "[DNS/IPv4/DHCP]Enabled",
    "[DNS/IPv6/DHCP]Enabled",
    "[DNS/IPv6/Discovery]Enabled",
)
LISTS = {
    "[DNS/Manual]Servers": ["192.0.2.53", "fe80::53"],
    "[DNS/Manual]Search": ["lab.example.net", "example.org"],
    "[DNS/IPv4/DHCP]Servers": ["192.0.2.1", "192.0.2.2", "192.0.2.3", "192.0.2.4"],
    "[DNS/IPv4/DHCP]Search": ["dhcp4.example"],
    "[DNS/IPv6/DHCP]Servers": ["2001:db8::1", "FE80::1"],
    "[DNS/IPv6/DHCP]Search": ["dhcp6.example"],
    "[DNS/IPv6/Discovery]Servers": ["fe80::2", "198.51.100.1"],
    "[DNS/IPv6/Discovery]Search": ["discovery.example"],
    "[Hostname]Domain": "example.net",
}
MANUAL = "\n# manually configured DNS servers\nnameserver 192.0.2.53\nnameserver fe80::53%eth0\n"
DHCPV4 = (
    "\n# DHCP DNS servers\n"
    "nameserver 192.0.2.1\nnameserver 192.0.2.2\nnameserver 192.0.2.3\nnameserver 192.0.2.4\n"
)
DHCPV6 = "nameserver 2001:db8::1\nnameserver FE80::1%eth0\n"
DISCOVERY = "\n# IPv6 discovery DNS servers\nnameserver fe80::2%eth0\nnameserver 198.51.100.1\n"


def resolv_conf(camera: Camera) -> str:
    assert link_at(camera, "/etc/resolv.conf") == "/tmp/.quarn/resolv.conf"
    return camera.read_file("/etc/resolv.conf")


def expected_file(on: dict[str, bool]) -> str:
    if not on["[DNS]Enabled"]:
        return DISABLED
    dhcpv4 = on[IPV4] and on["[IPv4/DHCP]Enabled"] and on["[DNS/IPv4/DHCP]Enabled"]
    dhcpv6 = on[IPV6] and on["[IPv6/Stateful]Enabled"] and on["[DNS/IPv6/DHCP]Enabled"]
    blocks = [
        (MANUAL, on["[DNS/Manual]Enabled"] and (on[IPV4] or on[IPV6])),
        (DHCPV4, dhcpv4),
        (DHCPV6 if dhcpv4 else "\n# DHCP DNS servers\n" + DHCPV6, dhcpv6),
        (DISCOVERY, on[IPV6] and on["[DNS/IPv6/Discovery]Enabled"]),
    ]
    servers = "".join(text for text, is_there in blocks if is_there)
    search = " lab.example.net example.org" if on["[DNS/Manual]Enabled"] else ""
    return f"{HEADER}search example.net{search}\n{servers}" if servers else NO_SERVERS


# The file


@pytest.mark.parametrize("ipv4", [True, False])
def test_the_file_is_right_in_every_combination_of_its_switches(camera: Camera, ipv4: bool) -> None:
    start_with_ipv4(camera, ipv4)
    seen = set()
    for on in combinations(camera, SWITCHES, LISTS):
        assert resolv_conf(camera) == expected_file({**on, IPV4: ipv4}), on
        seen.add(resolv_conf(camera))
    # Disabled, none found, and each set of servers that there can be.
    assert len(seen) == (2 + 15 if ipv4 else 2 + 7)


def test_disabled_dns_leaves_two_comments(make_camera: MakeCamera) -> None:
    camera = started(make_camera)
    outcome = set_settings(camera, {"[DNS]Enabled": False})
    assert resolv_conf(camera) == "# written by quarn\n\n# DNS is disabled.\n"
    assert outcome == Outcome(SUCCESS, [RELOAD], [APPLYING, *WROTE, *NTP_STEP])


def test_without_both_ip_stacks_manual_servers_are_not_named(camera: Camera) -> None:
    start_with_ipv4(camera, False)
    request = {"[IPv6]Enabled": False, "[DNS/Manual]Servers": ["192.0.2.53"]}
    assert camera.api_set_text(compact(request)) == SUCCESS
    assert resolv_conf(camera) == NO_SERVERS


def test_empty_lists_count_as_no_servers(make_camera: MakeCamera) -> None:
    camera = started(make_camera)
    outcome = set_settings(camera, {"[Hostname]Domain": "example.net"})
    assert outcome == Outcome(SUCCESS, [], [APPLYING, *WROTE])
    assert all(camera.get(key) == [] for key in LISTS if key.endswith("Servers"))
    assert resolv_conf(camera) == NO_SERVERS


def test_domain_and_search_list_stand_before_manual_servers_and_those_of_the_lease(
    camera: Camera,
) -> None:
    start_with_ipv4(camera, True)
    request = {
        "[IPv4/DHCP]Enabled": True,
        "[Hostname]Domain": "example.net",
        "[DNS/Manual]Search": ["lab.example.net"],
        "[DNS/Manual]Servers": ["192.0.2.53"],
        "[DNS/IPv4/DHCP]Servers": ["192.0.2.1"],
    }
    assert camera.api_set_text(compact(request)) == SUCCESS
    assert resolv_conf(camera) == (
        "# written by quarn\n"
        "search example.net lab.example.net\n"
        "\n"
        "# manually configured DNS servers\n"
        "nameserver 192.0.2.53\n"
        "\n"
        "# DHCP DNS servers\n"
        "nameserver 192.0.2.1\n"
    )


def test_servers_of_dhcpv6_alone_get_the_heading_and_none_beside_those_of_dhcpv4(
    camera: Camera,
) -> None:
    start_with_ipv4(camera, True)
    assert camera.api_set_text(compact({"[DNS/IPv6/DHCP]Servers": ["2001:db8::1"]})) == SUCCESS
    alone = f"{HEADER}\n# DHCP DNS servers\nnameserver 2001:db8::1\n"
    assert resolv_conf(camera) == alone
    assert camera.api_set_text(compact({"[DNS/IPv4/DHCP]Servers": ["192.0.2.1"]})) == SUCCESS
    both = f"{HEADER}\n# DHCP DNS servers\nnameserver 192.0.2.1\nnameserver 2001:db8::1\n"
    assert resolv_conf(camera) == both


def test_a_link_local_manual_server_gets_the_zone_of_eth0(make_camera: MakeCamera) -> None:
    camera = started(make_camera)
    outcome = set_settings(camera, {"[DNS/Manual]Servers": ["fe80::1"]})
    assert outcome == Outcome(SUCCESS, [RELOAD], [APPLYING, *WROTE, *NTP_STEP])
    assert resolv_conf(camera) == (
        f"{HEADER}\n# manually configured DNS servers\nnameserver fe80::1%eth0\n"
    )


# The search line

SERVER_BLOCK = "\n# manually configured DNS servers\nnameserver 192.0.2.53\n"


def written_search(element: str) -> str:
    return f"<7>write_search_elements:LINE: Writing search element '{element}' to /etc/resolv.conf"


def skipped(element: str, reason: str) -> str:
    return f"<7>write_search_elements:LINE: Skipping search element '{element}' ({reason})"


def start_with(make_camera: MakeCamera, settings: dict[str, Any]) -> tuple[Camera, list[str]]:
    """A camera that started with stored settings, and what it logged as it wrote the file."""
    camera = make_camera()
    plant(
        camera,
        {
            "DNS.Manual.Servers": '["192.0.2.53"]',
            "IPv4.DHCP.Enabled": "false",
            **{name: compact(value) for name, value in settings.items()},
        },
    )
    camera.rule("*", status=0)
    assert start(camera, QUARN_LOG_LEVEL="debug") == ["READY=1"]
    lines = masked(camera.log_lines())
    log = lines[lines.index(APPLYING) + 1 : lines.index(WROTE[0])]
    return camera, [line for line in log if "open_file" not in line]


def test_of_seven_search_domains_six_are_written(make_camera: MakeCamera) -> None:
    domains = [f"d{number}.example" for number in range(1, 8)]
    camera, log = start_with(make_camera, {"DNS.Manual.Search": domains})
    assert resolv_conf(camera) == f"{HEADER}search {' '.join(domains[:6])}\n{SERVER_BLOCK}"
    assert log == [
        *map(written_search, domains[:6]),
        skipped("d7.example", "already have six"),
        WRITING_SERVERS,
    ]


def test_behind_a_domain_five_search_domains_are_written(make_camera: MakeCamera) -> None:
    domains = [f"d{number}.example" for number in range(1, 8)]
    settings = {"DNS.Manual.Search": domains, "Hostname.Domain": "example.net"}
    camera, log = start_with(make_camera, settings)
    expected = f"{HEADER}search example.net {' '.join(domains[:5])}\n{SERVER_BLOCK}"
    assert resolv_conf(camera) == expected
    assert log == [
        *map(written_search, domains[:5]),
        skipped("d6.example", "already have six"),
        skipped("d7.example", "already have six"),
        WRITING_SERVERS,
    ]


def test_a_domain_past_256_characters_is_skipped_and_a_later_shorter_one_written(
    make_camera: MakeCamera,
) -> None:
    # 63 and three times 1 + 60 are 246 characters: 9 more fit with their blank, 10 do not.
    domain = "h" * 63
    search = ["a" * 60, "b" * 60, "c" * 60, "d" * 10, "e" * 9]
    camera = start_manual(make_camera)
    request = {
        "[Hostname]Domain": domain,
        "[DNS/Manual]Search": search,
        "[DNS/Manual]Servers": ["192.0.2.53"],
    }
    log = set_settings(camera, request).log
    line = " ".join([domain, *search[:3], search[4]])
    assert len(line) == 256
    assert resolv_conf(camera) == f"{HEADER}search {line}\n{SERVER_BLOCK}"
    assert log[log.index(APPLYING) + 1 : log.index(WROTE[0])] == [
        *map(written_search, search[:3]),
        skipped(search[3], "> 256 chars"),
        written_search(search[4]),
        WRITING_SERVERS,
    ]


def test_an_empty_domain_leaves_its_line_to_the_next_block(make_camera: MakeCamera) -> None:
    camera, log = start_with(make_camera, {"Hostname.Domain": ""})
    assert resolv_conf(camera) == f"{HEADER}search {SERVER_BLOCK}"
    assert log == [WRITING_SERVERS]


def test_an_empty_domain_is_the_first_element_of_the_line(make_camera: MakeCamera) -> None:
    settings = {"Hostname.Domain": "", "DNS.Manual.Search": ["lab.example"]}
    camera, _ = start_with(make_camera, settings)
    assert resolv_conf(camera) == f"{HEADER}search  lab.example\n{SERVER_BLOCK}"


# What a store that went bad holds


def test_no_stored_value_becomes_a_second_line_or_word(make_camera: MakeCamera) -> None:
    settings = {
        "Hostname.Domain": "example.net\nnameserver 203.0.113.66",
        "DNS.Manual.Search": [
            "a.example\nnameserver 203.0.113.66",
            "b.example c.example",
            "d.example",
        ],
        "DNS.Manual.Servers": ["192.0.2.1\nnameserver 203.0.113.66", "192.0.2.2 x", "192.0.2.3"],
    }
    camera, log = start_with(make_camera, settings)
    assert resolv_conf(camera) == (
        f"{HEADER}search d.example\n\n# manually configured DNS servers\nnameserver 192.0.2.3\n"
    )
    domain, server = "which is no domain", "which is no server"
    left_out = "<3>write_search_elements: Left out"
    assert log == [
        rf"{left_out} 'example.net\x0anameserver 203.0.113.66', {domain}",
        rf"{left_out} 'a.example\x0anameserver 203.0.113.66', {domain}",
        f"{left_out} 'b.example c.example', {domain}",
        written_search("d.example"),
        WRITING_SERVERS,
        rf"<3>write_address_list: Left out '192.0.2.1\x0anameserver 203.0.113.66', {server}",
        f"<3>write_address_list: Left out '192.0.2.2 x', {server}",
    ]


def test_a_stored_value_of_another_type_counts_as_absent(make_camera: MakeCamera) -> None:
    settings = {
        "Hostname.Domain": 7,
        "DNS.Manual.Search": "lab.example",
        "DNS.Manual.Servers": ["192.0.2.1", 7],
        "DNS.IPv6.Discovery.Enabled": "true",
    }
    camera, log = start_with(make_camera, settings)
    assert resolv_conf(camera) == NO_SERVERS
    assert log == [
        "<3>get_string_array: [DNS/Manual]Search value is not a JSON string array",
        "<3>get_string_array: [DNS/Manual]Servers value is not a JSON string array",
        "<3>get_bool: [DNS/IPv6/Discovery]Enabled value is not a JSON boolean; returning FALSE",
    ]


# What is refused

TOO_MANY = "Too many DNS servers provided in array"
FOUR = [f"2001:db8::{number}" for number in range(4)]


@pytest.mark.parametrize(
    ("key", "value", "code", "message"),
    [
        ("[DNS/Manual]Servers", FOUR, 14, TOO_MANY),
        ("[DNS/IPv6/DHCP]Servers", FOUR, 14, TOO_MANY),
        ("[DNS/IPv6/Discovery]Servers", FOUR, 14, TOO_MANY),
        ("[DNS/Manual]Search", ["d"] * 7, 14, TOO_MANY),
        ("[DNS/IPv4/DHCP]Search", ["d"] * 7, 14, TOO_MANY),
        ("[DNS/IPv6/DHCP]Search", ["d" * 63] * 4, 14, "Search domains are too long"),
        ("[DNS/IPv6/Discovery]Search", ["d" * 63] * 4, 14, "Search domains are too long"),
        ("[DNS/IPv4/DHCP]Servers", ["fe80::1"], 3, "'fe80::1' isn't a valid server name or ip"),
        ("[DNS/IPv6/DHCP]Servers", ["192.0.2.1"], 3, "'192.0.2.1' isn't a valid server name or ip"),
        ("[DNS/Manual]Servers", ["ipv6:10.0.0.1"], 6, "'10.0.0.1' isn't a valid ipv6 address"),
        ("[DNS/Manual]Servers", "192.0.2.1", 3, "Value wasn't a JSON array"),
        ("[DNS/Manual]Search", ["a b"], 3, "'a b' isn't a valid server name or ip"),
    ],
)
def test_what_the_resolver_cannot_take_is_refused(
    make_camera: MakeCamera, key: str, value: Any, code: int, message: str
) -> None:
    camera = started(make_camera)
    before = camera.files.stat("/tmp/.quarn/resolv.conf").st_mtime_ns
    outcome = set_settings(camera, {key: value})
    # The kind before a server is taken off as it is looked at.
    printed = [text.removeprefix("ipv6:") for text in value] if isinstance(value, list) else value
    assert outcome == refusal({key: printed}, error(code, message, key))
    assert camera.files.stat("/tmp/.quarn/resolv.conf").st_mtime_ns == before


def test_a_lease_may_name_any_number_of_servers(camera: Camera) -> None:
    start_with_ipv4(camera, True)
    servers = [f"192.0.2.{number}" for number in range(1, 101)]
    assert camera.api_set_text(compact({"[DNS/IPv4/DHCP]Servers": servers})) == SUCCESS
    lines = "".join(f"nameserver {server}\n" for server in servers)
    assert resolv_conf(camera) == f"{HEADER}\n# DHCP DNS servers\n{lines}"


# Names that resolve

RESOLVE = (
    "import socket, sys\n"
    "print(socket.getaddrinfo(sys.argv[1], 80, socket.AF_INET, socket.SOCK_STREAM)[0][4][0])"
)


def serve_names(camera: Camera, address: str) -> Process:
    """A name server on the LAN that knows one name."""
    camera.lan.own(address)
    server = camera.lan.start(
        [
            *("dnsmasq", "--keep-in-foreground", "--log-facility=-", "--conf-file=/dev/null"),
            *("--no-resolv", "--no-hosts", "--user=root", "--pid-file=", "--log-queries"),
            "--host-record=door.lab.example.net,198.51.100.7",
        ]
    )
    camera.wait_until(lambda: "started, version" in server.stderr, "the name server runs")
    return server


def resolve(camera: Camera, name: str) -> str:
    """What the camera's libc says of a name."""
    return camera.run(["/usr/bin/python3", "-I", "-c", RESOLVE, name], check=True).stdout


def test_a_name_resolves_through_a_server_of_ipv4(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    server = serve_names(camera, "192.0.2.53")
    request = {"[DNS/Manual]Servers": ["192.0.2.53"], "[DNS/Manual]Search": ["lab.example.net"]}
    assert camera.api_set_text(compact(request)) == SUCCESS
    assert resolve(camera, "door.lab.example.net") == "198.51.100.7\n"
    assert "query[A] door.lab.example.net from 192.0.2.10" in server.stderr
    # The search list of the file.
    assert resolve(camera, "door") == "198.51.100.7\n"


def test_a_name_resolves_through_a_link_local_server(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    camera.wait_until(
        lambda: not any(
            entry.get("tentative")
            for entry in camera.ip("-6", "address", "show", "dev", "eth0")[0]["addr_info"]
        ),
        "eth0's link-local address can be used",
    )
    server = serve_names(camera, "fe80::53")
    request = {"[DNS/Manual]Servers": ["fe80::53"], "[Hostname]Domain": "lab.example.net"}
    assert camera.api_set_text(compact(request)) == SUCCESS
    assert "nameserver fe80::53%eth0\n" in resolv_conf(camera)
    assert resolve(camera, "door") == "198.51.100.7\n"
    assert "query[A] door.lab.example.net from fe80::200:5eff:fe00:5301" in server.stderr


def test_no_name_resolves_while_dns_is_disabled(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    serve_names(camera, "192.0.2.53")
    request = {"[DNS]Enabled": False, "[DNS/Manual]Servers": ["192.0.2.53"]}
    assert camera.api_set_text(compact(request)) == SUCCESS
    done = camera.run(["getent", "hosts", "door.lab.example.net"])
    assert (done.returncode, done.stdout) == (2, "")
