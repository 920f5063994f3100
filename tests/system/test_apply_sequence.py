"""What is carried out, and in which order."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any, NamedTuple

import pytest
from expectations import (
    APPLY_ERROR,
    APPLYING_IPV4,
    APPLYING_IPV6,
    FLUSH_IPV6,
    MANUAL_ADDRESS,
    MANUAL_IPV4,
    MULTICAST_ROUTE,
    NO_ALIAS,
    SETTING_MTU,
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
    set_settings,
    start,
    start_manual,
)

from camlab import Camera, Command
from camlab.namespaces import MS_BIND, MS_RDONLY, MS_REMOUNT

MakeCamera = Callable[..., Camera]

IPV6_SWITCHES = ("all/disable_ipv6", "default/accept_ra", "eth0/accept_ra")
DROP_DYNAMIC = (
    "for ADDR in $(ip -6 addr show eth0 | grep \"scope global dynamic\" | cut -d ' ' -f 6); "
    "do ip addr del $ADDR dev eth0; done"
)
SETTING_KERNEL_FLAG = "<6>apply_settings: Setting IPv6 kernel flag"
TURNING_ACCEPT_RA = "<6>apply_settings: Turning accept_ra on/off"
INITIALIZING = "<6>apply_settings: Initializing lo and eth0"
SETTING_MANUAL_ADDRESS = f"<6>_do_ifconfig: Setting IPv4 address={MANUAL_ADDRESS}/24"

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
    """The flags of a request, the steps that were logged, and the commands that ran."""
    outcome = set_settings(camera, request)
    assert outcome.response == SUCCESS
    [flags] = [line for line in outcome.log if "Apply Flags" in line]
    steps = [line for line in outcome.log if line.startswith("<6>apply_settings: ")]
    return flags, steps, outcome.commands


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
        INITIALIZING,
        APPLYING_IPV4,
        SETTING_MANUAL_ADDRESS,
        APPLYING_IPV6,
        SETTING_MTU,
    ]
    assert camera.commands() == boot_commands(
        [NO_ALIAS, ifconfig(f"{MANUAL_ADDRESS}/24"), *done(MULTICAST_ROUTE)]
    )


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


# One flag alone


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
        [APPLYING_IPV4],
        [NO_ALIAS, ifconfig("192.0.2.11/24"), *done(MULTICAST_ROUTE)],
    ),
    "an IPv6 address": Case(
        {"[IPv6/Manual]Addresses": ["2001:db8::1/64"]},
        0x4,
        [APPLYING_IPV6],
        [*done(FLUSH_IPV6), add_ipv6("2001:db8::1/64")],
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
    "several": Case(
        {"[NIC/eth0]MTU": 1400, "[IPv6/Manual]Addresses": [], "[IPv4/Manual]Address": "192.0.2.11"},
        0x10006,
        [APPLYING_IPV4, APPLYING_IPV6, SETTING_MTU],
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
        [APPLYING_IPV4],
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


@pytest.mark.parametrize(
    "command", ["/sbin/ip link set lo up", "ip link set eth0 up", "/sbin/ip link set eth0 mtu 1500"]
)
def test_a_failed_step_of_the_start_stops_no_other(make_camera: MakeCamera, command: str) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    camera.rule(command, status=1)
    assert start(camera) == ["ERRNO=5", "READY=1"]
    expected = boot_commands([NO_ALIAS, ifconfig(f"{MANUAL_ADDRESS}/24"), *done(MULTICAST_ROUTE)])
    assert camera.commands() == [
        Command(text, 1 if text == command else status) for text, status in expected
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
