"""The links lo and eth0 come up, and the MTU."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest
from expectations import (
    APPLY_ERROR,
    DECONFIGURE,
    NO_ALIAS,
    SETTING_MTU,
    SUCCESS,
    Outcome,
    addresses_without_lease,
    answer,
    boot_commands,
    compact,
    done,
    error,
    error_log,
    probe,
    refusal,
    set_settings,
    start,
)
from stored_settings import stored

from camlab import Camera, Command, Signal

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

MTU = "[NIC/eth0]MTU"
NO_DHCP = {"vesko_ipv4_dhcp_enable": "0"}
LOOPBACK_ADDRESS = "/sbin/ip addr add 127.0.0.1/8 dev lo 2>/dev/null"


@pytest.fixture
def addressed_camera(make_camera: MakeCamera) -> Camera:
    """Return a camera without DHCP that has the address 10.0.0.5/24."""
    camera = make_camera(variables=NO_DHCP)
    assert start(camera) == ["READY=1"]
    assert camera.api_set({"[IPv4/Manual]Address": "10.0.0.5"})["success"]
    return camera


# The MTU


def test_an_mtu_is_set_stored_and_announced(addressed_camera: Camera) -> None:
    for mtu in (1200, 1280, 1499):
        outcome = set_settings(addressed_camera, {MTU: mtu})
        assert (outcome.response, outcome.commands) == (
            SUCCESS,
            done(f"/sbin/ip link set eth0 mtu {mtu}"),
        )
        assert outcome.log[0] == SETTING_MTU
        assert addressed_camera.link()["mtu"] == mtu
        assert stored(addressed_camera)["NIC.eth0.MTU"] == mtu
        assert addressed_camera.wait_signal("MTUChange") == Signal("MTUChange", (mtu,))


def test_an_mtu_of_1500_is_taken_after_another(addressed_camera: Camera) -> None:
    assert set_settings(addressed_camera, {MTU: 1400}) == Outcome(
        SUCCESS, done("/sbin/ip link set eth0 mtu 1400"), [SETTING_MTU]
    )
    assert set_settings(addressed_camera, {MTU: 1500}) == Outcome(
        SUCCESS, done("/sbin/ip link set eth0 mtu 1500"), [SETTING_MTU]
    )
    assert addressed_camera.link()["mtu"] == 1500


def test_an_mtu_outside_of_1200_to_1500_is_refused(addressed_camera: Camera) -> None:
    for mtu in (1199, 1501, 0, -1, 2147483647):
        fault = error(4, f"Invalid MTU ({mtu}) (must be 1200 to 1500)", MTU)
        assert set_settings(addressed_camera, {MTU: mtu}) == refusal({MTU: mtu}, fault)
    assert addressed_camera.link()["mtu"] == 1500
    assert addressed_camera.get(MTU) == 1500


def test_an_mtu_that_is_no_number_has_both_errors(addressed_camera: Camera) -> None:
    values: list[tuple[Any, int]] = [("1400", 0), (None, 0), (True, 1), ([1400], 0), ({"a": 1}, 0)]
    for value, quoted in values:
        faults = [
            error(3, "Value wasn't a number", MTU),
            error(4, f"Invalid MTU ({quoted}) (must be 1200 to 1500)", MTU),
        ]
        assert set_settings(addressed_camera, {MTU: value}) == refusal({MTU: value}, *faults)
    assert addressed_camera.link()["mtu"] == 1500


def test_an_mtu_that_the_kernel_refuses_is_an_apply_error(addressed_camera: Camera) -> None:
    command = "/sbin/ip link set eth0 mtu 1400"
    addressed_camera.rule(command, status=2)
    assert set_settings(addressed_camera, {MTU: 1400}) == Outcome(
        answer(APPLY_ERROR, success=True),
        [Command(command, 2)],
        [
            SETTING_MTU,
            f"<3>set_mtu: System call '{command}' returned 2",
            error_log(1, "There was an error in applying the settings"),
        ],
    )
    assert addressed_camera.link()["mtu"] == 1500


def test_the_mtu_is_set_again_at_the_next_start(addressed_camera: Camera) -> None:
    addressed_camera.api_set({MTU: 1400})
    addressed_camera.reboot()
    assert addressed_camera.link()["mtu"] == 1500
    assert start(addressed_camera) == ["READY=1"]
    assert addressed_camera.link()["mtu"] == 1400
    assert Command("/sbin/ip link set eth0 mtu 1400", 0) in addressed_camera.commands()


# lo and eth0


def test_lo_and_eth0_come_up(make_camera: MakeCamera) -> None:
    camera = make_camera(link_up=False)
    camera.run(["ip", "link", "set", "lo", "down"], check=True)
    camera.run(["ip", "address", "flush", "dev", "lo"], check=True)
    camera.rule("/usr/sbin/arping *", status=0)
    assert start(camera) == ["READY=1"]
    link_local = stored(camera)["IPv4.LocalLink.Address"]
    assert camera.commands() == boot_commands(
        [
            probe(link_local),
            probe("192.168.0.20"),
            *addresses_without_lease(link_local, "192.168.0.20"),
        ],
        loopback=0,
    )
    [loopback] = camera.ip("-4", "address", "show", "dev", "lo")
    assert "UP" in loopback["flags"]
    assert [(entry["local"], entry["prefixlen"]) for entry in loopback["addr_info"]] == [
        ("127.0.0.1", 8)
    ]
    assert "UP" in camera.link()["flags"]


def test_a_loopback_address_that_is_there_already_is_fine(camera: Camera) -> None:
    camera.rule("/usr/sbin/arping *", status=0)
    assert start(camera) == ["READY=1"]
    assert camera.commands()[0] == Command(LOOPBACK_ADDRESS, 2)
    assert "<5>link_lo_up: Loopback device already exists" in camera.log_lines()


@pytest.mark.parametrize(
    ("pattern", "line"),
    [
        (LOOPBACK_ADDRESS, "<3>link_lo_up: System call to create loopback returned 1"),
        ("/sbin/ip link set lo up", "<3>link_lo_up: System call to up loopback returned 1"),
        (
            "ip link set eth0 up",
            "<3>link_eth0_up: System call 'ip link set eth0 up' returned 1",
        ),
    ],
)
def test_a_link_that_does_not_come_up_is_reported_and_the_start_goes_on(
    make_camera: MakeCamera, pattern: str, line: str
) -> None:
    camera = make_camera(variables=NO_DHCP)
    camera.rule(pattern, status=1)
    assert start(camera) == ["ERRNO=5", "READY=1"]
    assert line in camera.log_lines()
    assert camera.commands() == [
        Command(text, 1 if text == pattern else status)
        for text, status in boot_commands([NO_ALIAS, *done(DECONFIGURE)])
    ]
    assert camera.api_get_text(compact({"settings": []})) == SUCCESS
