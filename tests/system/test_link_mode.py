"""The link mode of eth0: what the kernel's ethtool record tells and takes."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest
from expectations import (
    MANUAL_IPV4,
    SUCCESS,
    Outcome,
    answer,
    done,
    error,
    lines_of_level,
    refusal,
    set_settings,
    start,
)
from stored_settings import plant, stored

from camlab import Camera
from camlab.interfaces import FAST_ETHERNET, GIGABIT_ETHERNET, LinkModes, Mode

MakeCamera = Callable[..., Camera]

AUTONEGOTIATION = "[NIC/eth0/AutoNegotiated]Enabled"
AUTONEGOTIATED_SPEED = "[NIC/eth0/AutoNegotiated]LinkSpeed"
AUTONEGOTIATED_DUPLEX = "[NIC/eth0/AutoNegotiated]FullDuplex"
SPEED = "[NIC/eth0/Manual]LinkSpeed"
DUPLEX = "[NIC/eth0/Manual]FullDuplex"
RATE_LIMIT = "[TrafficShaping]AvgRateLimit"
ACTUAL = [
    "[NIC/eth0/Actual]Autonegotiated",
    "[NIC/eth0/Actual]FullDuplex",
    "[NIC/eth0/Actual]LinkSpeed",
    "[NIC/eth0/Supported]LinkSpeed",
]
WORKAROUND = [
    "/usr/sbin/ethtool -s eth0 autoneg off speed 10 duplex full",
    "/usr/sbin/ethtool -s eth0 autoneg on speed 100 duplex full",
]
APPLYING = "<6>apply_settings: Using ethtool ioctl to set up NIC"
GET_FAILURE = "<3>ethtool_ioctl_get_cmd: ioctl failure for eth0 AF_INET socket with ETHTOOL_GSET"
UNSUPPORTED = "The duplex mode and link speed for eth0 are unsupported"
GIGABIT_WITH_PAUSE = GIGABIT_ETHERNET | Mode.PAUSE | Mode.ASYM_PAUSE


def boot(
    make_camera: MakeCamera,
    supported: int = int(GIGABIT_ETHERNET),
    configuration: str = "",
    **stored_texts: str,
) -> Camera:
    """Return a camera with such a port whose daemon runs."""
    camera = make_camera(
        variables=MANUAL_IPV4, link_modes=LinkModes(supported=supported, advertising=supported)
    )
    if configuration:
        camera.write_file("/etc/quarn/quarn.conf", f"[quarn]\n{configuration}\n")
    if stored_texts:
        assert start(camera) == ["READY=1"]
        camera.stop_daemon()
        plant(camera, {name.replace("_", "."): text for name, text in stored_texts.items()})
    assert start(camera)[-1] == "READY=1"
    return camera


def reduced(modes: int) -> str:
    """What is said when not all that the port can do is advertised."""
    return (
        "<5>ethtool_set_data: Link set to use autonegotiation with reduced capabilities "
        f"0x{modes:08X}"
    )


def fixed(speed: int) -> str:
    """What is said of a link without autonegotiation."""
    return f"<6>ethtool_set_data: Link not using autonegotiation with speed {speed}"


def actual(camera: Camera) -> list[Any]:
    """Autonegotiation, full duplex, speed and the highest speed, as the daemon tells them."""
    response = camera.api_get(ACTUAL)
    return [response.get(key) for key in ACTUAL]


# The start


def test_by_default_the_link_negotiates_up_to_100(make_camera: MakeCamera) -> None:
    camera = boot(make_camera)
    assert camera.link_modes() == LinkModes(
        supported=int(GIGABIT_ETHERNET), advertising=int(FAST_ETHERNET), speed=100
    )
    assert reduced(FAST_ETHERNET) in camera.log_lines()
    assert not [command for command in camera.commands() if "ethtool" in command.text]
    assert actual(camera) == [True, True, 100, 1000]
    assert stored(camera)["NIC.eth0.SupportedModes"] == {
        "full_duplex": [10, 100, 1000],
        "half_duplex": [10, 100],
    }


def test_the_configured_highest_speed_is_negotiated(make_camera: MakeCamera) -> None:
    camera = boot(make_camera, configuration="eth0_max_speed=1000")
    assert camera.link_modes() == LinkModes()
    assert not [line for line in camera.log_lines() if "reduced capabilities" in line]


def test_a_port_without_ethtool_keeps_the_daemon_going(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    for command in (
        ["ip", "link", "set", "eth0", "down"],
        ["ip", "link", "set", "eth0", "name", "port0"],
        ["ip", "link", "add", "eth0", "type", "ifb"],
    ):
        camera.run(command, check=True)
    assert start(camera) == ["READY=1"]
    log = camera.log_lines()
    begin = log.index(APPLYING)
    assert log[begin + 1 : begin + 3] == [
        GET_FAILURE,
        "<3>ethtool_set_data: Not setting ethtool because could not get existing",
    ]
    assert actual(camera)[1:3] == [None, None]
    response = camera.api_set({SPEED: 100})
    assert [entry["code"] for entry in response["errors"]] == [10, 10]


# Autonegotiation


def test_without_pause_frames_100_full_duplex_is_what_is_advertised(
    make_camera: MakeCamera,
) -> None:
    camera = boot(make_camera, int(GIGABIT_WITH_PAUSE), "enable_disable_pause_frame=true")
    camera.set_link_modes(advertising=int(GIGABIT_WITH_PAUSE))
    request = {AUTONEGOTIATED_DUPLEX: False}
    assert set_settings(camera, request).response == SUCCESS
    advertised = int(FAST_ETHERNET)
    assert set_settings(camera, {AUTONEGOTIATED_DUPLEX: True}) == Outcome(
        SUCCESS, [], [APPLYING, reduced(advertised)]
    )
    assert advertised == GIGABIT_WITH_PAUSE & ~0x30 & ~0x6000
    assert camera.link_modes() == LinkModes(
        supported=int(GIGABIT_WITH_PAUSE), advertising=advertised, speed=100
    )


@pytest.mark.parametrize(
    ("speed", "full_duplex", "cleared"),
    [(10, True, 0x3C), (10, False, 0x3E), (100, False, 0x3A), (1000, False, 0x2A)],
)
def test_speed_and_duplex_bound_what_is_negotiated(
    make_camera: MakeCamera, speed: int, full_duplex: bool, cleared: int
) -> None:
    camera = boot(make_camera)
    request = {AUTONEGOTIATED_SPEED: speed, AUTONEGOTIATED_DUPLEX: full_duplex}
    outcome = set_settings(camera, request)
    advertised = int(GIGABIT_ETHERNET) & ~cleared
    assert (outcome.response, outcome.log) == (SUCCESS, [APPLYING, reduced(advertised)])
    assert camera.link_modes() == LinkModes(
        advertising=advertised, speed=speed, duplex=int(full_duplex)
    )


# Fixed modes


def test_the_first_fixed_mode_runs_the_two_ethtool_commands_and_later_ones_do_not(
    make_camera: MakeCamera,
) -> None:
    camera = boot(make_camera)
    assert set_settings(camera, {AUTONEGOTIATION: False}) == Outcome(
        SUCCESS,
        done(*WORKAROUND),
        [APPLYING, "<5>ethtool_set_data: Running ethtool workaround.", fixed(100)],
    )
    assert camera.link_modes() == LinkModes(
        advertising=int(GIGABIT_ETHERNET), speed=100, autoneg=False
    )
    assert set_settings(camera, {SPEED: 10}) == Outcome(SUCCESS, [], [APPLYING, fixed(10)])
    assert set_settings(camera, {AUTONEGOTIATION: True}).commands == []
    assert set_settings(camera, {AUTONEGOTIATION: False}).commands == []
    assert camera.link_modes() == LinkModes(
        advertising=int(GIGABIT_ETHERNET), speed=10, autoneg=False
    )


def test_a_restarted_daemon_runs_the_two_commands_once_again(make_camera: MakeCamera) -> None:
    camera = boot(make_camera)
    assert set_settings(camera, {AUTONEGOTIATION: False, DUPLEX: False}).response == SUCCESS
    camera.kill_daemon()
    assert start(camera) == ["READY=1"]
    commands = [command for command in camera.commands() if "ethtool" in command.text]
    assert commands == done(*WORKAROUND)
    assert camera.link_modes() == LinkModes(
        advertising=int(GIGABIT_ETHERNET), speed=100, duplex=0, autoneg=False
    )
    assert actual(camera) == [False, False, 100, 1000]


def test_a_missing_ethtool_costs_the_two_commands_only(make_camera: MakeCamera) -> None:
    camera = boot(make_camera)
    camera.files.remove("/usr/sbin/ethtool")
    outcome = set_settings(camera, {AUTONEGOTIATION: False})
    assert outcome.response == SUCCESS
    assert [command.status for command in outcome.commands] == [127, 127]
    assert not camera.link_modes().autoneg


def test_a_mode_of_a_wrong_type_changes_nothing_and_is_an_apply_error(
    make_camera: MakeCamera,
) -> None:
    camera = boot(make_camera, NIC_eth0_AutoNegotiated_LinkSpeed='"100"')
    before = camera.link_modes()
    outcome = set_settings(camera, {AUTONEGOTIATED_DUPLEX: False})
    assert outcome.response == answer(
        error(1, "There was an error in applying the settings"), success=True
    )
    assert outcome.log[:3] == [
        APPLYING,
        f"<3>ethtool_set_data: Value for {SPEED} was not a number",
        f"<3>ethtool_set_data: Value for {DUPLEX} was not a boolean",
    ]
    assert camera.link_modes() == before


# What a request may set


def test_1000_half_duplex_on_a_port_without_it_is_refused_with_two_errors(
    make_camera: MakeCamera,
) -> None:
    camera = boot(make_camera)
    request = {SPEED: 1000, DUPLEX: False}
    assert set_settings(camera, request) == refusal(
        request, error(10, UNSUPPORTED, DUPLEX), error(10, UNSUPPORTED, SPEED)
    )
    assert camera.get(SPEED) == 100
    assert camera.get(DUPLEX) is True


@pytest.mark.parametrize("speed", [0, -100, 11, 2500, 10000, 1e10])
def test_a_speed_that_the_port_cannot_do_is_refused(make_camera: MakeCamera, speed: Any) -> None:
    camera = boot(make_camera)
    response = camera.api_set({SPEED: speed, DUPLEX: True})
    assert [entry["code"] for entry in response["errors"]] == [10, 10]
    assert camera.get(SPEED) == 100


def test_the_cache_of_another_port_counts_until_it_holds_its_default(
    make_camera: MakeCamera,
) -> None:
    camera = boot(make_camera, NIC_eth0_SupportedModes='{"full_duplex":[10],"half_duplex":[]}')
    assert actual(camera)[3] == 10
    assert not camera.api_set({SPEED: 1000})["success"]
    camera.stop_daemon()
    default = ' { "half_duplex":[10,100,1000],"full_duplex":[10,100,1000] } '
    plant(camera, {"NIC.eth0.SupportedModes": default})
    assert start(camera, QUARN_LOG_LEVEL="debug") == ["READY=1"]
    misses = [line for line in lines_of_level(camera.log_lines(), 7) if "cache miss" in line]
    assert misses == ["<7>ethtool_get_data:LINE: Ethtool capabilities cache miss"]
    assert stored(camera)["NIC.eth0.SupportedModes"] == {
        "full_duplex": [10, 100, 1000],
        "half_duplex": [10, 100],
    }


# The rate limit that suits a speed


def test_a_change_of_the_speed_from_100_to_1000_also_stores_its_rate_limit(
    make_camera: MakeCamera,
) -> None:
    camera = boot(make_camera)
    assert set_settings(camera, {SPEED: 1000}).response == SUCCESS
    assert stored(camera)["TrafficShaping.AvgRateLimit"] == 240000
    assert camera.get(RATE_LIMIT) == 240000


def test_a_change_to_10_stores_nothing_extra(make_camera: MakeCamera) -> None:
    camera = boot(make_camera)
    assert set_settings(camera, {SPEED: 10}).response == SUCCESS
    assert "TrafficShaping.AvgRateLimit" not in stored(camera)
    assert camera.get(RATE_LIMIT) == 80000


# External PHYs


def test_external_phys_without_a_switch_are_logged_and_an_apply_error(
    make_camera: MakeCamera,
) -> None:
    """A TAP has no MII registers; the PHYs themselves are modelled in the unit tests."""
    camera = boot(make_camera, configuration="external_phy_ids=5;6\nswitch_phy_id=28")
    outcome = set_settings(camera, {AUTONEGOTIATION: False})
    assert outcome.response == answer(
        error(1, "There was an error in applying the settings"), success=True
    )
    failures = [line for line in outcome.log if "external phy" in line]
    assert [line.partition("Failure")[2] for line in failures] == [
        " reading external phy 28:5",
        " reading external phy 28:6",
    ]
    assert not camera.link_modes().autoneg
