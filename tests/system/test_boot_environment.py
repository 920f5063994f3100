"""Eight settings that live in the boot loader's environment too, here a real one in a file."""

from __future__ import annotations

import re
from collections.abc import Callable
from typing import Any

import pytest
from expectations import MANUAL_IPV4, SUCCESS, compact, masked, start, start_manual
from stored_settings import stored

from camlab import Camera

MakeCamera = Callable[..., Camera]

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


def test_a_blank_environment_gives_the_defaults_and_stays_as_it_is(make_camera: MakeCamera) -> None:
    camera = make_camera(variables={})
    before = camera.bootenv.content()
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
        "[Hostname]Name": None,
    }
    assert camera.bootenv.content() == before


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
    "an empty host name": (
        {"vesko_hostname": ""},
        *("[Hostname]Name", None, ""),
        [not_found("[Hostname]Name"), default("[Hostname]Name", "null")],
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
    camera = make_camera(variables={**MANUAL_IPV4, **variables})
    before = camera.bootenv.content()
    camera.rule("/usr/sbin/arping *", status=0)
    assert start(camera, QUARN_LOG_LEVEL="debug") == ["READY=1"]
    assert camera.get(key) == value
    assert reading_log(camera, key, text) == log
    assert camera.bootenv.content() == before


# Writing


SAVES: dict[str, tuple[dict[str, Any], dict[str, str | None]]] = {
    "DHCP": ({"[IPv4/DHCP]Enabled": True}, {"vesko_ipv4_dhcp_enable": "1"}),
    "link-local": ({"[IPv4/LocalLink]Enabled": True}, {"vesko_ipv4_link_local_enable": "1"}),
    "address": ({ADDRESS: "10.1.2.3"}, {"netdev0": record(address="0a010203")}),
    "no address": ({ADDRESS: None}, {"netdev0": record(address="00000000")}),
    "netmask": ({NETMASK: 16}, {"netdev0": record(netmask="ffff0000")}),
    "gateway": ({GATEWAY: "192.0.2.254"}, {"netdev0": record(gateway="c00002fe")}),
    "no gateway": ({GATEWAY: None}, {"netdev0": record(gateway="00000000")}),
    "no IPv6": ({"[IPv6]Enabled": False}, {"vesko_ipv6_enable": "0"}),
    "IPv6 address": ({ADDRESSES: ["2001:db8::a/64"]}, {"vesko_ipv6_addresses": "2001:db8::a/64"}),
    "no IPv6 address": ({ADDRESSES: []}, {"vesko_ipv6_addresses": None}),
}


@pytest.mark.parametrize(("request_", "changes"), SAVES.values(), ids=SAVES.keys())
@pytest.mark.parametrize("kind", ["plain", "redundant"])
def test_a_saved_setting_changes_its_own_variable_and_no_other(
    make_camera: MakeCamera, kind: str, request_: dict[str, Any], changes: dict[str, str | None]
) -> None:
    camera = start_manual(make_camera, variables=VARIABLES, boot_environment=kind)
    camera.rule("/usr/sbin/arping *", status=0)
    assert camera.api_set_text(compact(request_)) == SUCCESS
    merged: dict[str, str | None] = {**VARIABLES, **changes}
    expected = {name: text for name, text in merged.items() if text is not None}
    assert camera.bootenv.variables() == expected
    printed = camera.run(["fw_printenv"]).stdout.splitlines()
    assert sorted(printed) == sorted(f"{name}={text}" for name, text in expected.items())
    assert values(camera) == {**KEYS, **request_}


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
    request = {key: value for key, value in KEYS.items() if key != "[Hostname]Name"}
    logged = len(camera.log_lines())
    assert camera.api_set_text(compact(request)) == SUCCESS
    lines = masked(camera.log_lines()[logged:])
    assert [line for line in lines if "bootenv" in line] == [
        f"<7>save_bootenv_var:LINE: {key} is not being changed" for key in request
    ]
    after = (camera.bootenv.content(), camera.files.stat("/boot/uboot.env").st_mtime_ns)
    assert after == before
    assert stored(camera) == {}


def test_the_first_address_makes_the_record(make_camera: MakeCamera) -> None:
    camera = make_camera(variables={"vesko_ipv4_dhcp_enable": "0"})
    assert start(camera) == ["READY=1"]
    assert camera.api_set_text(compact({ADDRESS: "192.0.2.10"})) == SUCCESS
    assert camera.bootenv.variables() == {
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
