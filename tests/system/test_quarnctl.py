"""quarnctl against the real daemon: what it prints, what it sends, and how it ends."""

from __future__ import annotations

import json
from collections.abc import Callable

import pytest
from expectations import start
from quarnctl_runs import QUARN_GROUP, Run, quarnctl, quarnctl_json, sent_requests

from camlab import Camera

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

MTU = "[NIC/eth0]MTU"
GATEWAYS = "[IPv4/Manual]Gateways"
FIRST_GATEWAY = "[IPv4/Manual]DefaultGateway"
PORTS = "[IPTables/Allow]TcpDestPorts"
NO_DAEMON = (
    "quarnctl: the daemon does not run on this machine; start it with: systemctl start quarn\n"
)


@pytest.fixture
def served(make_camera: MakeCamera) -> Camera:
    """Return a camera without DHCP whose daemon runs."""
    camera = make_camera(variables={"vesko_ipv4_dhcp_enable": "0"})
    assert start(camera) == ["READY=1"]
    return camera


def gateways_of_kernel(camera: Camera) -> list[str]:
    """Return the default gateways in the order in which the kernel uses them."""
    return [route["gateway"] for route in camera.routes() if route["dst"] == "default"]


# Getting


def test_one_value_is_printed_bare_for_scripts(served: Camera) -> None:
    assert quarnctl(served, "get", MTU) == Run(0, "1500\n", "")
    assert quarnctl(served, "get", "[Hostname]Name") == Run(0, "Corvy-0000000\n", "")


def test_several_values_are_printed_as_set_takes_them(served: Camera) -> None:
    assert quarnctl(served, "get", MTU, PORTS) == Run(0, f"{MTU}=1500\n{PORTS}=[22,161,8888]\n", "")


def test_values_as_json_are_one_object(served: Camera) -> None:
    assert quarnctl_json(served, "get", MTU, "[NTP]Enabled") == {MTU: 1500, "[NTP]Enabled": True}


def test_an_unknown_key_is_answered_with_the_nearest_ones(served: Camera) -> None:
    assert quarnctl(served, "get", "[NIC/eth0]MTO") == Run(
        1, "", f"quarnctl: [NIC/eth0]MTO: Unknown key; did you mean {MTU} or [NIC/eth0]MAC?\n"
    )


def test_the_link_local_address_is_read_only_by_who_names_it(served: Camera) -> None:
    served.clear_commands()
    for command in ("list", "status", "diff", "export"):
        assert quarnctl(served, command).status == 0
    assert [text for text, _ in served.commands() if "arping" in text] == []
    assert "[IPv4/LocalLink]Address" not in quarnctl(served, "list").stdout


def test_the_list_names_place_state_and_value(served: Camera) -> None:
    quarnctl(served, "set", f"{MTU}=1400")
    assert quarnctl(served, "list", "eth0]m*") == Run(
        0,
        "[NIC/eth0]MAC  live   set      00005E005301\n[NIC/eth0]MTU  store  set      1400\n",
        "",
    )
    entries = quarnctl_json(served, "list", "eth0]mtu")
    assert entries == [
        {"key": MTU, "value": 1400, "default": 1500, "is_default": False, "storage": "store"}
    ]


def test_the_list_holds_every_setting_but_the_one_that_probes(served: Camera) -> None:
    assert len(quarnctl_json(served, "list")) == 97


def test_a_setting_is_described_without_a_daemon(camera: Camera) -> None:
    assert quarnctl(camera, "describe", MTU) == Run(
        0,
        f"{MTU}\n"
        "    The largest packet of eth0 in bytes; below 1280 there is no IPv6.\n"
        "    type:     number\n"
        "    accepts:  a number from 1200 to 1500\n"
        "    default:  1500\n"
        "    kept in:  store\n"
        "    a change: sets the MTU\n",
        "",
    )


def test_diff_shows_what_differs_from_the_defaults(served: Camera) -> None:
    quarnctl(served, "set", f"{MTU}=1400")
    assert quarnctl(served, "diff") == Run(
        0,
        "[IPv4/DHCP]Enabled: true -> false\n"
        f"{MTU}: 1500 -> 1400\n"
        "[Hostname]Name: null -> Corvy-0000000\n",
        "",
    )


# Setting


def test_words_are_taken_by_the_type_of_the_setting(served: Camera) -> None:
    done = quarnctl(
        served,
        "set",
        f"{MTU}=1400",
        "[NTP]Enabled=off",
        "[DNS/Manual]Servers=10.0.0.1,2001:db8::1",
        "[DNS/Manual]Search=[]",
        "[IPTables/Allow]UdpDestPorts=[123,[7000,8000]]",
    )
    assert done == Run(
        0,
        "[IPTables/Allow]UdpDestPorts: [123,161,546,800,1900,2901,3702,[7000,8000],30001]"
        " -> [123,[7000,8000]]\n"
        "[NTP]Enabled: true -> false\n"
        f"{MTU}: 1500 -> 1400\n"
        '[DNS/Manual]Servers: [] -> ["10.0.0.1","2001:db8::1"]\n',
        "",
    )
    assert sent_requests(served) == [
        {
            "[IPTables/Allow]UdpDestPorts": [123, [7000, 8000]],
            "[NTP]Enabled": False,
            MTU: 1400,
            "[DNS/Manual]Servers": ["10.0.0.1", "2001:db8::1"],
            "[DNS/Manual]Search": [],
        }
    ]


def test_items_of_lists_are_added_and_taken_away(served: Camera) -> None:
    assert quarnctl(served, "set", f"{PORTS}+=23", f"{PORTS}-=22,161").status == 0
    assert quarnctl(served, "set", f"{PORTS}+=7000-8000", f"{PORTS}+=23").status == 0
    assert served.get(PORTS) == [8888, 23, [7000, 8000]]


def test_a_refused_value_is_answered_with_what_is_accepted(served: Camera) -> None:
    done = quarnctl(served, "set", f"{MTU}=9000", "[RTSP]Port=70000")
    assert done == Run(
        1,
        "",
        "quarnctl: [NIC/eth0]MTU: Invalid MTU (9000) (must be 1200 to 1500)"
        " (accepted: a number from 1200 to 1500)\n"
        "quarnctl: [RTSP]Port: Port out of range"
        " (accepted: a port from 1 to 65535 that nothing else uses)\n",
    )
    assert served.get(MTU) == 1500


def test_a_refusal_as_json_holds_the_daemons_entries(served: Camera) -> None:
    assert quarnctl_json(served, "set", f"{MTU}=9000") == {
        "success": False,
        "errors": [{"key": MTU, "code": 4, "msg": "Invalid MTU (9000) (must be 1200 to 1500)"}],
        "changes": [{"key": MTU, "before": 1500, "after": 9000}],
        "left_alone": [],
    }


def test_nothing_is_sent_when_one_word_is_wrong(served: Camera) -> None:
    done = quarnctl(
        served, "set", f"{MTU}=1400", "[NIC/eth0]MTO=1", "[IPv4/Actual]Address=10.0.0.1"
    )
    assert (done.status, done.stdout) == (1, "")
    assert done.stderr.splitlines() == [
        f"quarnctl: [NIC/eth0]MTO: Unknown key; did you mean {MTU} or [NIC/eth0]MAC?",
        "quarnctl: [IPv4/Actual]Address: is read-only (accepted: nothing: it cannot be set)",
    ]
    assert sent_requests(served) == []


def test_a_dry_run_shows_the_change_and_makes_none(served: Camera) -> None:
    assert quarnctl(served, "set", "-n", f"{MTU}=1400") == Run(0, f"{MTU}: 1500 -> 1400\n", "")
    assert sent_requests(served) == []


def test_a_change_that_cannot_be_carried_out_is_reported(served: Camera) -> None:
    served.rule("/sbin/ip link set eth0 mtu *", status=1)
    assert quarnctl(served, "set", f"{MTU}=1400") == Run(
        1,
        f"{MTU}: 1500 -> 1400\n",
        "quarnctl: There was an error in applying the settings\n",
    )


def test_who_does_not_wait_is_back_before_the_change_is_carried_out(served: Camera) -> None:
    rule = served.hang("/sbin/ip link set eth0 mtu *")
    assert quarnctl(served, "set", "--no-wait", f"{MTU}=1400") == Run(0, "", "")
    rule.release()
    served.wait_signal("MTUChange")
    assert served.link()["mtu"] == 1400


def test_who_waits_at_a_terminal_sees_that_it_goes_on(served: Camera) -> None:
    rule = served.hang("/sbin/ip link set eth0 mtu *")
    command = f"quarnctl set '{MTU}=1400'"
    served.write_file("/tmp/shown", "")
    with served.start(["script", "-qefc", command, "/tmp/shown"]) as terminal:
        served.wait_until(lambda: "applying ... 1 s" in served.read_file("/tmp/shown"), "the line")
        rule.release()
        assert terminal.wait() == 0
    # The line is gone before the result is printed.
    assert f"\r\033[K{MTU}: 1500 -> 1400" in served.read_file("/tmp/shown")


# Gateways


def test_gateways_are_taken_away_from_store_and_kernel(served: Camera) -> None:
    quarnctl(served, "set", "[IPv4/Manual]Address=10.0.0.5", f"{GATEWAYS}=10.0.0.1,10.0.0.2")
    assert gateways_of_kernel(served) == ["10.0.0.2", "10.0.0.1"]
    before = len(sent_requests(served))
    assert quarnctl(served, "set", f"{GATEWAYS}=[]") == Run(
        0, f'{GATEWAYS}: ["10.0.0.1","10.0.0.2"] -> []\n', ""
    )
    assert sent_requests(served)[before:] == [
        {GATEWAYS: ["10.0.0.1"]},
        {"[IPv4/DHCP]Enabled": False, FIRST_GATEWAY: None},
    ]
    assert served.api_get([GATEWAYS, FIRST_GATEWAY])[GATEWAYS] == []
    assert gateways_of_kernel(served) == []


def test_a_new_address_keeps_the_routes(served: Camera) -> None:
    quarnctl(served, "set", "[IPv4/Manual]Address=10.0.0.5", f"{GATEWAYS}=10.0.0.1")
    assert quarnctl(served, "set", "[IPv4/Manual]Address=10.0.0.6").status == 0
    assert served.addresses(4) == ["10.0.0.6/24"]
    assert gateways_of_kernel(served) == ["10.0.0.1"]


def test_a_new_address_keeps_the_routes_for_who_does_not_wait_too(served: Camera) -> None:
    quarnctl(served, "set", "[IPv4/Manual]Address=10.0.0.5", f"{GATEWAYS}=10.0.0.1")
    assert quarnctl(served, "set", "--no-wait", "[IPv4/Manual]Address=10.0.0.6").status == 0
    served.wait_until(lambda: served.addresses(4) == ["10.0.0.6/24"], "the new address")
    assert served.get("[IPv4/Manual]Address") == "10.0.0.6"
    assert gateways_of_kernel(served) == ["10.0.0.1"]


# Resetting


def test_reset_puts_named_settings_back(served: Camera) -> None:
    quarnctl(served, "set", f"{MTU}=1400", "[RTSP]Port=555")
    assert quarnctl(served, "reset", MTU) == Run(0, f"{MTU}: 1400 -> 1500\n", "")
    assert served.get("[RTSP]Port") == 555


def test_the_factory_reset_asks_and_does_nothing_unasked(served: Camera) -> None:
    done = quarnctl(served, "reset", "--all")
    assert (done.status, done.stdout) == (2, "")
    assert sent_requests(served) == []


def test_the_factory_reset_leaves_only_the_name_behind(make_camera: MakeCamera) -> None:
    camera = make_camera(variables={"vesko_ipv4_dhcp_enable": "1"})
    camera.rule("/usr/sbin/arping *", status=0)
    assert start(camera) == ["READY=1"]
    quarnctl(camera, "set", f"{MTU}=1400", "[Hostname]Name=porch", f"{GATEWAYS}=10.0.0.1")
    done = quarnctl(camera, "reset", "--all", "--yes")
    assert done == Run(
        0,
        f'{GATEWAYS}: ["10.0.0.1"] -> []\n{MTU}: 1400 -> 1500\n',
        "quarnctl: [Hostname]Name: cannot be taken away, only changed; it stays porch\n",
    )
    assert quarnctl(camera, "diff").stdout == "[Hostname]Name: null -> porch\n"


# Files


def test_a_configuration_goes_from_camera_to_camera(make_camera: MakeCamera) -> None:
    first, second = (make_camera(variables={"vesko_ipv4_dhcp_enable": "0"}) for _ in range(2))
    for camera in (first, second):
        camera.rule("/usr/sbin/arping *", status=0)
        assert start(camera) == ["READY=1"]
    quarnctl(first, "set", f"{MTU}=1400", "[IPv4/Manual]Address=10.0.0.5", f"{GATEWAYS}=10.0.0.1")
    assert first.api_set({"[DNS/IPv4/DHCP]Servers": ["10.9.9.9"]})["success"]
    exported = quarnctl(first, "export").stdout
    # What a lease or discovery reported stays behind.
    assert "[DNS/IPv4/DHCP]Servers" not in json.loads(exported)
    done = quarnctl(second, "apply", "-", stdin=exported)
    assert (done.status, done.stderr) == (0, "")
    assert sent_requests(second) == [
        {"[IPv4/Manual]Address": "10.0.0.5", GATEWAYS: ["10.0.0.1"], MTU: 1400}
    ]
    assert quarnctl(second, "export").stdout == exported
    assert quarnctl(second, "apply", "-", stdin=exported) == Run(0, "", "")
    assert len(sent_requests(second)) == 1


def test_a_dry_run_of_a_file_shows_the_difference(served: Camera) -> None:
    served.write_file(
        "/tmp/new.json", json.dumps({"[RTSP]Port": 555, MTU: 1400, "[NTP]Enabled": True})
    )
    assert quarnctl(served, "apply", "--dry-run", "/tmp/new.json") == Run(
        0, f"{MTU}: 1500 -> 1400\n[RTSP]Port: 554 -> 555\n", ""
    )
    assert sent_requests(served) == []


def test_one_bad_value_in_a_file_leaves_all_as_it_is(served: Camera) -> None:
    done = quarnctl(served, "apply", "-", stdin=json.dumps({MTU: 1400, "[RTSP]Port": 0}))
    assert done == Run(
        1,
        "",
        "quarnctl: [RTSP]Port: Port out of range"
        " (accepted: a port from 1 to 65535 that nothing else uses)\n",
    )
    assert served.get(MTU) == 1500


def test_keys_that_this_camera_does_not_have_are_named_and_skipped_only_when_asked(
    served: Camera,
) -> None:
    text = f'{{\n"[WLAN]Enabled": true,\n"{MTU}": 1400\n}}'
    done = quarnctl(served, "apply", "-", stdin=text)
    assert (done.status, done.stdout) == (1, "")
    assert done.stderr.startswith("quarnctl: [WLAN]Enabled: line 2: Unknown key")
    assert sent_requests(served) == []
    assert quarnctl(served, "apply", "--skip-unknown", "-", stdin=text) == Run(
        0,
        f"{MTU}: 1500 -> 1400\n",
        "quarnctl: [WLAN]Enabled: skipped, there is no such setting here\n",
    )


def test_the_domain_of_a_file_that_names_none_says_that_it_stays(served: Camera) -> None:
    quarnctl(served, "set", "[Hostname]Domain=lan.example")
    done = quarnctl(served, "apply", "-", stdin=json.dumps({"[Hostname]Domain": None, MTU: 1400}))
    assert done == Run(
        0,
        f"{MTU}: 1500 -> 1400\n",
        "quarnctl: [Hostname]Domain: cannot be taken away, only changed; it stays lan.example\n",
    )


def test_a_link_speed_of_a_file_does_not_overwrite_its_rate_limit(served: Camera) -> None:
    quarnctl(served, "set", "[TrafficShaping]AvgRateLimit=50000")
    wanted = {"[TrafficShaping]AvgRateLimit": 50000, "[NIC/eth0/AutoNegotiated]LinkSpeed": 1000}
    assert quarnctl(served, "apply", "-", stdin=json.dumps(wanted)).status == 0
    assert served.get("[TrafficShaping]AvgRateLimit") == 50000
    assert served.get("[NIC/eth0/AutoNegotiated]LinkSpeed") == 1000


@pytest.mark.parametrize(
    ("text", "complaint"),
    [
        ("", "line 1: this is no JSON"),
        ("[]", "the file is no JSON object of settings"),
        ('{"a":1} x', "line 1: this is no JSON"),
        ("{" * 100000, "line 1: this is no JSON"),
        ('{"[NIC/eth0]MTU":1400,"[NIC/eth0]MTU":1401}', f"{MTU}: line 1: is there twice"),
    ],
)
def test_a_file_that_is_no_configuration_is_refused(
    served: Camera, text: str, complaint: str
) -> None:
    done = quarnctl(served, "apply", "-", stdin=text)
    assert (done.status, done.stdout) == (1, "")
    assert complaint in done.stderr
    assert sent_requests(served) == []


def test_a_missing_file_is_named(served: Camera) -> None:
    assert quarnctl(served, "apply", "/tmp/none.json") == Run(
        1, "", "quarnctl: /tmp/none.json: No such file or directory\n"
    )


# The state


def test_the_status_fits_one_screen(served: Camera) -> None:
    quarnctl(
        served,
        "set",
        "[IPv4/Manual]Address=10.0.0.5",
        f"{GATEWAYS}=10.0.0.1",
        "[DNS/Manual]Servers=10.0.0.2",
    )
    done = quarnctl(served, "status")
    assert done == Run(
        0,
        "link      eth0 00005E005301, 100 Mbit/s, full duplex, negotiated, MTU 1500\n"
        "address   10.0.0.5/24 (manual)\n"
        "          fe80::200:5eff:fe00:5301/64 (link-local)\n"
        "gateways  10.0.0.1 (manual)\n"
        "DNS       10.0.0.2 (manual)\n"
        "NTP       none\n"
        "name      Corvy-0000000\n"
        "ports     HTTP 80, HTTPS off, RTSP 554\n"
        "filter    TCP 22, 161, 8888; UDP 123, 161, 546, 800, 1900, 2901, 3702, [7000,8000], 30001;"
        " from UDP [6700,8000]\n"
        "shaping   80000 kbit/s, burst 10240 bytes\n"
        "wrong     there is no time server\n",
        "",
    )


def test_the_status_is_coloured_on_a_terminal_only_and_not_where_no_colour_is_wished(
    served: Camera,
) -> None:
    def on_terminal(**variables: str) -> str:
        script = ["script", "-qec", "/usr/bin/quarnctl status", "/dev/null"]
        environment = {"PATH": "/usr/bin:/bin", "TERM": "xterm", **variables}
        return served.run(script, environment=environment, check=True).stdout

    assert "\033[" in on_terminal()
    assert "\033[" not in on_terminal(NO_COLOR="1")
    assert "\033[" not in quarnctl(served, "status", TERM="xterm").stdout


# Going on


def test_monitor_prints_signals_as_they_come(served: Camera) -> None:
    with served.start(["quarnctl", "--json", "monitor"]) as monitor:
        served.wait_until(lambda: _listeners(served) > 0, "monitor on the bus")
        quarnctl(served, "set", f"{MTU}=1400")
        served.wait_until(lambda: "MTUChange" in monitor.stdout, "the signal")
        served.stop_daemon()
        served.wait_until(lambda: "ended" in monitor.stdout, "the daemon's end")
        events = [json.loads(line) for line in monitor.stdout.splitlines()]
    assert [(event["signal"], event["value"]) for event in events] == [
        ("MTUChange", 1400),
        ("the daemon has ended", None),
    ]
    assert all(event["time"][10] == "T" and event["time"][-3] == ":" for event in events)


def _listeners(camera: Camera) -> int:
    """How many match rules of clients on the bus name the daemon's signals, our own one left out."""
    debug = ["org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Debug.Stats"]
    rules = camera.run(["busctl", "--json=short", "call", *debug, "GetAllMatchRules"], check=True)
    data = json.loads(rules.stdout)["data"][0]
    return sum(
        "NameOwnerChanged" in rule and "networkingV2" in rule for r in data.values() for rule in r
    )


def test_watch_prints_values_at_first_and_as_they_change(served: Camera) -> None:
    with served.start(
        ["quarnctl", "--json", "watch", "--interval=0.2", MTU, "[RTSP]Port"]
    ) as watch:
        served.wait_until(lambda: "RTSP" in watch.stdout, "the first values")
        quarnctl(served, "set", "[RTSP]Port=555")
        served.wait_until(lambda: "555" in watch.stdout, "the change")
        events = [json.loads(line) for line in watch.stdout.splitlines()]
    assert [(event["key"], event["value"]) for event in events] == [
        (MTU, 1500),
        ("[RTSP]Port", 554),
        ("[RTSP]Port", 555),
    ]


# Without a daemon, without permission, from elsewhere


def test_without_a_daemon_it_says_how_to_start_it(camera: Camera) -> None:
    for words in (
        ["get", MTU],
        ["status"],
        ["set", f"{MTU}=1400"],
        ["set", "--no-wait", f"{MTU}=1"],
    ):
        assert quarnctl(camera, *words) == Run(3, "", NO_DAEMON)
    assert quarnctl(camera, "--json", "get", MTU).status == 3


def test_without_a_bus_it_says_so(make_camera: MakeCamera) -> None:
    camera = make_camera(bus=False)
    assert quarnctl(camera, "get", MTU) == Run(
        3, "", "quarnctl: no system bus on this machine: No such file or directory\n"
    )


def test_a_stranger_learns_which_group_may(served: Camera) -> None:
    refusal = "quarnctl: not permitted: become root, or a member of the group 'quarn'\n"
    for words in (["get", MTU], ["set", f"{MTU}=1400"], ["monitor"]):
        assert quarnctl(served, *words, groups=[]) == Run(1, "", refusal)


def test_a_member_of_the_group_may_do_everything(served: Camera) -> None:
    assert quarnctl(served, "set", f"{MTU}=1400", groups=[QUARN_GROUP]).status == 0
    assert quarnctl(served, "get", MTU, groups=[QUARN_GROUP]) == Run(0, "1400\n", "")


def test_a_camera_is_reached_over_ssh(served: Camera) -> None:
    # In the place of SSH, whose network and keys are not what is tried here: the same bridge to the
    # bus at the far end, run without a network.
    served.write_file(
        "/usr/local/bin/ssh", '#!/bin/sh\necho "$*" >>/tmp/ssh\nexec systemd-stdio-bridge\n', 0o755
    )
    assert quarnctl(served, "-H", "admin@porch", "get", MTU) == Run(0, "1500\n", "")
    assert served.read_file("/tmp/ssh") == "-xT -- admin@porch systemd-stdio-bridge\n"


def test_a_camera_that_cannot_be_reached_over_ssh_is_named(served: Camera) -> None:
    served.write_file("/usr/local/bin/ssh", "#!/bin/sh\nexit 255\n", 0o755)
    done = quarnctl(served, "-H", "admin@porch", "get", MTU)
    assert (done.status, done.stdout) == (3, "")
    assert done.stderr.startswith("quarnctl: no bus on admin@porch over SSH: ")


def test_a_time_out_is_told(served: Camera) -> None:
    rule = served.hang("/sbin/ip link set eth0 mtu *")
    done = quarnctl(served, "--timeout=1", "set", f"{MTU}=1400")
    rule.release()
    assert (done.status, done.stdout) == (3, "")
    assert "--timeout" in done.stderr


# The command line


@pytest.mark.parametrize(
    "words",
    [
        [],
        ["frobnicate"],
        ["get"],
        ["set", MTU],
        ["set", "=1"],
        ["get", "--frobnicate", MTU],
        ["reset"],
        ["reset", "--all", MTU],
        ["set", "--confirm", "0", f"{MTU}=1400"],
        ["set", "--confirm", "30", "--no-wait", f"{MTU}=1400"],
        ["-H", "-oProxyCommand=x", "get", MTU],
        ["--timeout", "soon", "get", MTU],
    ],
)
def test_a_wrong_usage_is_told_with_a_status_of_its_own(camera: Camera, words: list[str]) -> None:
    done = quarnctl(camera, *words)
    assert (done.status, done.stdout) == (2, "")
    assert done.stderr.startswith("quarnctl: ")


def test_both_programs_tell_the_same_version_and_their_usage(camera: Camera) -> None:
    version = quarnctl(camera, "--version").stdout.split()
    assert version[0] == "quarnctl"
    daemon = camera.run(["/usr/sbin/quarn", "--version"], check=True)
    assert daemon.stdout == f"quarn {version[1]}\n"
    for program in ("quarnctl", "quarn"):
        assert f"Usage: {program}" in camera.run([program, "--help"], check=True).stdout
