"""The shaping of what eth0 sends: the kernel's tree, and the rates that the LAN measures."""

from __future__ import annotations

import json
import re
import socket
from collections.abc import Callable
from typing import Any

import pytest
from expectations import (
    APPLY_ERROR,
    MANUAL_BOOT,
    MANUAL_IPV4,
    NOT_SHAPED,
    SHAPED,
    SHAPING,
    SUCCESS,
    Outcome,
    answer,
    done,
    error,
    lines_of_level,
    refusal,
    set_settings,
    shaping_ports,
    start,
)
from stored_settings import plant, stored

from camlab import Camera, Command, Process

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

ENABLED = "[TrafficShaping]Enabled"
AVERAGE_RATE = "[TrafficShaping]AvgRateLimit"
BURST_SIZE = "[TrafficShaping]BurstSize"
LOW_LATENCY_RATE = "[TrafficShaping]LowLatency/Rate"
MISC_CEIL = "[TrafficShaping]Misc/CeilPercent"
MINIMUM_RATE = "[TrafficShaping]MinAvgRateLimit"
LAN = "192.0.2.1"
MEDIA, LOW_LATENCY, BULK, DEFAULT = 2, 3, 4, 5

CLASSES = """\
class htb 1:1 root rate 80Mbit ceil 80Mbit burst 10Kb cburst 1600b
class htb 1:2 parent 1:1 prio 4 rate 79500Kbit ceil 80Mbit burst 10Kb cburst 1600b
class htb 1:3 parent 1:1 prio 3 rate 90Kbit ceil 68Mbit burst 10Kb cburst 1600b
class htb 1:4 parent 1:1 prio 2 rate 400Kbit ceil 80Mbit burst 10Kb cburst 1600b
class htb 1:5 parent 1:1 prio 1 rate 10Kbit ceil 64Mbit burst 10Kb cburst 1600b
"""
HTB = {
    "kind": "htb",
    "handle": "1:",
    "root": True,
    "refcnt": 2,
    "options": {"r2q": 100, "default": "0x5", "direct_qlen": 1000},
}
# Priority, number of the hash table (in order of installation), class, and the place and value
# of the match. The kernel makes 49152 of priority 0: UDP is looked for last.
PORT, PROTOCOL = (20, 16, "ffff0000"), (8, 16, "ff0000")
FIXED_FILTERS = [
    (35, "801", "1:3", PROTOCOL, 1),
    (40, "804", "1:3", PORT, 161),
    (45, "803", "1:3", PORT, 22),
    (60, "802", "1:3", PROTOCOL, 2),
    (49152, "800", "1:2", PROTOCOL, 17),
]
PORT_FILTERS = [
    (10, "805", "1:4", PORT, 80),
    (11, "806", "1:4", PORT, 443),
    (20, "807", "1:3", PORT, 554),
]
# Put anew, they have hash tables of their own.
RENEWED_PORT_FILTERS = [
    (10, "808", "1:4", PORT, 80),
    (11, "809", "1:4", PORT, 443),
    (20, "80a", "1:3", PORT, 554),
]


def filters_of(table: list[tuple[int, str, str, tuple[int, int, str], int]]) -> list[Any]:
    """The filters as `tc -j` describes them: a head, a hash table and an entry for each."""
    described = []
    for priority, number, class_id, (offset, shift, mask), value in table:
        head: dict[str, Any] = {
            "parent": "1:",
            "protocol": "ip",
            "pref": priority,
            "kind": "u32",
            "chain": 0,
        }
        match = {"value": f"{value << shift:x}", "mask": mask, "offmask": "", "off": offset}
        entry = {
            "fh": f"{number}::800",
            "order": 2048,
            "key_ht": number,
            "bkt": "0",
            "flowid": class_id,
            "not_in_hw": True,
            "match": match,
        }
        table_options = {"fh": f"{number}:", "ht_divisor": 1}
        described += [head, {**head, "options": table_options}, {**head, "options": entry}]
    return described


def tc(camera: Camera, *arguments: str) -> Any:
    """What `tc -j` says about eth0, parsed."""
    return json.loads(camera.run(["tc", "-j", *arguments, "dev", "eth0"], check=True).stdout)


# The daemon sets the bursts; tc itself makes the cburst, of one packet. Both reach the kernel as ticks of
# time at the class's rate, and come back as bytes: what the way there and back cuts off, less than two
# microseconds, is up to tc and to the kernel's clock.
PACKET = 1600
ROUNDING = 2e-6
UNITS = {"": 1, "K": 1000, "M": 1_000_000}


def whole_bursts(line: str, burst: int) -> str:
    """A class with its bursts as they were set, where they lie within tc's rounding."""
    rates = {
        name: int(number) * UNITS[unit] / 8
        for name, number, unit in re.findall(r"(rate|ceil) (\d+)([KM]?)bit", line)
    }
    for name, rate, size in (("burst", rates["rate"], burst), ("cburst", rates["ceil"], PACKET)):
        found = re.search(rf" {name} (\d+)b", line)
        if found and size - rate * ROUNDING - 1 <= int(found[1]) <= size:
            line = line.replace(found[0], f" {name} {size}b")
    return line


def classes(camera: Camera, burst: int = 10240) -> str:
    """The classes of eth0, in the order of their numbers: this tc knows no JSON for them."""
    text = camera.run(["tc", "class", "show", "dev", "eth0"], check=True).stdout
    return "".join(f"{whole_bursts(line.strip(), burst)}\n" for line in sorted(text.splitlines()))


def filters(camera: Camera) -> list[Any]:
    """The filters of eth0 in the order in which they are tried."""
    return list(tc(camera, "filter", "show"))


def queues(camera: Camera) -> list[Any]:
    """The queues of eth0, without the count of what went out before there was a class for it."""
    found = list(tc(camera, "qdisc", "show"))
    for queue in found:
        queue["options"].pop("direct_packets_stat", None)
    return found


def qdisc(camera: Camera) -> str:
    """The kind of eth0's root qdisc."""
    [root] = tc(camera, "qdisc", "show")
    return str(root["kind"])


def class_commands(*rates: str) -> list[Command]:
    """The commands that replace the five classes."""
    return done(
        *(
            f"/sbin/tc class replace dev eth0 parent 1:{0 if number == 1 else 1} "
            f"classid 1:{number} htb {rate}"
            for number, rate in enumerate(rates, 1)
        )
    )


@pytest.fixture
def camera(make_camera: MakeCamera) -> Camera:
    """Return a camera that is shaped with the defaults, and a host on its LAN."""
    camera = make_camera(variables=MANUAL_IPV4)
    assert start(camera) == ["READY=1"]
    camera.lan.own(LAN)
    return camera


# The tree


def test_the_defaults_make_the_tree_and_all_filters(camera: Camera) -> None:
    assert camera.commands() == MANUAL_BOOT
    assert queues(camera) == [HTB]
    assert classes(camera) == CLASSES
    assert filters(camera) == filters_of(PORT_FILTERS + FIXED_FILTERS)


def test_a_change_of_rates_replaces_the_classes_and_keeps_the_filters(camera: Camera) -> None:
    request = {AVERAGE_RATE: 50000, BURST_SIZE: 12000, LOW_LATENCY_RATE: 1000, MISC_CEIL: 50}
    before = filters(camera)
    outcome = set_settings(camera, request)
    assert (outcome.response, outcome.commands) == (
        SUCCESS,
        [
            *SHAPED,
            *class_commands(
                "rate 50000kbit ceil 50000kbit burst 12000b ",
                "rate 48590kbit ceil 50000kbit burst 12000b prio 4",
                "rate 1000kbit ceil 42500kbit burst 12000b prio 3",
                "rate 400kbit ceil 50000kbit burst 12000b prio 2",
                "rate 10kbit ceil 25000kbit burst 12000b prio 1",
            ),
        ],
    )
    # The kernel's own remarks on small rates left out.
    assert [line for line in outcome.log if not line.startswith("Warning: sch_htb: ")] == [
        "<6>apply_settings: Applying traffic shaping rules",
        "<5>quarn_apply_trafficshape_tree: Applying Traffic Shaping.  Rate:50000kbps Burst:12000b",
        *(
            f"<6>modify_or_create_class: Created HTB class 1:{number} : success"
            for number in range(1, 6)
        ),
    ]
    assert (
        classes(camera, burst=12000)
        == """\
class htb 1:1 root rate 50Mbit ceil 50Mbit burst 12000b cburst 1600b
class htb 1:2 parent 1:1 prio 4 rate 48590Kbit ceil 50Mbit burst 12000b cburst 1600b
class htb 1:3 parent 1:1 prio 3 rate 1Mbit ceil 42500Kbit burst 12000b cburst 1600b
class htb 1:4 parent 1:1 prio 2 rate 400Kbit ceil 50Mbit burst 12000b cburst 1600b
class htb 1:5 parent 1:1 prio 1 rate 10Kbit ceil 25Mbit burst 12000b cburst 1600b
"""
    )
    assert filters(camera) == before


def test_turning_shaping_off_brings_the_kernels_own_qdisc_back(camera: Camera) -> None:
    assert set_settings(camera, {ENABLED: False}) == Outcome(
        SUCCESS,
        [*SHAPED, *done("/sbin/tc qdisc del dev eth0 root")],
        [
            "<6>apply_settings: Applying traffic shaping rules",
            "<6>disable_traffic_shaping: Traffic shaping disabled: success",
        ],
    )
    assert qdisc(camera) == "pfifo_fast"
    assert filters(camera) == []


def test_turning_off_what_is_off_runs_no_command_of_tc_but_the_question(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    plant(camera, {"TrafficShaping.Enabled": "false"})
    assert start(camera) == ["READY=1"]
    # Asked once for the tree and once for the ports.
    commands = [command for command in camera.commands() if "/sbin/tc" in command.text]
    assert commands == NOT_SHAPED * 2
    assert qdisc(camera) == "pfifo_fast"
    assert (
        "<6>quarn_apply_trafficshape_ports: Not applying traffic shaping port filters because "
        "traffic shaping is not turned on" in camera.log_lines()
    )
    outcome = set_settings(camera, {BURST_SIZE: 20000})
    assert (outcome.response, outcome.commands) == (SUCCESS, NOT_SHAPED)


def test_turning_shaping_on_again_makes_the_tree_and_the_fixed_filters(camera: Camera) -> None:
    assert set_settings(camera, {ENABLED: False}).response == SUCCESS
    outcome = set_settings(camera, {ENABLED: True})
    assert (outcome.response, outcome.commands) == (SUCCESS, SHAPING)
    assert classes(camera) == CLASSES
    assert filters(camera) == filters_of(FIXED_FILTERS)


def test_a_new_port_moves_its_filter(camera: Camera) -> None:
    request = {"[Webserver/HTTP]Port": 8080, "[RTSP]Port": 8554}
    outcome = set_settings(camera, request)
    assert outcome.response == SUCCESS
    expected = shaping_ports(again=True, http=8080, rtsp=8554)
    assert outcome.commands[-len(expected) :] == expected
    moved = [
        (10, "808", "1:4", PORT, 8080),
        (11, "809", "1:4", PORT, 443),
        (20, "80a", "1:3", PORT, 8554),
    ]
    assert filters(camera) == filters_of(moved + FIXED_FILTERS)


def test_a_restart_of_the_daemon_keeps_the_tree(camera: Camera) -> None:
    camera.stop_daemon()
    assert start(camera) == ["READY=1"]
    assert queues(camera) == [HTB]
    assert classes(camera) == CLASSES
    assert filters(camera) == filters_of(RENEWED_PORT_FILTERS + FIXED_FILTERS)


def test_an_nfs_root_is_left_alone(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4, kernel_command_line="root=/dev/nfs rw")
    assert start(camera) == ["READY=1"]
    assert [command for command in camera.commands() if "/sbin/tc" in command.text] == []
    assert qdisc(camera) == "pfifo_fast"
    outcome = set_settings(camera, {AVERAGE_RATE: 50000, BURST_SIZE: 12000})
    assert (outcome.response, outcome.commands) == (SUCCESS, [])


def test_a_stored_burst_below_the_minimum_is_raised_for_the_tree_only(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    plant(camera, {"TrafficShaping.AvgRateLimit": "100000", "TrafficShaping.BurstSize": "10240"})
    assert start(camera) == ["READY=1"]
    assert [line for line in lines_of_level(camera.log_lines(), 4, 5) if "shape_tree" in line] == [
        "<4>quarn_apply_trafficshape_tree: Provided burst size was too small.  Adjusting to 12800",
        "<5>quarn_apply_trafficshape_tree: Applying Traffic Shaping.  Rate:100000kbps Burst:12800b",
    ]
    assert "class htb 1:1 root rate 100Mbit ceil 100Mbit burst 12800b" in classes(camera)
    assert camera.get(BURST_SIZE) == 10240
    assert stored(camera)["TrafficShaping.BurstSize"] == 10240


# Which class a packet goes to


def sent_by_class(camera: Camera) -> dict[int, int]:
    """How many packets each leaf class has sent."""
    text = camera.run(["tc", "-s", "class", "show", "dev", "eth0"], check=True).stdout
    found = re.findall(r"class htb 1:(\d) .*\n Sent \d+ bytes (\d+) pkt", text)
    return {int(number): int(count) for number, count in found if number != "1"}


def send_tcp(camera: Camera, port: int) -> None:
    """Ask the LAN's host for a connection, which it refuses."""
    with camera.socket(socket.AF_INET, socket.SOCK_STREAM) as client:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        client.settimeout(10)
        client.bind(("0.0.0.0", port))
        with pytest.raises(ConnectionRefusedError):
            client.connect((LAN, 9))


def send_udp(camera: Camera, port: int) -> None:
    """Send a datagram."""
    with camera.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        client.bind(("0.0.0.0", port))
        client.sendto(b"media", (LAN, 9))


def send_raw(camera: Camera, protocol: int) -> None:
    """Send a packet of a protocol without ports."""
    with camera.socket(socket.AF_INET, socket.SOCK_RAW, protocol) as client:
        client.sendto(bytes(8), (LAN, 0))


@pytest.mark.parametrize(
    ("send", "value", "number"),
    [
        (send_udp, 5004, MEDIA),
        (send_raw, socket.IPPROTO_ICMP, LOW_LATENCY),
        (send_raw, socket.IPPROTO_IGMP, LOW_LATENCY),
        (send_tcp, 22, LOW_LATENCY),
        (send_tcp, 161, LOW_LATENCY),
        (send_tcp, 554, LOW_LATENCY),
        (send_tcp, 80, BULK),
        (send_tcp, 443, BULK),
        (send_tcp, 8080, DEFAULT),
        # Ports are looked for before the protocol.
        (send_udp, 161, LOW_LATENCY),
    ],
)
def test_a_packet_goes_to_the_class_of_its_kind(
    camera: Camera, send: Callable[[Camera, int], None], value: int, number: int
) -> None:
    before = sent_by_class(camera)
    send(camera, value)
    camera.wait_until(
        lambda: sent_by_class(camera)[number] > before[number], f"class 1:{number} has sent"
    )
    after = sent_by_class(camera)
    # What finds neighbours goes by the default class at any time.
    others = {MEDIA, LOW_LATENCY, BULK} - {number}
    assert {other: after[other] - before[other] for other in others} == dict.fromkeys(others, 0)


# Rates, as ratios of what is set, measured by a host on the LAN. The rates are low, so that a busy machine
# keeps up with them; where its timers are late all the same, what is sent falls behind. It never runs ahead. So
# each try bounds a rate from above, and the one that comes close to it shows that nothing holds it lower.
MOST, LEAST, TRIES = 1.1, 0.8, 10
LEAST_RATE = {AVERAGE_RATE: 12500}


def start_meter(camera: Camera, port: int) -> Process:
    """Start an iperf3 server on the LAN, and return once it listens."""
    process = camera.lan.start(["iperf3", "-s", "-1", "-p", str(port)])

    def listens() -> bool:
        return f":{port} " in camera.lan.run(["ss", "-Htln"], check=True).stdout

    camera.wait_until(listens, f"iperf3 listens on port {port}")
    return process


def measure(camera: Camera, *options: str) -> float:
    """Send for a moment; return what arrived at the LAN's host, in Mbit/s."""
    with start_meter(camera, 5201) as meter:
        command = ["iperf3", "-J", "-c", LAN, "-p", "5201", "-t", "2", *options]
        report = camera.run(command, check=True, timeout=60).stdout
        meter.wait(60)
    # It has no such sum where nothing arrived.
    received = json.loads(report)["end"].get("sum_received", {"bits_per_second": 0})
    return float(received["bits_per_second"]) / 1e6


def wait_for_empty_queue(camera: Camera, number: int) -> None:
    """Wait until a class has sent all that it was given: a new try is not to stand behind it."""

    def is_empty() -> bool:
        text = camera.run(["tc", "-s", "class", "show", "dev", "eth0"], check=True).stdout
        return bool(re.search(rf"class htb 1:{number} .*\n.*\n backlog 0b ", text))

    camera.wait_until(is_empty, f"class 1:{number} has nothing more to send")


def reaches(camera: Camera, rate: float, number: int, *options: str) -> bool:
    """Whether one of the tries comes close to a rate in Mbit/s; none may be ahead of it."""
    for _ in range(TRIES):
        ratio = measure(camera, *options) / rate
        assert ratio < MOST
        if ratio > LEAST:
            return True
        wait_for_empty_queue(camera, number)
    return False


@pytest.mark.parametrize("percent", [40, 80])
def test_the_default_class_is_held_to_its_ceiling(camera: Camera, percent: int) -> None:
    assert set_settings(camera, {**LEAST_RATE, MISC_CEIL: percent}).response == SUCCESS
    assert reaches(camera, 12.5 * percent / 100, DEFAULT)


def test_media_is_held_to_the_average_rate(camera: Camera) -> None:
    assert set_settings(camera, LEAST_RATE).response == SUCCESS
    assert reaches(camera, 12.5, MEDIA, "-u", "-b", "15M")


def test_media_keeps_its_rate_while_the_default_class_is_saturated(camera: Camera) -> None:
    assert set_settings(camera, LEAST_RATE).response == SUCCESS
    # A small window, so that the queue of the default class does not hold up what controls the
    # measurement.
    rival = ["iperf3", "-c", LAN, "-p", "5202", "-t", "600", "-w", "32K"]
    with start_meter(camera, 5202), camera.start(rival) as sending:

        def wait_for_rival() -> None:
            before = sent_by_class(camera)[DEFAULT]
            camera.wait_until(
                lambda: sent_by_class(camera)[DEFAULT] > before + 100, "the default class is busy"
            )

        wait_for_rival()
        # The default class, whose priority is the better one, asks for 10 of the 12.5 Mbit/s:
        # without a guarantee the media would get a quarter of its 10 in every try.
        assert reaches(camera, 10, MEDIA, "-u", "-b", "10M")
        wait_for_rival()
        assert sending.poll() is None


# Bad values


def test_an_average_rate_below_the_least_is_refused(camera: Camera) -> None:
    assert camera.get(MINIMUM_RATE) == 12500
    assert set_settings(camera, {AVERAGE_RATE: 12499}) == refusal(
        {AVERAGE_RATE: 12499},
        error(4, "The Traffic Shaping Average Rate Limit is too low", AVERAGE_RATE),
    )
    assert set_settings(camera, {AVERAGE_RATE: 12500}).response == SUCCESS


def test_the_least_average_rate_that_is_read_is_accepted(camera: Camera) -> None:
    assert set_settings(camera, {LOW_LATENCY_RATE: 5000}).response == SUCCESS
    least = camera.get(MINIMUM_RATE)
    assert least == 17410
    assert set_settings(camera, {AVERAGE_RATE: least - 1}).response != SUCCESS
    assert set_settings(camera, {AVERAGE_RATE: least}).response == SUCCESS


def test_a_burst_that_is_too_small_for_the_rate_is_refused(camera: Camera) -> None:
    fault = error(4, "The burst size is too small", BURST_SIZE)
    assert set_settings(camera, {AVERAGE_RATE: 100000}) == refusal({AVERAGE_RATE: 100000}, fault)
    request = {AVERAGE_RATE: 100000, BURST_SIZE: 12800}
    assert set_settings(camera, request).response == SUCCESS


def test_the_burst_time_is_1_second(camera: Camera) -> None:
    assert camera.get("[TrafficShaping]BurstTime") == 1


@pytest.mark.parametrize(
    "name",
    ["AvgRateLimit", "BurstSize", "LowLatency/Rate", "Bulk/Rate", "Misc/Rate", "Rtp/CeilPercent"],
)
def test_a_value_that_is_no_number_is_refused(camera: Camera, name: str) -> None:
    key = f"[TrafficShaping]{name}"
    for value in ("80000; reboot", None, [80000], True):
        assert set_settings(camera, {key: value}) == refusal(
            {key: value}, error(3, "Value wasn't a number", key)
        )


def test_stored_values_gone_bad_leave_the_classes_that_stand(camera: Camera) -> None:
    camera.stop_daemon()
    plant(camera, {"TrafficShaping.Bulk.Rate": '"many"', "TrafficShaping.Misc.Rate": "-5"})
    assert start(camera) == ["ERRNO=5", "READY=1"]
    commands = [command for command in camera.commands() if " class replace " in command.text]
    assert [command.status for command in commands] == [0, 0, 0, 1]
    assert commands[3].text == (
        "/sbin/tc class replace dev eth0 parent 1:1 classid 1:4 htb rate 0kbit ceil 80000kbit "
        "burst 10240b prio 2"
    )
    log = lines_of_level(camera.log_lines(), 3, 6)
    assert "<6>modify_or_create_class: Created HTB class 1:4 : failure" in log
    assert "<3>get_int: [TrafficShaping]Bulk/Rate value is not a JSON number; returning 0" in log
    assert classes(camera) == CLASSES.replace("79500Kbit", "79915Kbit")
    assert filters(camera) == filters_of(RENEWED_PORT_FILTERS + FIXED_FILTERS)


def test_without_tc_all_else_is_done(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    camera.files.remove("/usr/sbin/tc")
    assert start(camera) == ["ERRNO=5", "READY=1"]
    before_tc = [command for command in MANUAL_BOOT if "/sbin/tc" not in command.text]
    port_filter = "/sbin/tc filter {} dev eth0 protocol ip parent 1: prio {}"
    first_class = class_commands("rate 80000kbit ceil 80000kbit burst 10240b ")[0].text
    assert camera.commands() == [
        *before_tc,
        # Without an answer the tree counts as installed.
        *SHAPED,
        Command(first_class, 127),
        *SHAPED,
        Command(port_filter.format("del", 10), 127),
        Command(port_filter.format("add", 10) + " u32 match ip sport 80 0xffff flowid 1:4", 127),
        Command(port_filter.format("del", 11), 127),
        Command(port_filter.format("del", 20), 127),
    ]
    assert set_settings(camera, {BURST_SIZE: 20000}).response == answer(APPLY_ERROR, success=True)
    assert camera.get(BURST_SIZE) == 20000
