"""A settings store that cannot be written: a full disk, a disk that is read-only."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest
from expectations import (
    APPLYING_IPV6,
    FLUSH_IPV6,
    MANUAL_ADDRESS,
    MANUAL_IPV4,
    SUCCESS,
    add_ipv6,
    compact,
    done,
    lines_of_level,
    set_settings,
    start,
    start_manual,
)
from stored_settings import LINK_MODES, STORED_BY_START, stored

from camlab import Camera, wait_until

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

FOLDER = "/var/lib/quarn"
DATABASE = f"{FOLDER}/settings.db"

# Thirty rows of the store: one request, one transaction.
THIRTY: dict[str, Any] = {
    "[NIC/eth0]MTU": 1400,
    "[IPv6/Stateful]UseAddress": False,
    "[IPv6/Manual]Gateways": ["fe80::1"],
    "[NTP]Enabled": False,
    "[NTP/IPv4/DHCP]Enabled": False,
    "[NTP/IPv6/DHCP]Enabled": False,
    "[NTP/IPv6/Discovery]Enabled": False,
    "[NTP/Manual]Enabled": True,
    "[DNS]Enabled": False,
    "[DNS/IPv4/DHCP]Enabled": False,
    "[DNS/IPv6/DHCP]Enabled": False,
    "[DNS/IPv6/Discovery]Enabled": False,
    "[DNS/Manual]Enabled": False,
    "[TrafficShaping]Enabled": False,
    "[TrafficShaping]AvgRateLimit": 90000,
    "[TrafficShaping]BurstSize": 20480,
    "[TrafficShaping]LowLatency/Rate": 91,
    "[TrafficShaping]Bulk/Rate": 401,
    "[TrafficShaping]Misc/Rate": 11,
    "[TrafficShaping]Rtp/BurstPercent": 91,
    "[TrafficShaping]Rtp/CeilPercent": 92,
    "[TrafficShaping]LowLatency/BurstPercent": 93,
    "[TrafficShaping]LowLatency/CeilPercent": 94,
    "[TrafficShaping]Bulk/BurstPercent": 95,
    "[TrafficShaping]Bulk/CeilPercent": 96,
    "[TrafficShaping]Misc/BurstPercent": 97,
    "[TrafficShaping]Misc/CeilPercent": 98,
    "[RTSP]Enabled": False,
    "[RTSP]Port": 8554,
    "[NIC/eth0/Manual]FullDuplex": False,
}
assert len(THIRTY) == 30


def name_of(key: str) -> str:
    """The name of a setting in the store."""
    return key[1:].replace("]", ".").replace("/", ".")


def not_stored(function: str, settings: dict[str, Any]) -> list[str]:
    """The log lines of settings that could not be stored."""
    return [
        f"<3>{function}: Could not set {name_of(key)} = {compact(value)} to settings"
        for key, value in settings.items()
    ]


# What a start cannot store either, and what tries it again.
NO_LINK_MODES = not_stored(
    "save_or_hold_setting", {"[NIC/eth0]SupportedModes": LINK_MODES["NIC.eth0.SupportedModes"]}
)


def values(camera: Camera, settings: dict[str, Any]) -> dict[str, Any]:
    """The present values of settings."""
    response = camera.api_get(list(settings))
    return {key: response[key] for key in settings}


def start_with_open_database(make_camera: MakeCamera) -> Camera:
    """A camera whose database holds one value and is still open for the next."""
    camera = start_manual(make_camera)
    assert camera.api_set_text('{"[NIC/eth0]MTU": 1450}') == SUCCESS
    return camera


def start_with_closed_database(make_camera: MakeCamera) -> Camera:
    """A camera whose database holds one value and was closed, since nothing came for a while."""
    camera = start_with_open_database(make_camera)
    names = ["settings.db", "settings.db.backup"]
    folder = [camera.path(FOLDER)]
    wait_until(lambda: camera.files.names(FOLDER) == names, 30, "the database is closed", folder)
    return camera


def start_without_database(make_camera: MakeCamera) -> Camera:
    """A camera whose disk was full from the beginning: it never stored anything."""
    camera = make_camera(variables=MANUAL_IPV4)
    camera.fill_store()
    assert start(camera, QUARN_LOG_LEVEL="debug") == ["READY=1"]
    return camera


# A request is one transaction


def test_thirty_settings_of_one_request_are_stored_together(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    assert camera.api_set_text(compact(THIRTY)) == SUCCESS
    assert values(camera, THIRTY) == THIRTY
    thirty = {name_of(key): value for key, value in THIRTY.items()}
    assert stored(camera) == {**STORED_BY_START, **thirty}


def test_a_request_that_a_full_disk_cannot_take_is_stored_not_even_in_part(
    make_camera: MakeCamera,
) -> None:
    camera = start_with_open_database(make_camera)
    before = values(camera, THIRTY)
    camera.fill_store()
    outcome = set_settings(camera, THIRTY)
    assert outcome.response == SUCCESS
    assert lines_of_level(outcome.log, 3) == [
        f"<3>trell_core_settings_commit: {DATABASE} cannot be written: " "database or disk is full",
        *not_stored("end_save_group", THIRTY),
    ]
    assert "<7>apply_settings:LINE: Apply Flags: 0x00000000 (restart=1)" in outcome.log
    assert outcome.commands == []
    assert values(camera, THIRTY) == before
    assert camera.link()["mtu"] == 1450


@pytest.mark.parametrize(
    ("start_camera", "no_modes"),
    [(start_without_database, NO_LINK_MODES), (start_with_closed_database, [])],
    ids=["new", "closed"],
)
def test_a_database_that_a_full_disk_cannot_open_stores_nothing(
    make_camera: MakeCamera, start_camera: Callable[[MakeCamera], Camera], no_modes: list[str]
) -> None:
    camera = start_camera(make_camera)
    before = values(camera, THIRTY)
    camera.fill_store()
    outcome = set_settings(camera, THIRTY)
    assert outcome.response == SUCCESS
    errors = [line for line in lines_of_level(outcome.log, 3) if "Could not set" in line]
    assert [line.split(": ", 1)[1] for line in errors] == [
        line.split(": ", 1)[1] for line in no_modes + not_stored("", THIRTY)
    ]
    assert "<7>apply_settings:LINE: Apply Flags: 0x00000000 (restart=1)" in outcome.log
    assert outcome.commands == []
    assert values(camera, THIRTY) == before


@pytest.mark.parametrize(
    ("start_camera", "by_start"),
    [
        # The host name is in the boot environment; the link modes are stored with the next request.
        (start_without_database, LINK_MODES),
        (start_with_closed_database, STORED_BY_START),
        (start_with_open_database, STORED_BY_START),
    ],
    ids=["new", "closed", "open"],
)
def test_a_request_is_taken_whole_once_the_disk_has_room_again(
    make_camera: MakeCamera, start_camera: Callable[[MakeCamera], Camera], by_start: dict[str, Any]
) -> None:
    camera = start_camera(make_camera)
    camera.fill_store()
    assert camera.api_set_text(compact(THIRTY)) == SUCCESS
    camera.empty_store()
    assert camera.api_set_text(compact(THIRTY)) == SUCCESS
    assert values(camera, THIRTY) == THIRTY
    camera.kill_daemon()
    thirty = {name_of(key): value for key, value in THIRTY.items()}
    assert stored(camera) == {**by_start, **thirty}
    assert start(camera) == ["READY=1"]
    assert values(camera, THIRTY) == THIRTY


def test_held_values_of_a_request_that_cannot_be_stored_are_held_and_applied(
    make_camera: MakeCamera,
) -> None:
    camera = start_with_open_database(make_camera)
    camera.fill_store()
    request: dict[str, Any] = {
        "[NIC/eth0]MTU": 1400,
        "[IPv6/Stateful]Addresses": ["2001:db8::50/64"],
    }
    outcome = set_settings(camera, request)
    assert outcome.response == SUCCESS
    steps = [line for line in outcome.log if "apply_settings" in line]
    assert steps == ["<7>apply_settings:LINE: Apply Flags: 0x00000004 (restart=1)", APPLYING_IPV6]
    assert outcome.commands == [*done(FLUSH_IPV6), add_ipv6("2001:db8::50/64")]
    assert values(camera, request) == {**request, "[NIC/eth0]MTU": 1450}


def test_the_boot_environment_is_written_although_the_store_is_full(
    make_camera: MakeCamera,
) -> None:
    camera = start_with_open_database(make_camera)
    camera.fill_store()
    outcome = set_settings(camera, {"[IPv4/Manual]Address": "192.0.2.11"})
    assert outcome.response == SUCCESS
    assert camera.bootenv.get("netdev0") == "00005e005301" "c000020b" "ffffff00" "c0000201"
    assert camera.get("[IPv4/Manual]Address") == "192.0.2.11"


# Starts


def test_a_start_on_a_full_disk_serves(make_camera: MakeCamera) -> None:
    camera = start_without_database(make_camera)
    assert camera.addresses(4) == [f"{MANUAL_ADDRESS}/24"]
    assert camera.get("[NIC/eth0]MTU") == 1500
    unopened = f"<3>begin: {DATABASE} cannot be written: unable to open database file"
    assert lines_of_level(camera.log_lines(), 2, 3) == [
        unopened,
        *not_stored("save_or_hold_setting", {"[Hostname]Name": "Corvy-0000000"}),
        unopened,
        *NO_LINK_MODES,
    ]
    assert camera.bootenv.get("vesko_hostname") == camera.get("[Hostname]Name") == "Corvy-0000000"


def test_a_start_on_a_full_disk_knows_what_was_stored(make_camera: MakeCamera) -> None:
    camera = start_with_open_database(make_camera)
    camera.kill_daemon()
    camera.fill_store()
    assert start(camera) == ["READY=1"]
    assert camera.get("[NIC/eth0]MTU") == 1450
    assert camera.stop_daemon() == 0
    camera.empty_store()
    assert stored(camera) == {**STORED_BY_START, "NIC.eth0.MTU": 1450}


def end_in_order(camera: Camera) -> None:
    assert camera.stop_daemon() == 0


def kill(camera: Camera) -> None:
    camera.kill_daemon()


def kill_and_lose_the_index(camera: Camera) -> None:
    """Without the index of its log, which it cannot make anew, SQLite does not read the log."""
    camera.kill_daemon()
    camera.files.remove(f"{DATABASE}-shm")


# What the start wanted to store of the link modes was among the newest settings.
BEHIND = [f"<3>load: the newest settings of {DATABASE} cannot be read yet"] * 2 + NO_LINK_MODES


@pytest.mark.parametrize(
    ("end", "errors", "mtu", "refuser"),
    [
        (end_in_order, [], 1450, "save_or_hold_setting"),
        # Where the log and its index are there, it is only the commit that fails.
        (kill, [], 1450, "end_save_group"),
        (kill_and_lose_the_index, BEHIND, 1500, "save_or_hold_setting"),
    ],
    ids=["ended in order", "killed", "killed, and its index is lost"],
)
def test_a_start_on_a_read_only_disk_serves_with_what_can_be_read(
    make_camera: MakeCamera,
    end: Callable[[Camera], None],
    errors: list[str],
    mtu: int,
    refuser: str,
) -> None:
    camera = start_with_open_database(make_camera)
    end(camera)
    camera.set_store_read_only()
    assert start(camera) == ["READY=1"]
    assert lines_of_level(camera.log_lines(), 2, 3) == errors
    assert camera.link()["mtu"] == mtu
    assert camera.addresses(4) == [f"{MANUAL_ADDRESS}/24"]
    assert camera.api_set_text('{"[NIC/eth0]MTU": 1300}') == SUCCESS
    refused = not_stored(refuser, {"[NIC/eth0]MTU": 1300})
    assert lines_of_level(camera.log_lines(), 3)[-1:] == refused
    assert camera.get("[NIC/eth0]MTU") == mtu
    camera.set_store_read_only(False)
    assert camera.api_set_text('{"[RTSP]Enabled": false}') == SUCCESS
    assert camera.get("[NIC/eth0]MTU") == 1450
    assert stored(camera) == {**STORED_BY_START, "NIC.eth0.MTU": 1450, "RTSP.Enabled": False}


def test_a_disk_that_turns_read_only_is_logged_and_the_daemon_serves(
    make_camera: MakeCamera,
) -> None:
    camera = start_with_closed_database(make_camera)
    camera.set_store_read_only()
    outcome = set_settings(camera, {"[NIC/eth0]MTU": 1300})
    assert outcome.response == SUCCESS
    assert lines_of_level(outcome.log, 3) == [
        f"<3>begin: {DATABASE} cannot be written: unable to open database file",
        *not_stored("save_or_hold_setting", {"[NIC/eth0]MTU": 1300}),
    ]
    assert outcome.commands == []
    assert camera.get("[NIC/eth0]MTU") == 1450
    camera.set_store_read_only(False)
    assert camera.api_set_text('{"[NIC/eth0]MTU": 1300}') == SUCCESS
    assert camera.stop_daemon() == 0
    assert stored(camera) == {**STORED_BY_START, "NIC.eth0.MTU": 1300}
