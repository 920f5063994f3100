"""The daemon's start, its signals and its end."""

from __future__ import annotations

import os
import signal
from collections.abc import Callable

import pytest
from expectations import (
    MANUAL_ADDRESS,
    MANUAL_BOOT,
    MANUAL_IPV4,
    STOP_CLIENTS,
    SUCCESS,
    answer,
    lines_of_level,
    masked,
    start,
    start_manual,
)
from jeepney import DBusAddress, HeaderFields, MessageType, new_method_call
from jeepney.bus_messages import message_bus

from camlab import Camera

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

NAME = "com.vesko.networkingV2"
# What the end of the daemon logs of the DHCP clients.
STOPPING_CLIENTS = [
    "<6>stop_any_dhcpv4: Stopping any running DHCPv4 client",
    f"<7>stop_any_dhcpv4:LINE: Received code 1 on '{STOP_CLIENTS[0].text}'",
    "<6>stop_any_dhcpv6: Stopping any running DHCPv6 client",
    f"<7>stop_any_dhcpv6:LINE: Received code 1 on '{STOP_CLIENTS[1].text}'",
]
SIGNAL_LINE = "Quarn (Networking Configuration) - Received signal {}\n"


def child_of_daemon(camera: Camera) -> int:
    """The process id of the one command that the daemon waits for."""
    process = camera.daemon.process.pid
    with open(f"/proc/{process}/task/{process}/children", encoding="ascii") as file:
        [child] = file.read().split()
    return int(child)


# The start


def test_a_start_reports_ready_once_and_writes_nothing_on_standard_output(
    make_camera: MakeCamera,
) -> None:
    camera = start_manual(make_camera)
    assert camera.api_get([]) == {"success": True, "errors": []}
    assert camera.notifications() == ["READY=1"]
    assert camera.stdout() == ""


def test_a_failed_start_up_apply_is_reported_before_ready(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    camera.rule("ip link set eth0 up", status=1)
    assert start(camera) == ["ERRNO=5", "READY=1"]
    assert lines_of_level(camera.log_lines(), 2, 3) == [
        "<3>link_eth0_up: System call 'ip link set eth0 up' returned 1",
        "<2>serve:LINE: Failure in trying to apply all settings on startup",
    ]
    assert camera.get("[IPv4/Actual]Address") == MANUAL_ADDRESS


def test_without_a_bus_the_daemon_ends_in_order_and_touches_nothing(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(bus=False)
    camera.start_daemon(QUARN_LOG_LEVEL="debug")
    assert camera.wait_daemon() == 0
    assert camera.notifications() == ["ERRNO=5"]
    assert masked(camera.log_lines()) == [
        "<3>msgbus_connect: no place on the message bus: No such file or directory",
        "<2>main:LINE: Could not connect to message bus.",
    ]
    assert camera.commands() == []
    assert camera.files.names("/var/lib/quarn") == []


def test_a_bus_name_that_is_taken_counts_as_no_bus(camera: Camera) -> None:
    with camera.system_bus.connect() as owner:
        owner.send_and_get_reply(message_bus.RequestName(NAME), timeout=10)
        camera.start_daemon(QUARN_LOG_LEVEL="debug")
        assert camera.wait_daemon() == 0
    assert camera.notifications() == ["ERRNO=5"]
    assert masked(camera.log_lines()) == [
        "<3>msgbus_connect: no place on the message bus: File exists",
        "<2>main:LINE: Could not connect to message bus.",
    ]
    assert camera.commands() == []


def test_requests_that_come_during_the_start_are_answered_in_order_after_it(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    hung = camera.hang("ip link set eth0 up")
    camera.start_daemon()
    camera.recorder.wait_for("ip link set eth0 up", finished=False)
    keys = ["[NIC/eth0]MTU", "[IPv4/Actual]Address", "[Settings]Apply"]
    daemon = DBusAddress("/com/vesko/networkingV2", NAME, NAME)
    with camera.system_bus.connect() as bus:
        for key in keys:
            text = f'{{"settings": ["{key}"]}}'
            bus.send(
                new_method_call(daemon, "api_get", "s", (text,)), serial=1000 + keys.index(key)
            )
        # Whatever was sent before this call has reached the bus when it is answered.
        bus.send_and_get_reply(message_bus.GetNameOwner(NAME), timeout=10)
        assert camera.notifications() == []
        hung.release()
        answers = [bus.receive(timeout=30) for _ in keys]
    assert [
        (reply.header.fields[HeaderFields.reply_serial], reply.body[0]) for reply in answers
    ] == [
        (1000, answer(success=True, **{"[NIC/eth0]MTU": 1500})),
        (1001, answer(success=True, **{"[IPv4/Actual]Address": MANUAL_ADDRESS})),
        (1002, answer(success=True, **{"[Settings]Apply": True})),
    ]


def test_commands_get_a_fixed_environment(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    hung = camera.hang("ip link set eth0 up")
    camera.start_daemon(PATH="/elsewhere", QUARN_LOG_LEVEL="warning", IFS="x", ENV="/tmp/env")
    camera.recorder.wait_for("ip link set eth0 up", finished=False)
    with open(f"/proc/{child_of_daemon(camera)}/environ", encoding="ascii") as file:
        variables = sorted(file.read().split("\0")[:-1])
    with open(f"/proc/{camera.daemon.process.pid}/status", encoding="ascii") as file:
        [umask] = [line for line in file if line.startswith("Umask:")]
    hung.release()
    assert variables == [
        "CAMLAB_RECORD=1",
        "NOTIFY_SOCKET=/.camlab/notify",
        "PATH=/usr/sbin:/usr/bin:/sbin:/bin",
        "QUARN_LOG_LEVEL=warning",
        "RES_OPTIONS=timeout:1 attempts:2",
    ]
    assert umask == "Umask:\t0022\n"


# The end


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGABRT])
def test_a_terminating_signal_ends_the_daemon_in_order(
    make_camera: MakeCamera, number: signal.Signals
) -> None:
    camera = start_manual(make_camera)
    logged = len(camera.log_lines())
    assert camera.commands() == MANUAL_BOOT
    assert camera.stop_daemon(number) == 0
    assert camera.stdout() == SIGNAL_LINE.format(int(number))
    assert masked(camera.log_lines()[logged:]) == STOPPING_CLIENTS
    assert camera.notifications() == ["READY=1"]
    assert camera.commands() == MANUAL_BOOT + STOP_CLIENTS


def test_a_bus_that_goes_away_ends_the_daemon_in_order(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    logged = len(camera.log_lines())
    camera.stop_bus()
    assert camera.wait_daemon() == 0
    assert masked(camera.log_lines()[logged:]) == [
        "<3>dispatch_source: the message bus has gone away: Connection reset by peer",
        *STOPPING_CLIENTS,
    ]
    assert camera.stdout() == ""


def test_a_daemon_that_lost_its_bus_serves_again_when_it_is_started_again(
    make_camera: MakeCamera,
) -> None:
    camera = start_manual(make_camera)
    assert camera.api_set_text('{"[NIC/eth0]MTU": 1400}') == SUCCESS
    camera.stop_bus()
    assert camera.wait_daemon() == 0
    camera.start_bus()
    assert start(camera) == ["READY=1"]
    assert camera.get("[NIC/eth0]MTU") == 1400
    assert camera.link()["mtu"] == 1400


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_signal_ends_the_search_for_an_address_that_every_peer_has(
    camera: Camera, number: signal.Signals
) -> None:
    camera.rule("/usr/sbin/arping *", status=1)
    camera.start_daemon()
    camera.recorder.wait_for("/usr/sbin/arping *", count=20)
    assert camera.stop_daemon(number) == 0
    assert camera.stdout() == SIGNAL_LINE.format(int(number))
    assert camera.notifications() == ["ERRNO=5", "READY=1"]
    assert camera.addresses(family=4) == []


def test_a_signal_during_a_probe_ends_the_daemon_when_the_probe_ends(camera: Camera) -> None:
    hung = camera.hang("/usr/sbin/arping *", status=1)
    camera.start_daemon()
    camera.recorder.wait_for("/usr/sbin/arping *", finished=False)
    camera.daemon.process.send_signal(signal.SIGTERM)
    hung.release()
    assert camera.wait_daemon() == 0
    probes = [command for command in camera.commands() if "arping" in command.text]
    assert [probe.status for probe in probes] == [1]
    assert camera.addresses(family=4) == []


def test_a_signal_during_a_real_probe_ends_the_daemon_without_another_one(camera: Camera) -> None:
    camera.start_daemon()
    camera.recorder.wait_for("/usr/sbin/arping *", finished=False)
    assert camera.stop_daemon() == 0
    probes = [command for command in camera.commands() if "arping" in command.text]
    assert len(probes) == 1
    assert camera.addresses(family=4) == []


def test_a_supervisor_that_ends_the_whole_group_ends_a_probe_that_hangs(camera: Camera) -> None:
    camera.hang("/usr/sbin/arping *")
    camera.start_daemon()
    camera.recorder.wait_for("/usr/sbin/arping *", finished=False)
    probe = child_of_daemon(camera)
    camera.daemon.process.send_signal(signal.SIGTERM)
    os.kill(probe, signal.SIGTERM)
    assert camera.wait_daemon() == 0
    assert camera.addresses(family=4) == []


def test_what_the_daemon_was_asked_before_the_signal_is_done(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    hung = camera.hang("/sbin/ip link set eth0 mtu 1400")
    daemon = DBusAddress("/com/vesko/networkingV2", NAME, NAME)
    with camera.system_bus.connect() as bus:
        bus.send(new_method_call(daemon, "api_set", "s", ('{"[NIC/eth0]MTU": 1400}',)), serial=1000)
        camera.recorder.wait_for("/sbin/ip link set eth0 mtu 1400", finished=False)
        camera.daemon.process.send_signal(signal.SIGTERM)
        hung.release()
        while (message := bus.receive(timeout=30)).header.message_type == MessageType.signal:
            pass
    assert message.header.fields[HeaderFields.reply_serial] == 1000
    assert message.body == (SUCCESS,)
    assert camera.wait_daemon() == 0
    assert camera.link()["mtu"] == 1400
