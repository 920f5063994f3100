"""Eight settings that live in the boot loader's environment too, here a real one in a file."""

from __future__ import annotations

import re
from collections.abc import Callable
from typing import Any

import pytest
from expectations import MANUAL_IPV4, SUCCESS, compact, masked, start, start_manual
from stored_settings import LINK_MODES, VARIABLES_OF_START, stored

from camlab import Camera

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

KEYS = {
    "[IPv4/DHCP]Enabled": False,
    "[IPv4/LocalLink]Enabled": False,
    "[IPv4/Manual]Address": "192.0.2.10",
    "[IPv4/Manual]Netmask": 24,
    "[IPv4/Manual]DefaultGateway": "192.0.2.1",
    "[IPv6]Enabled": True,
    "[IPv6/Manual]Addresses": ["2001:db8::1/64", "2001:db8::2/64"],
    "[Hostname]Name": "camera-7",
}
VARIABLES = {
    **MANUAL_IPV4,
    "vesko_ipv6_enable": "1",
    "vesko_ipv6_addresses": "2001:db8::1/64 2001:db8::2/64",
    "vesko_hostname": "camera-7",
    "bootdelay": "2",
}


def record(address: str = "c000020a", netmask: str = "ffffff00", gateway: str = "c0000201") -> str:
    """The network-device record of MANUAL_IPV4 with other fields."""
    return f"00005e005301{address}{netmask}{gateway}"


def values(camera: Camera) -> dict[str, Any]:
    """What the daemon says of the eight settings."""
    response = camera.api_get(list(KEYS))
    assert response.pop("success") is True
    assert response.pop("errors") == []
    return response


def reading_log(camera: Camera, key: str, text: str) -> list[str]:
    """What the daemon logged about reading a key whose variable holds a text."""
    lines = masked(camera.log_lines())
    mentions = re.compile(rf"<\d>read_bootenv_var.*({re.escape(key)}|convert {re.escape(text)} )")
    return [line for line in lines if mentions.match(line)]


# Reading


def test_all_eight_settings_are_read_from_the_environment(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera, variables=VARIABLES)
    assert values(camera) == KEYS
    assert camera.bootenv.variables() == VARIABLES


def test_a_blank_environment_gives_the_defaults_and_gets_the_host_name_alone(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(variables={})
    camera.rule("/usr/sbin/arping *", status=0)
    assert start(camera) == ["READY=1"]
    assert values(camera) == {
        "[IPv4/DHCP]Enabled": True,
        "[IPv4/LocalLink]Enabled": True,
        "[IPv4/Manual]Address": None,
        "[IPv4/Manual]Netmask": 24,
        "[IPv4/Manual]DefaultGateway": None,
        "[IPv6]Enabled": True,
        "[IPv6/Manual]Addresses": [],
        "[Hostname]Name": "Corvy-0000000",
    }
    assert camera.bootenv.variables() == VARIABLES_OF_START


def not_found(key: str) -> str:
    return f"<7>read_bootenv_var:LINE: Couldn't get {key} value from boot enviornment."


def default(key: str, text: str) -> str:
    return f"<7>read_bootenv_var:LINE: Using default value {key}={text}"


def not_valid(key: str, text: str) -> str:
    return (
        f"<4>read_bootenv_var: We got {text} from boot environment, "
        f"which didn't validate for {key}"
    )


ADDRESS, NETMASK, GATEWAY = (
    f"[IPv4/Manual]{name}" for name in ("Address", "Netmask", "DefaultGateway")
)
ADDRESSES = "[IPv6/Manual]Addresses"
READINGS: dict[str, tuple[dict[str, str], str, Any, str, list[str]]] = {
    "a zero address": (
        {"netdev0": record(address="00000000")},
        *(ADDRESS, None, "", [not_found(ADDRESS), default(ADDRESS, "null")]),
    ),
    "a zero netmask": (
        {"netdev0": record(netmask="00000000")},
        *(NETMASK, 24, "", [not_found(NETMASK), default(NETMASK, "24")]),
    ),
    "a zero gateway": (
        {"netdev0": record(gateway="00000000")},
        *(GATEWAY, None, "", [not_found(GATEWAY), default(GATEWAY, "null")]),
    ),
    "another netmask": ({"netdev0": record(netmask="fffff000")}, NETMASK, 20, "", []),
    "a netmask with a hole": (
        {"netdev0": record(netmask="ff00ff00")},
        *(NETMASK, 24, "255.0.255.0"),
        ["<4>read_bootenv_var: Couldn't convert 255.0.255.0 to JSON", default(NETMASK, "24")],
    ),
    "a record in capital digits": ({"netdev0": record().upper()}, ADDRESS, "192.0.2.10", "", []),
    "a record that is too short": (
        {"netdev0": record()[:-1]},
        *(ADDRESS, None, "", [not_found(ADDRESS), default(ADDRESS, "null")]),
    ),
    "a record of other characters": (
        {"netdev0": record()[:-1] + "g"},
        *(ADDRESS, None, "", [not_found(ADDRESS), default(ADDRESS, "null")]),
    ),
    "a flag that is off": ({"vesko_ipv6_enable": "0"}, "[IPv6]Enabled", False, "", []),
    "a flag that is no flag": (
        {"vesko_ipv6_enable": "x"},
        *("[IPv6]Enabled", True, ""),
        [not_found("[IPv6]Enabled"), default("[IPv6]Enabled", "true")],
    ),
    "a flag of two digits": (
        {"vesko_ipv6_enable": "00"},
        *("[IPv6]Enabled", True, ""),
        [not_found("[IPv6]Enabled"), default("[IPv6]Enabled", "true")],
    ),
    "a double blank between addresses": (
        {"vesko_ipv6_addresses": "2001:db8::1/64  2001:db8::2/64"},
        *(ADDRESSES, [], ""),
        [not_valid(ADDRESSES, "2001:db8::1/64  2001:db8::2/64"), default(ADDRESSES, "[]")],
    ),
    "a command behind an address": (
        {"vesko_ipv6_addresses": "2001:db8::1/64;reboot"},
        *(ADDRESSES, [], ""),
        [not_valid(ADDRESSES, "2001:db8::1/64;reboot"), default(ADDRESSES, "[]")],
    ),
}


@pytest.mark.parametrize(
    ("variables", "key", "value", "text", "log"), READINGS.values(), ids=READINGS.keys()
)
def test_a_value_of_the_environment_counts_only_where_it_is_one(
    make_camera: MakeCamera,
    variables: dict[str, str],
    key: str,
    value: Any,
    text: str,
    log: list[str],
) -> None:
    # Without a host name the start would write one.
    name = {"vesko_hostname": "camera-7"}
    camera = make_camera(variables={**MANUAL_IPV4, **name, **variables})
    before = camera.bootenv.content()
    camera.rule("/usr/sbin/arping *", status=0)
    assert start(camera, QUARN_LOG_LEVEL="debug") == ["READY=1"]
    assert camera.get(key) == value
    assert reading_log(camera, key, text) == log
    assert camera.bootenv.content() == before


@pytest.mark.parametrize("text", ["", "no host name", "10.0.0.5", "a" * 64])
def test_a_host_name_of_the_environment_that_is_none_gives_way_to_the_default_name(
    make_camera: MakeCamera, text: str
) -> None:
    key = "[Hostname]Name"
    camera = make_camera(variables={**MANUAL_IPV4, "vesko_hostname": text})
    assert start(camera, QUARN_LOG_LEVEL="debug") == ["READY=1"]
    assert camera.get(key) == "Corvy-0000000"
    assert reading_log(camera, key, text) == [
        not_valid(key, text) if text else not_found(key),
        default(key, "null"),
    ]
    assert camera.bootenv.variables() == {**MANUAL_IPV4, **VARIABLES_OF_START}


# Writing


SAVES: dict[str, tuple[dict[str, Any], dict[str, str | None]]] = {
    "DHCP": ({"[IPv4/DHCP]Enabled": True}, {"vesko_ipv4_dhcp_enable": "1"}),
    "link-local": ({"[IPv4/LocalLink]Enabled": True}, {"vesko_ipv4_link_local_enable": "1"}),
    "address": ({ADDRESS: "10.1.2.3"}, {"netdev0": record(address="0a010203")}),
    "no address": ({ADDRESS: None}, {"netdev0": record(address="00000000")}),
    "netmask": ({NETMASK: 16}, {"netdev0": record(netmask="ffff0000")}),
    "gateway": ({GATEWAY: "192.0.2.254"}, {"netdev0": record(gateway="c00002fe")}),
    "no gateway": ({GATEWAY: None}, {"netdev0": record(gateway="00000000")}),
    "host name": ({"[Hostname]Name": "other"}, {"vesko_hostname": "other"}),
    "no IPv6": ({"[IPv6]Enabled": False}, {"vesko_ipv6_enable": "0"}),
    "IPv6 address": ({ADDRESSES: ["2001:db8::a/64"]}, {"vesko_ipv6_addresses": "2001:db8::a/64"}),
    "no IPv6 address": ({ADDRESSES: []}, {"vesko_ipv6_addresses": None}),
}


@pytest.mark.parametrize("kind", ["plain", "redundant"])
def test_a_saved_setting_changes_its_own_variable_and_no_other(
    make_camera: MakeCamera, kind: str
) -> None:
    camera = start_manual(make_camera, variables=VARIABLES, boot_environment=kind)
    camera.rule("/usr/sbin/arping *", status=0)
    for request, changes in SAVES.values():
        assert camera.api_set_text(compact(request)) == SUCCESS
        merged: dict[str, str | None] = {**VARIABLES, **changes}
        expected = {name: text for name, text in merged.items() if text is not None}
        assert camera.bootenv.variables() == expected
        printed = camera.run(["fw_printenv"]).stdout.splitlines()
        assert sorted(printed) == sorted(f"{name}={text}" for name, text in expected.items())
        assert values(camera) == {**KEYS, **request}
        assert camera.api_set_text(compact({key: KEYS[key] for key in request})) == SUCCESS
        assert camera.bootenv.variables() == VARIABLES


def test_one_request_writes_several_settings(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera, variables=VARIABLES)
    request = {
        "[IPv4/LocalLink]Enabled": True,
        ADDRESS: "10.1.2.3",
        NETMASK: 8,
        GATEWAY: "10.1.2.1",
        ADDRESSES: ["2001:db8::b/48"],
    }
    assert camera.api_set_text(compact(request)) == SUCCESS
    assert camera.bootenv.variables() == {
        **VARIABLES,
        "vesko_ipv4_link_local_enable": "1",
        "netdev0": record("0a010203", "ff000000", "0a010201"),
        "vesko_ipv6_addresses": "2001:db8::b/48",
    }
    assert camera.addresses(4) == ["10.1.2.3/8"]
    camera.kill_daemon()
    assert start(camera) == ["READY=1"]
    assert values(camera) == {**KEYS, **request}


def test_a_setting_that_is_not_changed_is_not_written(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera, variables=VARIABLES)
    before = (camera.bootenv.content(), camera.files.stat("/boot/uboot.env").st_mtime_ns)
    logged = len(camera.log_lines())
    assert camera.api_set_text(compact(KEYS)) == SUCCESS
    lines = masked(camera.log_lines()[logged:])
    assert [line for line in lines if "bootenv" in line] == [
        f"<7>save_bootenv_var:LINE: {key} is not being changed" for key in KEYS
    ]
    after = (camera.bootenv.content(), camera.files.stat("/boot/uboot.env").st_mtime_ns)
    assert after == before
    # The start itself has stored no host name either: the environment has one.
    assert stored(camera) == LINK_MODES


def test_the_first_address_makes_the_record(make_camera: MakeCamera) -> None:
    camera = make_camera(variables={"vesko_ipv4_dhcp_enable": "0"})
    assert start(camera) == ["READY=1"]
    assert camera.api_set_text(compact({ADDRESS: "192.0.2.10"})) == SUCCESS
    assert camera.bootenv.variables() == {
        **VARIABLES_OF_START,
        "vesko_ipv4_dhcp_enable": "0",
        "netdev0": "000000000000" "c000020a" "00000000" "00000000",
    }
    assert camera.addresses(4) == ["192.0.2.10/24"]


def test_what_the_store_holds_wins_over_the_environment(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    assert camera.api_set_text(compact({ADDRESS: "192.0.2.11"})) == SUCCESS
    assert camera.stop_daemon() == 0
    camera.bootenv.set("netdev0", record(address="c000020c"))
    assert start(camera) == ["READY=1"]
    assert camera.get(ADDRESS) == "192.0.2.11"
    assert camera.addresses(4) == ["192.0.2.11/24"]


def test_an_empty_store_leaves_the_word_to_the_environment(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    assert camera.api_set_text(compact({ADDRESS: "192.0.2.11"})) == SUCCESS
    assert camera.stop_daemon() == 0
    for name in camera.files.names("/var/lib/quarn"):
        camera.files.remove(f"/var/lib/quarn/{name}")
    assert start(camera) == ["READY=1"]
    assert camera.addresses(4) == ["192.0.2.11/24"]
