"""The time daemon's file, its supervisor, and the time daemon itself."""

from __future__ import annotations

import os
import socket
from collections.abc import Callable
from typing import Any

import pytest
from expectations import (
    APPLY_ERROR,
    RELOAD_NTP_KEEPER,
    SUCCESS,
    Outcome,
    answer,
    compact,
    console,
    error,
    error_log,
    refusal,
    set_settings,
    start,
    start_manual,
)
from service_cameras import ADDRESS_SWITCHES, combinations, link_at, start_with_ipv4, started
from stored_settings import plant

from camlab import Camera, Command, Process
from camlab.programs import helper

MakeCamera = Callable[..., Camera]

PREAMBLE = (
    "# written by quarn\n"
    "disable monitor\n"
    "restrict default limited kod nomodify notrap nopeer noquery\n"
    "restrict -6 default limited kod nomodify notrap nopeer noquery\n"
    "restrict 127.0.0.1\n"
    "restrict -6 ::1\n"
)
DISABLED = PREAMBLE + "\n# NTP is disabled\n"
NO_SERVERS = PREAMBLE + "\n# NTP is enabled, but no servers configured.\n"
APPLYING = "<6>apply_settings: Writing ntp.conf"
WROTE = console("Wrote /etc/ntp.conf", "quarn_write_ntpconf")
RELOADING = "<6>apply_settings: Reloading NTPd"
RELOADED = Command(RELOAD_NTP_KEEPER, 0)

IPV4, IPV6 = "[IPv4]Enabled", "[IPv6]Enabled"
SWITCHES = (
    *ADDRESS_SWITCHES,
    "[NTP]Enabled",
    "[NTP/Manual]Enabled",
    "[NTP/IPv4/DHCP]Enabled",
    "[NTP/IPv6/DHCP]Enabled",
    "[NTP/IPv6/Discovery]Enabled",
)
LISTS = {
    "[NTP/Manual]Servers": ["192.0.2.123", "time.example.net", "Fe80::123"],
    "[NTP/IPv4/DHCP]Servers": ["192.0.2.1", "time4.example"],
    "[NTP/IPv6/DHCP]Servers": ["2001:db8::1", "time6.example"],
    "[NTP/IPv6/Discovery]Servers": ["fe80::2", "192.0.2.3"],
}
MANUAL = (
    "\n# manually configured time servers\n"
    "server 192.0.2.123\nserver time.example.net\nserver Fe80::123%eth0\n"
)
DHCPV4 = "\n# IPv4 DHCP time servers\nserver -4 192.0.2.1\nserver -4 time4.example\n"
DHCPV6 = "\n# IPv6 DHCP time servers\nserver -6 2001:db8::1\nserver -6 time6.example\n"
DISCOVERY = "\n# IPv6 discovery time servers\nserver -6 fe80::2%eth0\nserver -6 192.0.2.3\n"


def ntp_conf(camera: Camera) -> str:
    assert link_at(camera, "/etc/ntp.conf") == "/tmp/.quarn/ntp.conf"
    return camera.read_file("/etc/ntp.conf")


def expected_file(on: dict[str, bool]) -> str:
    if not on["[NTP]Enabled"]:
        return DISABLED
    blocks = [
        (MANUAL, on["[NTP/Manual]Enabled"]),
        (DHCPV4, on[IPV4] and on["[IPv4/DHCP]Enabled"] and on["[NTP/IPv4/DHCP]Enabled"]),
        (DHCPV6, on[IPV6] and on["[IPv6/Stateful]Enabled"] and on["[NTP/IPv6/DHCP]Enabled"]),
        (DISCOVERY, on[IPV6] and on["[NTP/IPv6/Discovery]Enabled"]),
    ]
    servers = "".join(text for text, is_there in blocks if is_there)
    return PREAMBLE + servers if servers else NO_SERVERS


# The file


@pytest.mark.quiet
@pytest.mark.parametrize("ipv4", [True, False])
def test_the_file_is_right_in_every_combination_of_its_switches(camera: Camera, ipv4: bool) -> None:
    start_with_ipv4(camera, ipv4)
    seen = set()
    for on in combinations(camera, SWITCHES, LISTS):
        assert ntp_conf(camera) == expected_file({**on, IPV4: ipv4}), on
        seen.add(ntp_conf(camera))
    # Disabled, none configured, and each set of servers that there can be.
    assert len(seen) == (2 + 15 if ipv4 else 2 + 7)


@pytest.mark.quiet
def test_disabled_time_service_leaves_the_preamble_and_a_comment(make_camera: MakeCamera) -> None:
    camera = started(make_camera)
    assert set_settings(camera, {"[NTP]Enabled": False}) == Outcome(
        SUCCESS, [RELOADED], [APPLYING, *WROTE, RELOADING]
    )
    assert ntp_conf(camera) == (
        "# written by quarn\n"
        "disable monitor\n"
        "restrict default limited kod nomodify notrap nopeer noquery\n"
        "restrict -6 default limited kod nomodify notrap nopeer noquery\n"
        "restrict 127.0.0.1\n"
        "restrict -6 ::1\n"
        "\n"
        "# NTP is disabled\n"
    )


@pytest.mark.quiet
def test_without_any_server_the_file_says_so(make_camera: MakeCamera) -> None:
    camera = started(make_camera)
    assert camera.get("[NTP/Manual]Enabled") is False
    assert ntp_conf(camera) == NO_SERVERS


@pytest.mark.quiet
def test_manual_time_servers_stand_even_without_both_ip_stacks(camera: Camera) -> None:
    start_with_ipv4(camera, False)
    request = {
        "[IPv6]Enabled": False,
        "[NTP/Manual]Enabled": True,
        "[NTP/Manual]Servers": ["192.0.2.123"],
    }
    assert camera.api_set_text(compact(request)) == SUCCESS
    expected = f"{PREAMBLE}\n# manually configured time servers\nserver 192.0.2.123\n"
    assert ntp_conf(camera) == expected


@pytest.mark.quiet
def test_each_source_has_its_keyword(camera: Camera) -> None:
    start_with_ipv4(camera, True)
    request = {
        "[NTP/Manual]Enabled": True,
        "[NTP/Manual]Servers": ["a.example"],
        "[NTP/IPv4/DHCP]Servers": ["b.example"],
        "[NTP/IPv6/DHCP]Servers": ["c.example"],
        "[NTP/IPv6/Discovery]Servers": ["d.example"],
    }
    assert camera.api_set_text(compact(request)) == SUCCESS
    assert ntp_conf(camera) == (
        f"{PREAMBLE}"
        "\n# manually configured time servers\nserver a.example\n"
        "\n# IPv4 DHCP time servers\nserver -4 b.example\n"
        "\n# IPv6 DHCP time servers\nserver -6 c.example\n"
        "\n# IPv6 discovery time servers\nserver -6 d.example\n"
    )


@pytest.mark.quiet
def test_no_stored_value_becomes_a_second_line_or_word(make_camera: MakeCamera) -> None:
    camera = make_camera()
    servers = ["a.example\nserver 203.0.113.66", "b.example prefer", "c.example"]
    plant(camera, {"NTP.Manual.Enabled": "true", "NTP.Manual.Servers": compact(servers)})
    camera.rule("*", status=0)
    assert start(camera) == ["READY=1"]
    expected = f"{PREAMBLE}\n# manually configured time servers\nserver c.example\n"
    assert ntp_conf(camera) == expected
    assert [line for line in camera.log_lines() if "write_address_list" in line] == [
        r"<3>write_address_list: Left out 'a.example\x0aserver 203.0.113.66', which is no server",
        "<3>write_address_list: Left out 'b.example prefer', which is no server",
    ]


@pytest.mark.quiet
def test_a_stored_value_of_another_type_counts_as_absent(make_camera: MakeCamera) -> None:
    camera = make_camera()
    plant(camera, {"NTP.Manual.Enabled": "true", "NTP.Manual.Servers": '{"a":1}'})
    camera.rule("*", status=0)
    assert start(camera) == ["READY=1"]
    assert ntp_conf(camera) == NO_SERVERS
    wrong_type = "<3>get_string_array: [NTP/Manual]Servers value is not a JSON string array"
    assert camera.log_lines().count(wrong_type) == 1


# What is refused

EIGHT = [f"time{number}.example" for number in range(8)]
TOO_MANY = "Too many NTP servers provided in array"


@pytest.mark.quiet
@pytest.mark.parametrize(
    ("key", "value", "code", "message"),
    [
        ("[NTP/Manual]Servers", EIGHT, 14, TOO_MANY),
        ("[NTP/IPv4/DHCP]Servers", EIGHT, 14, TOO_MANY),
        ("[NTP/IPv6/DHCP]Servers", EIGHT, 14, TOO_MANY),
        ("[NTP/IPv6/Discovery]Servers", EIGHT, 14, TOO_MANY),
        ("[NTP/IPv4/DHCP]Servers", ["::1"], 3, "'::1' isn't a valid server name or ip"),
        ("[NTP/IPv6/DHCP]Servers", ["10.0.0.1"], 3, "'10.0.0.1' isn't a valid server name or ip"),
        ("[NTP/Manual]Servers", ["a b"], 3, "'a b' isn't a valid server name or ip"),
        ("[NTP/Manual]Servers", None, 3, "Value wasn't a JSON array"),
    ],
)
def test_what_the_time_daemon_cannot_take_is_refused(
    make_camera: MakeCamera, key: str, value: Any, code: int, message: str
) -> None:
    camera = started(make_camera)
    before = camera.files.stat("/tmp/.quarn/ntp.conf").st_mtime_ns
    assert set_settings(camera, {key: value}) == refusal({key: value}, error(code, message, key))
    assert camera.files.stat("/tmp/.quarn/ntp.conf").st_mtime_ns == before


@pytest.mark.quiet
def test_seven_manual_servers_are_accepted(make_camera: MakeCamera) -> None:
    camera = started(make_camera)
    request = {"[NTP/Manual]Enabled": True, "[NTP/Manual]Servers": EIGHT[:7]}
    assert set_settings(camera, request).response == SUCCESS
    lines = "".join(f"server {name}\n" for name in EIGHT[:7])
    assert ntp_conf(camera) == f"{PREAMBLE}\n# manually configured time servers\n{lines}"


# The supervisor. The real one belongs to the camera's system image: a stand-in counts the signals.

KEEPER = "/usr/sbin/ntp-keeper"
CHANGES = [{"[NTP/Manual]Servers": [name]} for name in ("a.example", "b.example", "c.example")]


def start_keeper(camera: Camera) -> Process:
    keeper = camera.start([KEEPER])
    camera.wait_until(lambda: keeper.stdout == "waiting\n", "the supervisor waits")
    return keeper


def test_every_change_has_the_supervisor_reload_once_and_the_start_does_not(
    make_camera: MakeCamera,
) -> None:
    camera = start_manual(make_camera, install={KEEPER: helper("ntp-keeper")})
    camera.stop_daemon()
    keeper = start_keeper(camera)
    assert start(camera) == ["READY=1"]
    assert RELOAD_NTP_KEEPER not in [command.text for command in camera.commands()]
    for count, request in enumerate(CHANGES, 1):
        assert set_settings(camera, request) == Outcome(
            SUCCESS, [RELOADED], [APPLYING, *WROTE, RELOADING]
        )
        camera.wait_until(lambda: keeper.stdout.count("reload\n") >= count, "the signal is there")
        assert keeper.stdout == "waiting\n" + "reload\n" * count
    assert keeper.poll() is None


def test_of_two_supervisors_one_is_told(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera, install={KEEPER: helper("ntp-keeper")})
    keepers = [start_keeper(camera), start_keeper(camera)]
    assert camera.api_set_text(compact(CHANGES[0])) == SUCCESS
    camera.wait_until(
        lambda: sorted(keeper.stdout for keeper in keepers) == ["waiting\n", "waiting\nreload\n"],
        "one supervisor is told",
    )


def test_a_missing_supervisor_is_an_error_of_a_request_that_succeeds(
    make_camera: MakeCamera,
) -> None:
    camera = started(make_camera)
    outcome = set_settings(camera, {"[NTP/Manual]Enabled": True, **CHANGES[0]})
    # The shell's own complaint of a kill without a process stands between, in its own words.
    own_log = [line for line in outcome.log if line.startswith(("<", "QUARN"))]
    assert outcome.response == answer(APPLY_ERROR, success=True)
    assert outcome.commands == [Command(RELOAD_NTP_KEEPER, 2)]
    assert own_log == [
        APPLYING,
        *WROTE,
        RELOADING,
        f"<3>reload_ntp_keeper: Call to '{RELOAD_NTP_KEEPER}' had rc=2",
        error_log(1, "There was an error in applying the settings"),
    ]
    # The file and the setting stand all the same.
    expected = f"{PREAMBLE}\n# manually configured time servers\nserver a.example\n"
    assert ntp_conf(camera) == expected
    assert camera.get("[NTP/Manual]Servers") == ["a.example"]


# The time daemon

NTPD = "/usr/sbin/ntpd"
CAP_SYS_TIME = 1 << 25
NTP_CLIENT = 3


def start_ntpd(camera: Camera) -> Process:
    """Start the time daemon without the right to touch this machine's clock."""
    if not os.path.exists(NTPD):
        pytest.skip("ntpsec is not installed")
    ntpd = camera.start(["setpriv", "--bounding-set=-sys_time", NTPD, "-n", "-c", "/etc/ntp.conf"])
    camera.wait_until(lambda: "Starting" in ntpd.stdout + ntpd.stderr, "the time daemon runs")
    with open(f"/proc/{ntpd.pid}/status", encoding="ascii") as file:
        capabilities = next(line.split()[1] for line in file if line.startswith("CapBnd:"))
    assert int(capabilities, 16) & CAP_SYS_TIME == 0
    return ntpd


@pytest.mark.quiet
def test_the_time_daemon_reads_the_file_and_asks_its_servers(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    camera.lan.own("192.0.2.123")
    request = {
        "[NTP/Manual]Enabled": True,
        "[NTP/Manual]Servers": ["192.0.2.123", "time.example.net", "2001:db8::123", "fe80::123"],
        "[NTP/IPv6/DHCP]Servers": ["2001:db8::1", "time6.example"],
        "[NTP/IPv6/Discovery]Servers": ["fe80::2", "time.example"],
    }
    assert camera.api_set_text(compact(request)) == SUCCESS
    with camera.lan.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
        server.bind(("192.0.2.123", 123))
        server.settimeout(30)
        ntpd = start_ntpd(camera)
        question, (client, _) = server.recvfrom(512)
    assert (client, question[0] & 7) == ("192.0.2.10", NTP_CLIENT)
    log = ntpd.stdout + ntpd.stderr
    assert "parsing file: /etc/ntp.conf" in log
    assert "syntax error" not in log


@pytest.mark.quiet
@pytest.mark.parametrize("request_", [{"[NTP]Enabled": False}, {"[NTP/Manual]Enabled": True}])
def test_the_time_daemon_reads_a_file_without_servers(
    make_camera: MakeCamera, request_: dict[str, Any]
) -> None:
    camera = start_manual(make_camera)
    assert camera.api_set_text(compact(request_)) == SUCCESS
    ntpd = start_ntpd(camera)
    camera.wait_until(lambda: "MRU" in ntpd.stdout + ntpd.stderr, "the file is read")
    assert "syntax error" not in ntpd.stdout + ntpd.stderr


@pytest.mark.quiet
def test_the_time_daemon_tells_of_a_faulty_line(make_camera: MakeCamera) -> None:
    """Without this the absence of its complaint would prove nothing."""
    camera = make_camera()
    camera.files.remove("/etc/ntp.conf")
    camera.write_file("/etc/ntp.conf", f"{PREAMBLE}\nserver -7 192.0.2.123\n")
    ntpd = start_ntpd(camera)
    camera.wait_until(
        lambda: "syntax error" in ntpd.stdout + ntpd.stderr, "the time daemon complains"
    )
