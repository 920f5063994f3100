"""No value becomes a command, through whatever door it comes.

The doors are requests, the settings database, the boot environment and the daemon's own environment.
"""

from __future__ import annotations

import json
import re
from collections.abc import Callable, Iterable
from typing import Any

import pytest
from expectations import (
    APPLYING_IPV4,
    APPLYING_IPV6,
    DECONFIGURE,
    MULTICAST_ROUTE,
    NO_ALIAS,
    NO_ALIAS_LOG,
    RELOAD_WEB_SERVER,
    SUCCESS,
    add_ipv6,
    answer,
    boot_commands,
    done,
    error,
    ipv4_of_kernel,
    masked,
    refusal,
    routes,
    set_settings,
    start,
)
from stored_settings import STORED_BY_START, plant, stored

from camlab import Camera
from camlab.programs import CHECKOUT

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

NO_DHCP = {"vesko_ipv4_dhcp_enable": "0"}
# What a command smuggled in would leave behind.
TRACE = "/tmp/smuggled"
SMUGGLED = f"touch {TRACE}"

ADDITIONS = [
    f";{SMUGGLED}",
    f"\n{SMUGGLED}",
    f"$({SMUGGLED})",
    f"`{SMUGGLED}`",
    f"|{SMUGGLED}",
    f"&&{SMUGGLED}",
    f"&{SMUGGLED}",
    f">{TRACE}",
    f"';{SMUGGLED};'",
    f'";{SMUGGLED};"',
    f"\\;{SMUGGLED}",
    f"\r\n{SMUGGLED}",
    " dev smuggled",
    "\n",
    "\t",
    "\x01",
    "\x1b[2J",
    "\x7f",
    "*",
    "~",
    "${IFS}x",
    "\u2028",
    "é",
]
STEMS = ["10.0.0.5", "2001:db8::1/64", "2001:db8::1", "gate.example", "/etc/hostname", ""]
DASHED = ["-I", "--help", "-", "-4"]
HOSTILE = [stem + addition for stem in STEMS for addition in ADDITIONS] + DASHED


# One of each kind, for what needs a start of its own.
KINDS = [f";{SMUGGLED}", f"\n{SMUGGLED}", f"$({SMUGGLED})", f"`{SMUGGLED}`", f"|{SMUGGLED}"]
KINDS += [f"&&{SMUGGLED}", f"';{SMUGGLED};'", f'";{SMUGGLED};"', " dev smuggled", "\x01"]


def rows_with_texts() -> dict[str, bool]:
    """The rows of the setting table that can be set and hold texts: the key, and whether a list."""
    table = (CHECKOUT / "src/settings/setting_table.cpp").read_text()
    row = re.compile(
        r'^    \{"([^"]+)", [^,]+, [^,]+, ([^,]+), [^,]+, "(null|\[.*)"\},$', re.MULTILINE
    )
    return {
        key: default != "null" for key, save, default in row.findall(table) if save != "nullptr"
    }


ROWS = rows_with_texts()


def assert_no_command_holds(camera: Camera, texts: Iterable[str]) -> None:
    """No command carries one of the texts, and none has left its trace."""
    ran = "\n\n".join(command.text for command in camera.commands())
    assert [text for text in texts if len(text) > 4 and text in ran] == []
    assert "smuggled" not in ran
    assert not camera.files.exists(TRACE)


@pytest.fixture
def served(make_camera: MakeCamera) -> Camera:
    """Return a camera without DHCP whose commands are those of the requests that follow."""
    camera = make_camera(variables=NO_DHCP)
    assert start(camera) == ["READY=1"]
    camera.clear_commands()
    return camera


def test_the_rows_that_hold_texts_are_found() -> None:
    assert len(ROWS) >= 28
    assert {"[IPv4/Manual]Address", "[IPv6/Stateful]Addresses", "[Hostname]Name"} <= set(ROWS)


# Requests


def test_no_setting_takes_a_command_from_a_request(served: Camera) -> None:
    before = stored(served), served.bootenv.content()
    for text in HOSTILE:
        for as_list in (True, False):
            # Every row refuses it, as a text and as a list of texts.
            request = {key: [text] if is_list is as_list else text for key, is_list in ROWS.items()}
            response = served.api_set(request)
            assert {entry["key"] for entry in response["errors"]} == set(ROWS), text
            assert not response["success"]
    assert served.commands() == []
    assert (stored(served), served.bootenv.content()) == before


def test_addresses_and_gateways_with_additions_are_refused(served: Camera) -> None:
    for addition in ADDITIONS:
        ipv4, ipv6 = "10.0.0.5" + addition, "2001:db8::1/64" + addition
        name = "gate.example" + addition
        no_ipv4 = f"String '{ipv4}' wasn't a valid IPv4 address"
        no_server = f"'{name}' isn't a valid server name or ip"
        no_length = f"'{ipv6}' doesn't contain a valid prefix length"
        request: dict[str, Any] = {
            "[IPv4/Manual]Address": ipv4,
            "[IPv4/Manual]DefaultGateway": ipv4,
            "[IPv4/DHCP]Address": ipv4,
            "[IPv4/DHCP]Gateways": [name],
            "[IPv4/Manual]Gateways": [name],
            "[IPv6/Manual]Addresses": [ipv6],
            "[IPv6/Manual]Gateways": [name],
            "[IPv6/Stateful]Addresses": [ipv6],
            "[Hostname]Name": name,
        }
        faults = {
            "[IPv4/Manual]Address": (3, no_ipv4),
            "[IPv4/Manual]DefaultGateway": (3, no_ipv4),
            "[IPv4/DHCP]Address": (3, no_ipv4),
            "[IPv4/DHCP]Gateways": (3, no_server),
            "[IPv4/Manual]Gateways": (3, no_server),
            "[IPv6/Manual]Addresses": (6, no_length),
            "[IPv6/Manual]Gateways": (3, no_server),
            "[IPv6/Stateful]Addresses": (6, no_length),
            "[Hostname]Name": (3, "Value wasn't a valid hostname"),
        }
        outcome = set_settings(served, request)
        assert outcome.response == answer(*(error(*fault, key) for key, fault in faults.items()))
        assert outcome.commands == []
    assert stored(served) == STORED_BY_START


def test_an_address_that_looks_like_an_option_is_refused(served: Camera) -> None:
    for text in DASHED:
        request = {"[IPv4/Manual]Address": text}
        fault = error(3, f"String '{text}' wasn't a valid IPv4 address", "[IPv4/Manual]Address")
        assert set_settings(served, request) == refusal(request, fault)


def test_a_certificate_whose_name_is_a_command_reaches_no_command(served: Camera) -> None:
    names = ["/tmp/$(touch smuggled)", "/tmp/a; touch smuggled", "/tmp/-rf", "/tmp/a\nb"]
    for name in names:
        served.write_file(name, "text")
        request = {"[Webserver/HTTPS]Authority": name, "[Webserver/HTTPS]Certificate": name}
        assert set_settings(served, request).commands == done(RELOAD_WEB_SERVER)
    assert served.api_set_text('{"[Webserver/HTTPS]Enabled": true}') == SUCCESS
    assert_no_command_holds(served, names)


# The settings database


@pytest.mark.parametrize("dhcp", ["0", "1"])
def test_a_stored_value_becomes_no_command(make_camera: MakeCamera, dhcp: str) -> None:
    camera = make_camera(variables={"vesko_ipv4_dhcp_enable": dhcp})
    camera.rule("/usr/sbin/arping *", status=0)
    # The netmask belongs to it: without one the address is not looked at.
    netmasks = {"IPv4.Manual.Netmask": "24", "IPv4.DHCP.Netmask": "24"}
    for addition in KINDS:
        texts = [stem + addition for stem in STEMS]
        values = {key: texts if is_list else texts[0] for key, is_list in ROWS.items()}
        plant(camera, {store_name(key): json.dumps(value) for key, value in values.items()})
        plant(camera, netmasks)
        assert start(camera)[-1] == "READY=1"
        assert_no_command_holds(camera, texts)
        assert camera.api_get_text('{"settings":[]}') == SUCCESS
        assert camera.stop_daemon() == 0


def test_a_stored_value_of_another_type_stops_no_start(camera: Camera) -> None:
    camera.rule("/usr/sbin/arping *", status=0)
    allowed = re.compile(
        r"(/sbin/ifconfig eth0(:1)? (down|[\d.]+( netmask [\d.]+ broadcast [\d.]+)?)"
        r"|/usr/sbin/arping -D -c2 [\d.]+)"
    )
    for value in ("7", "true", "null", "{}", "[[]]", '""', '[""]', "1e999"):
        plant(camera, dict.fromkeys(map(store_name, ROWS), value))
        assert start(camera)[-1] == "READY=1"
        assert camera.api_get_text('{"settings":[]}') == SUCCESS
        ran = [command.text for command in camera.commands()]
        tools = [text for text in ran if text.startswith(("/sbin/ifconfig", "/usr/sbin/a"))]
        assert [text for text in tools if not allowed.fullmatch(text)] == []
        assert camera.stop_daemon() == 0


def test_a_stored_address_that_is_a_command_is_refused_with_a_log_line(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(variables=NO_DHCP)
    address = f"10.0.0.5;{SMUGGLED}"
    plant(camera, {"IPv4.Manual.Address": json.dumps(address)})
    assert start(camera) == ["ERRNO=5", "READY=1"]
    assert camera.commands() == boot_commands(
        [NO_ALIAS, *done(MULTICAST_ROUTE)], ipv4_routes=routes()
    )
    log = masked(camera.log_lines())
    assert log[log.index(APPLYING_IPV4) : log.index(APPLYING_IPV6)] == [
        APPLYING_IPV4,
        NO_ALIAS_LOG,
        f"<6>_do_ifconfig: Setting IPv4 address={address}/24",
        "<3>ShellCommand: Refused to run '/sbin/ifconfig %s %s netmask %s "
        f"broadcast %hhu.%hhu.%hhu.%hhu' with the value '{address}'",
        "<3>_do_ifconfig: ifconfig returned 255",
    ]
    assert ipv4_of_kernel(camera) == []


def test_of_stored_ipv6_addresses_only_the_commands_among_them_are_refused(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(variables=NO_DHCP)
    addresses = [
        "2001:db8::1/64",
        f"2001:db8::2/64 dev eth0;{SMUGGLED}",
        "-force",
        "2001:db8::3/64",
    ]
    plant(camera, {"IPv6.Manual.Addresses": json.dumps(addresses)})
    assert start(camera) == ["ERRNO=5", "READY=1"]
    assert camera.commands() == boot_commands(
        [NO_ALIAS, *done(DECONFIGURE)], [add_ipv6("2001:db8::1/64"), add_ipv6("2001:db8::3/64")]
    )
    log = camera.log_lines()
    assert [line for line in log if line.startswith("<3>ShellCommand: ")] == [
        "<3>ShellCommand: Refused to run '/sbin/ip -6 addr add %s dev eth0' "
        f"with the value '{addresses[1]}'",
        "<3>ShellCommand: Refused to run '/sbin/ip -6 addr add %s/64 dev eth0' "
        "with the value '-force'",
    ]
    assert sorted(camera.addresses(6, "global")) == ["2001:db8::1/64", "2001:db8::3/64"]


def store_name(key: str) -> str:
    """The name under which the store keeps a setting."""
    return key[1:].replace("]", ".").replace("/", ".")


# The boot environment


@pytest.mark.parametrize("addition", [*KINDS, "\x7f", "é"])
def test_an_address_list_of_the_boot_environment_becomes_no_command(
    make_camera: MakeCamera, addition: str
) -> None:
    text = "2001:db8::1/64" + addition
    camera = make_camera(variables=NO_DHCP | {"vesko_ipv6_addresses": text})
    assert start(camera) == ["READY=1"]
    assert camera.commands() == boot_commands([NO_ALIAS, *done(DECONFIGURE)])
    shown = "".join(c if " " <= c != "\x7f" else f"\\x{ord(c):02x}" for c in text)
    line = (
        f"<4>read_bootenv_var: We got {shown} from boot environment, "
        "which didn't validate for [IPv6/Manual]Addresses"
    )
    assert line in camera.log_lines()
    assert camera.get("[IPv6/Manual]Addresses") == []
    assert_no_command_holds(camera, [text])


@pytest.mark.parametrize("text", [*(stem + f";{SMUGGLED}" for stem in STEMS), f"\n{SMUGGLED}", "-"])
def test_no_variable_of_the_boot_environment_becomes_a_command(
    make_camera: MakeCamera, text: str
) -> None:
    names = [
        "ipv4_dhcp_enable",
        "ipv4_link_local_enable",
        "ipv6_enable",
        "ipv6_addresses",
        "hostname",
    ]
    variables = {f"vesko_{name}": text for name in names} | {"netdev0": text}
    camera = make_camera(variables=variables)
    camera.rule("/usr/sbin/arping *", status=0)
    assert start(camera)[-1] == "READY=1"
    assert_no_command_holds(camera, [text])
    defaults = {"[IPv4/DHCP]Enabled": True, "[IPv6]Enabled": True, "[IPv4/Manual]Address": None}
    assert camera.api_get(list(defaults)) == {"success": True, "errors": [], **defaults}


# The daemon's environment


@pytest.mark.parametrize("name", ["PATH", "ENV", "BASH_ENV", "IFS"])
def test_the_environment_of_its_starter_leads_the_daemon_to_no_other_program(
    camera: Camera, name: str
) -> None:
    program = f"#!/bin/busybox sh\n/bin/busybox {SMUGGLED}\n"
    for tool in ("ip", "grep", "cut", "route"):
        camera.write_file(f"/tmp/tools/{tool}", program, mode=0o755)
    value = {"PATH": "/tmp/tools", "IFS": "/"}.get(name, "/tmp/tools/ip")
    camera.rule("/usr/sbin/arping *", status=0)
    camera.start_daemon(environment={name: value})
    assert camera.wait_ready() == ["READY=1"]
    assert not camera.files.exists(TRACE)
    assert camera.addresses(4) != []
