"""quarnctl in odd use: streams that are closed, texts that no bus carries, files of something else."""

from __future__ import annotations

import json
import time
from collections.abc import Callable

import pytest
from expectations import start
from quarnctl_runs import Run, quarnctl, quarnctl_json, sent_requests

from camlab import Camera

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

MTU = "[NIC/eth0]MTU"
NAME = "[Hostname]Name"
GATEWAYS = "[IPv4/Manual]Gateways"
SEARCH = "[DNS/Manual]Search"
UNWRITTEN = "quarnctl: the result cannot be written to standard output\n"


@pytest.fixture
def served(make_camera: MakeCamera) -> Camera:
    """Return a camera without DHCP whose daemon runs."""
    camera = make_camera(variables={"vesko_ipv4_dhcp_enable": "0"})
    camera.rule("/usr/sbin/arping *", status=0)
    assert start(camera) == ["READY=1"]
    return camera


def shell(camera: Camera, line: str) -> Run:
    """Run a line of a shell."""
    environment = {"PATH": "/usr/bin:/bin", "LANG": "C.UTF-8"}
    done = camera.run(["bash", "-c", line], timeout=60, environment=environment)
    return Run(done.returncode, done.stdout, done.stderr)


# Streams


@pytest.mark.parametrize("output", [">&-", ">/dev/full", "<&- >&-"])
@pytest.mark.parametrize("command", ["list", "export", f"get '{MTU}'", "--json status"])
def test_a_result_that_is_lost_is_no_success(served: Camera, command: str, output: str) -> None:
    assert shell(served, f"quarnctl {command} {output}") == Run(1, "", UNWRITTEN)


def test_closed_streams_do_not_keep_a_change_from_being_made(served: Camera) -> None:
    assert shell(served, f"quarnctl set '{MTU}=1400' <&- >&- 2>&-").status == 1
    assert served.get(MTU) == 1400


def test_watch_ends_when_nobody_reads_it_any_more(served: Camera) -> None:
    assert shell(served, f"quarnctl watch '{MTU}' >/dev/full") == Run(1, "", UNWRITTEN)


# Words


def test_what_is_no_text_is_a_wrong_usage(served: Camera) -> None:
    refusal = "quarnctl: '\\xff' is no UTF-8 text\n"
    for command in ("get", "list", "describe", "watch", "set", "reset"):
        assert shell(served, f"quarnctl {command} $'\\xff'") == Run(2, "", refusal)


def test_letters_that_the_bus_does_not_carry_are_refused(served: Camera) -> None:
    for words in ([f"{NAME}=\ufdd0"], ["--no-wait", f"{NAME}=\ufdd0"]):
        assert quarnctl(served, "set", *words) == Run(
            1, "", "quarnctl: a text holds letters that cannot be sent over the bus\n"
        )


def test_a_control_letter_in_a_value_is_not_lost_on_the_way(served: Camera) -> None:
    assert quarnctl(served, "set", f"{NAME}=a\x01b").status == 1
    assert sent_requests(served) == [{NAME: "a\x01b"}]


def test_null_for_a_list_is_null(served: Camera) -> None:
    assert quarnctl(served, "set", f"{SEARCH}=null").status == 1
    assert sent_requests(served) == [{SEARCH: None}]


def test_a_number_beyond_all_bounds_is_refused(served: Camera) -> None:
    complaint = (
        f"quarnctl: {MTU}: '1e999' is no such value (accepted: a number from 1200 to 1500)\n"
    )
    assert quarnctl(served, "set", f"{MTU}=1e999") == Run(1, "", complaint)
    assert quarnctl(served, "apply", "-", stdin=f'{{"{MTU}":1e999}}').status == 1
    assert sent_requests(served) == []


def test_a_key_may_be_asked_for_twice(served: Camera) -> None:
    assert quarnctl(served, "get", MTU, MTU) == Run(0, f"{MTU}=1500\n{MTU}=1500\n", "")


def test_what_cannot_be_taken_away_is_not_done_by_set(served: Camera) -> None:
    assert quarnctl(served, "set", f"{NAME}=") == Run(
        1,
        "",
        f"quarnctl: {NAME}: cannot be taken away, only changed; it stays Corvy-0000000"
        " (accepted: a name of at most 63 characters with a letter in it:"
        " letters, digits, - and _, in parts joined by dots)\n",
    )


def test_an_unknown_command_is_named(served: Camera) -> None:
    assert quarnctl(served, "frobnicate", MTU) == Run(
        2, "", "quarnctl: there is no command 'frobnicate'; see 'quarnctl --help'\n"
    )


def test_an_interval_that_is_no_number_is_a_wrong_usage(served: Camera) -> None:
    assert quarnctl(served, "watch", "--interval", "nan", MTU).status == 2


# Files


def test_a_file_with_a_dotted_netmask_changes_nothing_the_second_time(served: Camera) -> None:
    text = json.dumps({"[IPv4/Manual]Netmask": "255.255.0.0"})
    assert quarnctl(served, "apply", "-", stdin=text) == Run(
        0, "[IPv4/Manual]Netmask: 24 -> 16\n", ""
    )
    assert quarnctl(served, "apply", "-", stdin=text) == Run(0, "", "")
    assert sent_requests(served) == [{"[IPv4/Manual]Netmask": 16}]


def test_a_file_with_another_address_keeps_the_routes(served: Camera) -> None:
    quarnctl(served, "set", "[IPv4/Manual]Address=10.0.0.5", f"{GATEWAYS}=10.0.0.1")
    routes = [route["gateway"] for route in served.routes() if route["dst"] == "default"]
    text = quarnctl(served, "export").stdout.replace("10.0.0.5", "10.0.0.6")
    assert quarnctl(served, "apply", "-", stdin=text).status == 0
    assert served.addresses(4) == ["10.0.0.6/24"]
    assert (
        [r["gateway"] for r in served.routes() if r["dst"] == "default"] == routes == ["10.0.0.1"]
    )


def test_a_file_of_something_else_is_refused_soon(served: Camera) -> None:
    text = json.dumps({f"k{number}": number for number in range(60000)})
    before = time.monotonic()
    done = quarnctl(served, "apply", "-", stdin=text)
    assert (done.status, len(done.stderr.splitlines())) == (1, 60000)
    # Lines counted anew for each key take half a minute on an idle machine.
    assert time.monotonic() - before < 10


def test_skipped_keys_are_told_to_programs_in_the_result(served: Camera) -> None:
    text = json.dumps({"[WLAN]Enabled": True, MTU: 1400})
    done = quarnctl_json(served, "apply", "--skip-unknown", "-", stdin=text)
    assert done == {
        "success": True,
        "errors": [],
        "changes": [{"key": MTU, "before": 1500, "after": 1400}],
        "left_alone": [
            {
                "key": "[WLAN]Enabled",
                "code": 7,
                "msg": "skipped, there is no such setting here",
            }
        ],
    }


def test_a_files_name_cannot_speak_to_the_terminal(served: Camera) -> None:
    assert quarnctl(served, "apply", "/tmp/\x1b[2J") == Run(
        1, "", "quarnctl: /tmp/\\x1b[2J: No such file or directory\n"
    )


# Without waiting


def test_who_does_not_wait_sends_only_what_differs_of_a_file_too(served: Camera) -> None:
    exported = json.loads(quarnctl(served, "export").stdout)
    text = json.dumps({**exported, MTU: 1400})
    assert quarnctl(served, "apply", "--no-wait", "-", stdin=text).status == 0
    served.wait_signal("MTUChange")
    assert sent_requests(served) == [{MTU: 1400}]


def test_who_does_not_wait_takes_gateways_away_with_a_file_too(served: Camera) -> None:
    exported = quarnctl(served, "export").stdout
    quarnctl(served, "set", "[IPv4/Manual]Address=10.0.0.5", f"{GATEWAYS}=10.0.0.1")
    assert quarnctl(served, "apply", "--no-wait", "-", stdin=exported).status == 0
    served.wait_until(lambda: served.get(GATEWAYS) == [], "the end of the gateways")


def test_a_dry_run_knows_what_is_there_for_who_would_not_wait_too(served: Camera) -> None:
    assert quarnctl(served, "set", "-n", "--no-wait", f"{MTU}=1400") == Run(
        0, f"{MTU}: 1500 -> 1400\n", ""
    )
    assert quarnctl(served, "set", "-n", "--no-wait", f"{MTU}=1500") == Run(0, "", "")


def test_what_was_not_read_is_no_change_of_nothing(served: Camera) -> None:
    assert quarnctl_json(served, "set", "--no-wait", "[RTSP]Port=555")["changes"] == []
