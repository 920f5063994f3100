"""What the settings store keeps, through restarts, kills and reboots."""

from __future__ import annotations

import signal
import threading
from collections.abc import Callable

import pytest
from expectations import (
    MANUAL_IPV4,
    SUCCESS,
    compact,
    lines_of_level,
    set_settings,
    start,
    start_manual,
)
from stored_settings import STORED_BY_START, stored

from camlab import BusError, Camera, Client, wait_until

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

FOLDER = "/var/lib/quarn"
FIRST = "[TrafficShaping]Rtp/BurstPercent"
SECOND = "[TrafficShaping]Rtp/CeilPercent"
NOT_APPLIED = {"[Settings]Apply": False}

# One value of each kind, in rows of the store.
CHANGED = {
    "[IPv6/Stateful]UseAddress": False,
    "[NIC/eth0]MTU": 1400,
    "[NTP]Enabled": False,
    "[DNS]Enabled": False,
    "[TrafficShaping]BurstSize": 20480,
    "[IPv6/Manual]Gateways": ["fe80::1"],
}


def end_in_order(camera: Camera) -> None:
    assert camera.stop_daemon() == 0


def kill(camera: Camera) -> None:
    assert camera.kill_daemon() == -signal.SIGKILL


def settle(camera: Camera) -> None:
    """Wait until the idle daemon has closed its database."""
    folder = [camera.path(FOLDER)]
    names = ["settings.db", "settings.db.backup"]
    wait_until(lambda: camera.files.names(FOLDER) == names, 30, "the database is closed", folder)


def kill_when_idle(camera: Camera) -> None:
    settle(camera)
    kill(camera)


def kill_while_it_closes(camera: Camera) -> None:
    """Kill the daemon as soon as it has begun to close its database."""
    folder = [camera.path(FOLDER)]
    wait_until(
        lambda: "settings.db-wal" not in camera.files.names(FOLDER),
        *(30, "the database is being closed", folder),
    )
    kill(camera)


ENDS: dict[str, Callable[[Camera], None]] = {
    "an ordered end": end_in_order,
    "a kill": kill,
    "a kill while the database is being closed": kill_while_it_closes,
    "a kill of the idle daemon": kill_when_idle,
    "a power cut": lambda camera: camera.reboot(),
}


@pytest.mark.parametrize("end", ENDS.values(), ids=ENDS.keys())
def test_stored_values_are_there_after_the_daemons_end(
    make_camera: MakeCamera, end: Callable[[Camera], None]
) -> None:
    camera = start_manual(make_camera)
    assert camera.api_set_text(compact(CHANGED)) == SUCCESS
    end(camera)
    assert start(camera) == ["READY=1"]
    assert {key: camera.get(key) for key in CHANGED} == CHANGED
    assert camera.link()["mtu"] == 1400


def test_held_values_are_gone_after_a_restart(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    held = {
        "[IPv4/DHCP]Address": "192.0.2.50",
        "[IPv4/DHCP]Netmask": 16,
        "[IPv6/Stateful]Addresses": ["2001:db8::50/64"],
        "[Settings]Apply": False,
    }
    assert camera.api_set_text(compact(held)) == SUCCESS
    assert {key: camera.get(key) for key in held} == held
    assert stored(camera) == STORED_BY_START
    assert camera.stop_daemon() == 0
    assert start(camera) == ["READY=1"]
    assert {key: camera.get(key) for key in held} == {
        "[IPv4/DHCP]Address": None,
        "[IPv4/DHCP]Netmask": None,
        "[IPv6/Stateful]Addresses": [],
        "[Settings]Apply": True,
    }


def test_a_value_that_is_saved_twice_is_stored_once(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    assert camera.api_set_text('{"[NIC/eth0]MTU": 1400}') == SUCCESS
    outcome = set_settings(camera, {"[NIC/eth0]MTU": 1400})
    assert outcome == (
        SUCCESS,
        [],
        [
            "<7>api_set:LINE: Saving setting '[NIC/eth0]MTU'",
            "<7>save_or_hold_setting:LINE: The setting [NIC/eth0]MTU is not being changed",
            "<7>api_set:LINE: [NIC/eth0]MTU was not changed.  Will not reapply.",
            "<7>apply_settings:LINE: Apply Flags: 0x00000000 (restart=1)",
            "<7>api_set:LINE: Finished with SET command",
        ],
    )


def test_a_set_back_to_the_default_is_stored_too(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    for value in (1400, 1500):
        assert camera.api_set_text(compact({"[NIC/eth0]MTU": value})) == SUCCESS
    assert stored(camera) == {**STORED_BY_START, "NIC.eth0.MTU": 1500}


def test_the_folder_of_the_store_is_for_the_daemon_alone(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    camera.run(["mkdir", "/srv/state"], check=True)
    start(camera, STATE_DIRECTORY="/srv/state/quarn")
    assert camera.api_set_text('{"[NIC/eth0]MTU": 1400}') == SUCCESS
    assert camera.stop_daemon() == 0
    assert camera.files.names(FOLDER) == []
    assert camera.files.names("/srv/state/quarn") == ["settings.db", "settings.db.backup"]
    modes = [
        camera.files.stat(f"/srv/state/{name}").st_mode & 0o777
        for name in ("quarn", "quarn/settings.db", "quarn/settings.db.backup")
    ]
    assert modes == [0o700, 0o600, 0o600]


def test_an_idle_daemon_has_emptied_its_log_and_kept_a_copy(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    assert camera.api_set_text('{"[NIC/eth0]MTU": 1400}') == SUCCESS
    settle(camera)
    kill(camera)
    camera.files.remove(f"{FOLDER}/settings.db")
    camera.run(["mv", f"{FOLDER}/settings.db.backup", f"{FOLDER}/settings.db"], check=True)
    assert stored(camera) == {**STORED_BY_START, "NIC.eth0.MTU": 1400}


class Stream(threading.Thread):
    """Sets two settings to the same number, again and again, until nobody answers.

    They are saved and not applied, so that the kill comes upon the store at work.
    """

    def __init__(self, camera: Camera, first: int) -> None:
        super().__init__()
        self._client = Client(camera.system_bus)
        self._next = first
        self.answered = first - 1
        self.responses: set[str] = set()
        self._some_answered = threading.Condition()

    def run(self) -> None:
        try:
            while True:
                value = self._next % 100
                response = self._client.set({FIRST: value, SECOND: value, **NOT_APPLIED})
                self.responses.add(compact(response))
                with self._some_answered:
                    self.answered = self._next
                    self._some_answered.notify()
                self._next += 1
        except BusError:
            pass  # the daemon was killed
        finally:
            self._client.close()

    def wait_for(self, count: int, first: int) -> None:
        """Wait until so many requests since the first have been answered."""
        with self._some_answered:
            assert self._some_answered.wait_for(lambda: self.answered >= first + count - 1, 30)


def test_a_kill_at_any_moment_loses_nothing_that_was_answered_and_splits_no_request(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    assert start(camera) == ["READY=1"]
    next_value = 1
    for count in (1, 2, 3, 5, 8, 13, 1, 21, 4, 34):
        stream = Stream(camera, next_value)
        stream.start()
        stream.wait_for(count, next_value)
        kill(camera)
        stream.join()
        assert stream.responses == {SUCCESS}
        assert start(camera) == ["READY=1"]
        assert lines_of_level(camera.log_lines(), 2, 3) == []
        # The request on its way may be there or not, but it is whole.
        pair = (camera.get(FIRST), camera.get(SECOND))
        assert pair in [(n % 100, n % 100) for n in (stream.answered, stream.answered + 1)]
        next_value = stream.answered + 2
