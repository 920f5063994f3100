"""Changes on trial as systemd runs their guard, in its sandbox."""

from __future__ import annotations

import json

import pytest
from conftest import get, journal, show
from container import Container, wait_until

MTU = "[NIC/eth0]MTU"
RECORDS = "/var/lib/quarnctl"


def wait_for_guard(machine: Container, state: str) -> None:
    """Wait until the guard's service is in a state."""
    wait_until(
        lambda: show(machine, "quarnctl-guard.service", "ActiveState")["ActiveState"] == state,
        30,
        f"the guard is {state}",
    )


def try_change(machine: Container, value: int, seconds: int, user: str | None = None) -> None:
    """Set the MTU on trial."""
    words = ("quarnctl", "set", f"--confirm={seconds}", f"{MTU}={value}")
    machine.run(*words, user=user)
    assert get(machine, MTU) == value


@pytest.fixture(scope="module")
def member(machine: Container) -> str:
    """Return a user who is a member of the group that may call the daemon."""
    machine.run("useradd", "--groups=quarn", "installer")
    return "installer"


def test_the_guard_waits_for_its_first_record(machine: Container) -> None:
    assert show(machine, "quarnctl-guard.path", "ActiveState", "SubState", "UnitFileState") == {
        "ActiveState": "active",
        "SubState": "waiting",
        "UnitFileState": "enabled",
    }
    assert show(machine, "quarnctl-guard.service", "ActiveState") == {"ActiveState": "inactive"}
    assert machine.output("stat", "--format=%A %U %G", RECORDS) == "drwxrws--- root quarn"


def test_a_change_without_a_confirm_is_taken_back(machine: Container) -> None:
    try_change(machine, 1400, seconds=1)
    wait_for_guard(machine, "inactive")
    assert get(machine, MTU) == 1500
    entries = journal(machine, "_SYSTEMD_UNIT=quarnctl-guard.service")
    assert [(entry["MESSAGE"], entry["PRIORITY"]) for entry in entries[-2:]] == [
        ("no confirm came: taking the change back", "5"),
        ("the change is taken back", "5"),
    ]


def test_a_confirmed_change_stays_and_the_guard_ends(machine: Container) -> None:
    try_change(machine, 1400, seconds=600)
    wait_for_guard(machine, "active")
    machine.run("quarnctl", "confirm")
    wait_for_guard(machine, "inactive")
    assert get(machine, MTU) == 1400
    machine.run("quarnctl", "reset", MTU)


def test_a_member_of_the_group_may_try_a_change(machine: Container, member: str) -> None:
    try_change(machine, 1400, seconds=600, user=member)
    assert machine.run("quarnctl", "rollback", user=member).stdout == "the change is taken back\n"
    assert get(machine, MTU) == 1500


def test_a_guard_that_is_killed_is_started_again(machine: Container) -> None:
    try_change(machine, 1400, seconds=5)
    machine.run("systemctl", "kill", "--signal=KILL", "quarnctl-guard.service")
    wait_until(lambda: get(machine, MTU) == 1500, 60, "the change is taken back")


def test_one_change_after_the_other_is_watched(machine: Container) -> None:
    """More of them than systemd starts a unit in a row, left to itself."""
    for value in range(1300, 1330):
        try_change(machine, value, seconds=600)
        machine.run("quarnctl", "confirm")
    try_change(machine, 1400, seconds=1)
    wait_until(lambda: get(machine, MTU) == 1329, 60, "the last change is taken back")
    machine.run("quarnctl", "reset", MTU)


def test_a_record_of_an_earlier_boot_is_restored_when_the_path_unit_starts(
    machine: Container,
) -> None:
    """The container's kernel is its host's, so the guard is told of another one."""
    machine.run("systemctl", "stop", "quarnctl-guard.path")
    uptime = int(float(machine.output("cat", "/proc/uptime").split()[0]) * 1000)
    record = {"id": "1", "milliseconds": 600000, "deadline": uptime + 500000}
    watched = {"id": "1", "boot_id": "another"}
    machine.run("tee", f"{RECORDS}/watched.json", text=json.dumps(watched))
    restore = {**record, "restore": {MTU: 1450}}
    machine.run("tee", f"{RECORDS}/pending.json", text=json.dumps(restore))
    machine.run("systemctl", "start", "quarnctl-guard.path")
    wait_until(lambda: get(machine, MTU) == 1450, 30, "the old value is back")
    wait_for_guard(machine, "inactive")


def test_the_sandbox_of_the_guard_is_closed(machine: Container) -> None:
    """It needs its records and the bus."""
    words = ("systemd-analyze", "security", "--offline=yes", "quarnctl-guard.service")
    verdict = machine.output(*words).splitlines()[-1]
    assert float(verdict.split(":")[1].split()[0]) <= 1.0
