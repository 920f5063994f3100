"""Address probes that cannot be made, that find no end, or whose address is none."""

from __future__ import annotations

import pytest
from expectations import (
    ALIAS_DOWN,
    addresses_without_lease,
    boot_commands,
    ipv4_of_kernel,
    ipv4_step,
    labelled,
    probe,
    start,
    start_with_free_addresses,
)
from stored_settings import STORED_BY_START, plant, stored, stored_link_local

from camlab import Camera, Command

pytestmark = pytest.mark.quiet


@pytest.mark.parametrize("status", [126, 127])
def test_without_a_prober_addresses_are_taken_unprobed(camera: Camera, status: int) -> None:
    camera.files.remove("/usr/sbin/arping")
    if status == 126:
        camera.write_file("/usr/sbin/arping", "", mode=0o644)
    assert start(camera) == ["READY=1"]
    link_local = stored_link_local(camera)
    assert camera.commands() == boot_commands(
        [
            Command(f"/usr/sbin/arping -D -c2 {link_local}", status),
            Command("/usr/sbin/arping -D -c2 192.168.0.20", status),
            *addresses_without_lease(link_local, "192.168.0.20"),
        ]
    )
    errors = [line for line in ipv4_step(camera) if line.startswith("<3>")]
    assert errors == [
        f"<3>probe_ipv4_address: Can't probe {link_local}, arping returned {status}",
        f"<3>probe_ipv4_address: Can't probe 192.168.0.20, arping returned {status}",
    ]
    assert ipv4_of_kernel(camera) == [
        labelled(f"{link_local}/16"),
        labelled("192.168.0.20/24", "eth0:1"),
    ]


def test_without_a_prober_remembered_addresses_stay(camera: Camera) -> None:
    start_with_free_addresses(camera)
    link_local = stored_link_local(camera)
    camera.kill_daemon()
    camera.rule("/usr/sbin/arping *", status=127)
    assert start(camera) == ["READY=1"]
    assert camera.commands() == boot_commands(
        [
            Command(f"/usr/sbin/arping -D -c2 {link_local}", 127),
            Command("/usr/sbin/arping -D -c2 192.168.0.20", 127),
            *addresses_without_lease(link_local, "192.168.0.20"),
        ],
        again=True,
    )
    assert stored_link_local(camera) == link_local


# Values that are not addresses


@pytest.mark.parametrize("text", ['"-I"', '"169.254.1.1; reboot"', "7", '""'])
def test_a_remembered_value_that_is_no_address_is_replaced(camera: Camera, text: str) -> None:
    plant(camera, {"IPv4.LocalLink.Address": text, "IPv4.VeskoConf.Address": text})
    start_with_free_addresses(camera)
    link_local = stored_link_local(camera)
    assert camera.commands() == boot_commands(
        [
            probe(link_local),
            probe("192.168.0.20"),
            *addresses_without_lease(link_local, "192.168.0.20"),
        ]
    )
    assert stored(camera)["IPv4.VeskoConf.Address"] == "192.168.0.20"


def test_a_drawing_without_end_ends_with_the_daemon(camera: Camera) -> None:
    camera.rule("/usr/sbin/arping *", status=1)
    camera.start_daemon()
    camera.recorder.wait_for("/usr/sbin/arping *", count=10)
    assert camera.stop_daemon() == 0
    assert [command.text for command in camera.commands() if "ifconfig" in command.text] == []
    assert ALIAS_DOWN not in [command.text for command in camera.commands()]
    assert stored(camera) == STORED_BY_START
