"""A settings database that is damaged, however it came to that."""

from __future__ import annotations

import re
from collections.abc import Callable

import pytest
from expectations import SUCCESS, compact, lines_of_level, start, start_manual
from stored_settings import LINK_MODES, STORED_BY_START, stored

from camlab import Camera, wait_until

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

FOLDER = "/var/lib/quarn"
DATABASE = f"{FOLDER}/settings.db"
COPY = f"{DATABASE}.backup"
ADDRESS = "[IPv4/Manual]Address"
NEWER_RECORD = "00005e005301" "c000020c" "ffffff00" "c0000201"


def change(camera: Camera, path: str, alter: Callable[[bytearray], None]) -> None:
    content = bytearray(camera.files.read_bytes(path))
    alter(content)
    camera.write_file(path, bytes(content), 0o600)


def flip_header(content: bytearray) -> None:
    content[0] ^= 0x20


def flip_value(content: bytearray) -> None:
    """Make 1400 another number, which SQLite itself does not notice."""
    at = content.rindex(b"1400")
    content[at] ^= 2


def flip_page(content: bytearray) -> None:
    """Damage the structure of the last page."""
    content[-4096] ^= 0xFF


def cut_off(content: bytearray) -> None:
    del content[5000:]


def empty(content: bytearray) -> None:
    content.clear()


def make_newer(content: bytearray) -> None:
    """The number that PRAGMA user_version shows."""
    content[60:64] = (2).to_bytes(4, "big")


def fill_with_text(content: bytearray) -> None:
    content[:] = b"these are no settings\n" * 100


DAMAGES = {
    "a flipped bit in the header": (flip_header, "file is not a database"),
    "a flipped bit in a value": (flip_value, "the checksum of NIC.eth0.MTU does not match"),
    "a flipped byte in a page": (flip_page, None),
    "cut off": (cut_off, None),
    "empty": (empty, "it is not a file with content"),
    "of a newer version": (make_newer, "it is of a newer version"),
    "another file": (fill_with_text, "file is not a database"),
}
damaged = pytest.mark.parametrize(("damage", "reason"), DAMAGES.values(), ids=DAMAGES.keys())
# One that keeps the file from being opened, one that is found while it is read, one of its own kind.
KINDS = ("a flipped bit in the header", "a flipped bit in a value", "empty")
damaged_in_kind = pytest.mark.parametrize(
    ("damage", "reason"), [DAMAGES[name] for name in KINDS], ids=KINDS
)


def end_with_settings(make_camera: MakeCamera) -> Camera:
    """A camera whose daemon stored settings and has ended; the boot environment is newer."""
    camera = start_manual(make_camera)
    request = {"[NIC/eth0]MTU": 1400, ADDRESS: "192.0.2.11", "[RTSP]Enabled": False}
    assert camera.api_set_text(compact(request)) == SUCCESS
    assert camera.stop_daemon() == 0
    camera.bootenv.set("netdev0", NEWER_RECORD)
    return camera


def set_aside(camera: Camera) -> str:
    """The path of the database that was set aside."""
    names = [name for name in camera.files.names(FOLDER) if ".damaged-" in name]
    assert len(names) == 1
    assert re.fullmatch(r"settings\.db\.damaged-\d{8}T\d{6}Z", names[0])
    return f"{FOLDER}/{names[0]}"


def errors(camera: Camera) -> list[str]:
    return lines_of_level(camera.log_lines(), 2, 3)


def damage_line(reason: str, function: str = "load") -> str:
    return f"<3>{function}: {DATABASE} is damaged and set aside: {reason}"


RESTORED = f"<3>restore_copy: the settings are those of the last good copy, {COPY}"


@damaged
def test_a_damaged_database_is_set_aside_and_the_copy_takes_its_place(
    make_camera: MakeCamera, damage: Callable[[bytearray], None], reason: str | None
) -> None:
    camera = end_with_settings(make_camera)
    change(camera, DATABASE, damage)
    content = camera.files.read_bytes(DATABASE)
    assert start(camera) == ["READY=1"]
    log = errors(camera)
    assert log[1:] == [RESTORED]
    assert log[0] == damage_line(reason) if reason else log[0].startswith(damage_line(""))
    assert camera.files.read_bytes(set_aside(camera)) == content
    assert camera.get("[NIC/eth0]MTU") == camera.link()["mtu"] == 1400
    assert camera.get("[RTSP]Enabled") is False


@damaged_in_kind
def test_of_a_restored_copy_the_boot_environment_is_newer(
    make_camera: MakeCamera, damage: Callable[[bytearray], None], reason: str | None
) -> None:
    camera = end_with_settings(make_camera)
    assert stored(camera)["IPv4.Manual.Address"] == "192.0.2.11"
    change(camera, DATABASE, damage)
    assert start(camera) == ["READY=1"]
    assert camera.get(ADDRESS) == "192.0.2.12"
    assert camera.addresses(4) == ["192.0.2.12/24"]
    # The host name came back from the environment, too.
    assert stored(camera) == {**LINK_MODES, "NIC.eth0.MTU": 1400, "RTSP.Enabled": False}


@damaged_in_kind
def test_after_a_damage_settings_are_stored_as_before(
    make_camera: MakeCamera, damage: Callable[[bytearray], None], reason: str | None
) -> None:
    camera = end_with_settings(make_camera)
    change(camera, DATABASE, damage)
    assert start(camera) == ["READY=1"]
    request = {"[NIC/eth0]MTU": 1300, ADDRESS: "192.0.2.13"}
    assert camera.api_set_text(compact(request)) == SUCCESS
    camera.kill_daemon()
    assert start(camera) == ["READY=1"]
    assert errors(camera) == []
    assert {key: camera.get(key) for key in request} == request
    assert camera.get("[RTSP]Enabled") is False


@damaged_in_kind
def test_without_a_copy_an_empty_store_is_begun(
    make_camera: MakeCamera, damage: Callable[[bytearray], None], reason: str | None
) -> None:
    camera = end_with_settings(make_camera)
    change(camera, DATABASE, damage)
    camera.files.remove(COPY)
    assert start(camera) == ["READY=1"]
    assert len(errors(camera)) == 1
    assert errors(camera)[0].startswith(damage_line(reason or ""))
    set_aside(camera)
    assert camera.get("[NIC/eth0]MTU") == 1500
    assert camera.addresses(4) == ["192.0.2.12/24"]
    assert stored(camera) == LINK_MODES


@damaged
def test_a_damaged_copy_is_not_taken(
    make_camera: MakeCamera, damage: Callable[[bytearray], None], reason: str | None
) -> None:
    camera = end_with_settings(make_camera)
    change(camera, DATABASE, flip_header)
    change(camera, COPY, damage)
    assert start(camera) == ["READY=1"]
    assert errors(camera) == [damage_line("file is not a database")]
    assert camera.get("[NIC/eth0]MTU") == 1500
    assert camera.api_set_text('{"[NIC/eth0]MTU": 1300}') == SUCCESS
    assert stored(camera) == {**LINK_MODES, "NIC.eth0.MTU": 1300}


@damaged_in_kind
def test_damage_while_the_daemon_is_idle_loses_nothing(
    make_camera: MakeCamera, damage: Callable[[bytearray], None], reason: str | None
) -> None:
    camera = start_manual(make_camera)
    assert camera.api_set_text('{"[NIC/eth0]MTU": 1400, "[RTSP]Enabled": false}') == SUCCESS
    names, folder = ["settings.db", "settings.db.backup"], [camera.path(FOLDER)]
    wait_until(lambda: camera.files.names(FOLDER) == names, 30, "the database is closed", folder)
    change(camera, DATABASE, damage)
    request = {"[NTP]Enabled": False, "[RTSP]Enabled": True}
    assert camera.api_set_text(compact(request)) == SUCCESS
    assert len(errors(camera)) == 1
    # SQLite takes an empty file for a database without tables.
    reason = "no such table: settings" if damage is empty else reason
    assert errors(camera)[0].startswith(damage_line(reason or "", "begin"))
    set_aside(camera)
    camera.kill_daemon()
    assert start(camera) == ["READY=1"]
    assert errors(camera) == []
    assert {key: camera.get(key) for key in request} == request
    assert camera.get("[NIC/eth0]MTU") == 1400


def test_a_database_that_vanished_is_made_anew_of_what_the_daemon_knows(
    make_camera: MakeCamera,
) -> None:
    camera = start_manual(make_camera)
    assert camera.api_set_text('{"[NIC/eth0]MTU": 1400, "[RTSP]Enabled": false}') == SUCCESS
    names, folder = ["settings.db", "settings.db.backup"], [camera.path(FOLDER)]
    wait_until(lambda: camera.files.names(FOLDER) == names, 30, "the database is closed", folder)
    for name in names:
        camera.files.remove(f"{FOLDER}/{name}")
    assert camera.api_set_text('{"[NIC/eth0]MTU": 1300}') == SUCCESS
    assert stored(camera) == {**STORED_BY_START, "NIC.eth0.MTU": 1300, "RTSP.Enabled": False}


def test_a_database_that_is_missing_at_a_start_is_replaced_by_the_copy(
    make_camera: MakeCamera,
) -> None:
    camera = end_with_settings(make_camera)
    camera.files.remove(DATABASE)
    assert start(camera) == ["READY=1"]
    assert errors(camera) == [RESTORED]
    assert camera.get("[NIC/eth0]MTU") == 1400
    assert camera.addresses(4) == ["192.0.2.12/24"]


def test_a_damaged_database_on_a_full_disk_does_not_stop_the_daemon(
    make_camera: MakeCamera,
) -> None:
    camera = end_with_settings(make_camera)
    change(camera, DATABASE, flip_header)
    camera.fill_store()
    assert start(camera) == ["READY=1"]
    assert errors(camera)[:2] == [damage_line("file is not a database"), RESTORED]
    assert camera.get("[NIC/eth0]MTU") == camera.link()["mtu"] == 1400
    camera.empty_store()
    assert camera.api_set_text('{"[NIC/eth0]MTU": 1300}') == SUCCESS
    assert camera.stop_daemon() == 0
    assert stored(camera) == {**LINK_MODES, "NIC.eth0.MTU": 1300, "RTSP.Enabled": False}


def test_a_damaged_database_on_a_read_only_disk_does_not_stop_the_daemon(
    make_camera: MakeCamera,
) -> None:
    camera = end_with_settings(make_camera)
    change(camera, DATABASE, flip_header)
    camera.set_store_read_only()
    assert start(camera) == ["READY=1"]
    assert camera.get("[NIC/eth0]MTU") == camera.link()["mtu"] == 1400
    camera.set_store_read_only(False)
    assert camera.api_set_text('{"[NIC/eth0]MTU": 1300}') == SUCCESS
    assert camera.stop_daemon() == 0
    assert stored(camera)["NIC.eth0.MTU"] == 1300


def test_two_damages_are_both_set_aside(make_camera: MakeCamera) -> None:
    camera = end_with_settings(make_camera)
    for content in ("first", "second"):
        camera.write_file(DATABASE, content)
        assert start(camera) == ["READY=1"]
        assert camera.stop_daemon() == 0
    aside = [name for name in camera.files.names(FOLDER) if ".damaged-" in name]
    assert sorted(camera.read_file(f"{FOLDER}/{name}") for name in aside) == ["first", "second"]
