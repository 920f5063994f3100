"""A boot environment that cannot be read or written, or that is not there."""

from __future__ import annotations

from collections.abc import Callable

import pytest
from expectations import (
    APPLYING_IPV4,
    MANUAL_IPV4,
    MULTICAST_ROUTE,
    NO_ALIAS,
    SUCCESS,
    compact,
    done,
    ifconfig,
    lines_of_level,
    set_settings,
    start,
    start_manual,
)
from stored_settings import STORED_BY_START, VARIABLES_OF_START, stored

from camlab import Camera
from camlab.boot_environment import SIZE
from camlab.namespaces import MS_BIND, MS_RDONLY, MS_REMOUNT

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

ADDRESS = "[IPv4/Manual]Address"
RECORD = "00005e005301" "c000020b" "ffffff00" "c0000201"
NOT_SET = "<3>save_bootenv_var: Could not set boot environment"


def not_readable(result: int) -> str:
    return "<3>open_uboot: the boot environment of /etc/fw_env.config cannot be read: " f"{result}"


DAMAGES: dict[str, tuple[Callable[[Camera], None], int]] = {
    "bad checksum": (lambda camera: camera.bootenv.corrupt(), -61),
    "cut off": (lambda camera: camera.bootenv.truncate(100), -5),
    "empty": (lambda camera: camera.bootenv.truncate(0), -5),
    "missing": (lambda camera: camera.bootenv.remove(), -22),
}


def content(camera: Camera) -> bytes | None:
    """The environment's file, or None where there is none."""
    return camera.bootenv.content() if camera.files.exists("/boot/uboot.env") else None


@pytest.mark.parametrize(("damage", "result"), DAMAGES.values(), ids=DAMAGES.keys())
def test_an_environment_that_cannot_be_read_is_logged_and_the_defaults_stand(
    make_camera: MakeCamera, damage: Callable[[Camera], None], result: int
) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    damage(camera)
    before = content(camera)
    camera.rule("/usr/sbin/arping *", status=0)
    assert start(camera) == ["READY=1"]
    # IPv6, the host name, DHCP, link-local and the manual IPv6 addresses are read at a start; the
    # host name is written.
    assert lines_of_level(camera.log_lines(), 2, 3) == [
        *[not_readable(result)] * 3,
        NOT_SET,
        "<3>set_json_value: JSON key [Hostname]Name fails ave_func",
        *[not_readable(result)] * 3,
    ]
    assert camera.get("[IPv4/DHCP]Enabled") is True
    assert "192.168.0.20/24" in camera.addresses(4)
    assert content(camera) == before


@pytest.mark.parametrize(("damage", "result"), DAMAGES.values(), ids=DAMAGES.keys())
def test_an_environment_that_cannot_be_read_is_never_written(
    make_camera: MakeCamera, damage: Callable[[Camera], None], result: int
) -> None:
    camera = start_manual(make_camera)
    damage(camera)
    before = content(camera)
    outcome = set_settings(camera, {ADDRESS: "192.0.2.11"})
    assert outcome == (
        SUCCESS,
        [],
        [
            f"<7>api_set:LINE: Saving setting '{ADDRESS}'",
            not_readable(result),
            NOT_SET,
            f"<7>api_set:LINE: {ADDRESS} was not changed.  Will not reapply.",
            "<7>apply_settings:LINE: Apply Flags: 0x00000000 (restart=1)",
            "<7>api_set:LINE: Finished with SET command",
        ],
    )
    assert content(camera) == before
    assert camera.get(ADDRESS) == "192.0.2.11"
    assert stored(camera) == {**STORED_BY_START, "IPv4.Manual.Address": "192.0.2.11"}


def test_a_failed_write_counts_as_a_change_until_it_succeeds(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    camera.bootenv.corrupt()
    for _ in range(2):
        outcome = set_settings(camera, {ADDRESS: "192.0.2.11"})
        assert lines_of_level(outcome.log, 3) == [not_readable(-61), NOT_SET]
        assert outcome.commands == []
    camera.bootenv.create(MANUAL_IPV4)
    outcome = set_settings(camera, {ADDRESS: "192.0.2.11"})
    assert (outcome.response, lines_of_level(outcome.log, 3)) == (SUCCESS, [])
    assert APPLYING_IPV4 in outcome.log
    assert outcome.commands == [NO_ALIAS, ifconfig("192.0.2.11/24"), *done(MULTICAST_ROUTE)]
    assert camera.bootenv.variables() == {**MANUAL_IPV4, "netdev0": RECORD}
    outcome = set_settings(camera, {ADDRESS: "192.0.2.11"})
    assert f"<7>save_bootenv_var:LINE: {ADDRESS} is not being changed" in outcome.log


@pytest.mark.parametrize("copy", [0, 1])
def test_a_redundant_environment_is_read_and_written_with_one_copy_damaged(
    make_camera: MakeCamera, copy: int
) -> None:
    camera = make_camera(variables=MANUAL_IPV4, boot_environment="redundant")
    camera.bootenv.corrupt(copy)
    assert start(camera) == ["READY=1"]
    assert camera.addresses(4) == ["192.0.2.10/24"]
    assert camera.api_set_text(compact({ADDRESS: "192.0.2.11"})) == SUCCESS
    assert camera.bootenv.variables() == {
        **MANUAL_IPV4,
        **VARIABLES_OF_START,
        "netdev0": RECORD,
    }
    assert camera.run(["fw_printenv", "netdev0"]).stdout == f"netdev0={RECORD}\n"


def test_a_redundant_environment_with_both_copies_damaged_is_never_written(
    make_camera: MakeCamera,
) -> None:
    camera = start_manual(make_camera, boot_environment="redundant")
    for copy in (0, 1):
        camera.bootenv.corrupt(copy)
    before = [camera.bootenv.content(copy) for copy in (0, 1)]
    outcome = set_settings(camera, {ADDRESS: "192.0.2.11"})
    assert lines_of_level(outcome.log, 3) == [not_readable(-61), NOT_SET]
    assert [camera.bootenv.content(copy) for copy in (0, 1)] == before


def test_an_environment_without_room_keeps_what_it_has(make_camera: MakeCamera) -> None:
    room = SIZE - 4 - sum(len(f"{name}={text}") + 1 for name, text in MANUAL_IPV4.items()) - 1
    variables = {**MANUAL_IPV4, "filler": "x" * (room - len("filler=") - 1 - 20)}
    camera = start_manual(make_camera, variables=variables)
    before = camera.bootenv.content()
    outcome = set_settings(camera, {"[IPv6/Manual]Addresses": ["2001:db8::1/64"]})
    assert lines_of_level(outcome.log, 3) == [
        "<3>write_uboot: the boot environment has no room for this",
        NOT_SET,
    ]
    assert camera.bootenv.content() == before
    # A change that needs no more room is still taken.
    assert camera.api_set_text(compact({ADDRESS: "192.0.2.11"})) == SUCCESS
    assert camera.bootenv.variables() == {**variables, "netdev0": RECORD}


def test_an_environment_that_cannot_be_written_keeps_what_it_has(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    camera.mount("/boot", "/boot", flags=MS_BIND)
    camera.mount("", "/boot", flags=MS_BIND | MS_REMOUNT | MS_RDONLY)
    before = camera.bootenv.content()
    outcome = set_settings(camera, {ADDRESS: "192.0.2.11"})
    assert outcome.response == SUCCESS
    assert lines_of_level(outcome.log, 3)[-1] == NOT_SET
    assert outcome.commands == []
    assert camera.bootenv.content() == before


def test_another_program_that_holds_the_environments_lock_does_not_stop_the_daemon(
    make_camera: MakeCamera,
) -> None:
    camera = start_manual(make_camera)
    lock = "/var/lock/fw_printenv.lock"
    camera.write_file(lock, "")
    holder = camera.start(
        ["flock", "--no-fork", lock, "sh", "-c", "echo locked; exec sleep infinity"]
    )
    camera.wait_until(lambda: holder.stdout == "locked\n", "the environment is locked")
    outcome = set_settings(camera, {ADDRESS: "192.0.2.11"})
    assert outcome.response == SUCCESS
    assert lines_of_level(outcome.log, 3) == [
        "<3>open_uboot: the boot environment is locked by another program",
        NOT_SET,
    ]
    assert camera.bootenv.variables() == {**MANUAL_IPV4, **VARIABLES_OF_START}
    holder.stop()
    assert camera.api_set_text(compact({ADDRESS: "192.0.2.11"})) == SUCCESS
    assert camera.bootenv.variables() == {
        **MANUAL_IPV4,
        **VARIABLES_OF_START,
        "netdev0": RECORD,
    }


# Without a boot environment


def test_without_a_boot_environment_a_file_beside_the_store_takes_its_place(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(boot_environment=None)
    camera.rule("/usr/sbin/arping *", status=0)
    assert start(camera) == ["READY=1"]
    request = {
        "[IPv4/DHCP]Enabled": False,
        ADDRESS: "192.0.2.11",
        "[IPv4/Manual]Netmask": 24,
        "[IPv6/Manual]Addresses": ["2001:db8::1/64", "2001:db8::2/64"],
    }
    assert camera.api_set_text(compact(request)) == SUCCESS
    assert camera.read_file("/var/lib/quarn/boot-environment.conf") == (
        "[boot_environment]\n"
        "vesko_hostname=Corvy-0000000\n"
        "vesko_ipv4_dhcp_enable=0\n"
        "netdev0=000000000000c000020b0000000000000000\n"
        "vesko_ipv6_addresses=2001:db8::1/64 2001:db8::2/64\n"
    )
    camera.reboot()
    camera.files.remove("/var/lib/quarn/settings.db")
    assert start(camera) == ["READY=1"]
    assert {key: camera.get(key) for key in request} == request
    assert camera.addresses(4) == ["192.0.2.11/24"]


def test_a_key_file_that_cannot_be_read_is_never_written(make_camera: MakeCamera) -> None:
    path = "/var/lib/quarn/boot-environment.conf"
    camera = make_camera(boot_environment=None)
    camera.write_file(path, "[boot_environment\n")
    camera.rule("/usr/sbin/arping *", status=0)
    assert start(camera, QUARN_LOG_LEVEL="notice") == ["READY=1"]
    outcome = set_settings(camera, {ADDRESS: "192.0.2.11"})
    assert outcome.response == SUCCESS
    assert lines_of_level(outcome.log, 3)[-1] == NOT_SET
    assert camera.read_file(path) == "[boot_environment\n"
