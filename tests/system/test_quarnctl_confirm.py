"""Changes on trial: what is not confirmed in time is taken back, whatever happens meanwhile."""

from __future__ import annotations

import json
import signal
import time
from collections.abc import Callable
from typing import Any

import pytest
from expectations import start
from quarnctl_runs import (
    QUARN_GROUP,
    STATE,
    Run,
    make_state_folder,
    quarnctl,
    quarnctl_json,
    sent_requests,
)

from camlab import Camera, Process

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

MS_BIND = 4096
MTU = "[NIC/eth0]MTU"
PORT = "[Webserver/HTTP]Port"
GATEWAYS = "[IPv4/Manual]Gateways"
PENDING = f"{STATE}/pending.json"
RESTORING = f"{STATE}/restoring.json"
TAKEN_BACK = "the change is taken back"
COUNTDOWN = "Enter or 'quarnctl confirm' keeps it"
KEYBOARD = "/tmp/keyboard"
SHOWN = "/tmp/shown"


@pytest.fixture
def served(make_camera: MakeCamera) -> Camera:
    """Return a camera without DHCP whose daemon runs; the guard does not."""
    camera = make_camera(variables={"vesko_ipv4_dhcp_enable": "0"})
    camera.rule("/usr/sbin/arping *", status=0)
    make_state_folder(camera)
    assert start(camera) == ["READY=1"]
    return camera


@pytest.fixture
def guarded(served: Camera) -> Camera:
    """Return the same with a guard that stays."""
    start_guard(served, "--stay")
    return served


def start_guard(camera: Camera, *words: str) -> Process:
    """Start the guard as its unit does."""
    return camera.start(["/usr/bin/quarnctl", "guard", *words])


def wait_outcome(camera: Camera, result: str) -> dict[str, Any]:
    """Wait until the change that waited is no more; return what is noted about it."""
    camera.wait_until(
        lambda: not camera.files.exists(PENDING) and not camera.files.exists(RESTORING),
        "the end of the change",
    )
    outcome: dict[str, Any] = json.loads(camera.read_file(f"{STATE}/last.json"))
    assert outcome["result"] == result
    return outcome


def try_change(camera: Camera, *words: str, seconds: int = 60, **more: Any) -> None:
    """Make a change on trial."""
    done = quarnctl(camera, "set", f"--confirm={seconds}", *words, **more)
    assert (done.status, done.stderr) == (0, "")


def another_boot(camera: Camera) -> None:
    """Pull the plug and start again; the kernel of the camera's host must not seem the same one."""
    camera.reboot()
    camera.write_file("/.camlab/boot_id", "5eaf00d5-0000-4000-8000-000000000000\n")
    camera.mount("/.camlab/boot_id", "/proc/sys/kernel/random/boot_id", flags=MS_BIND)


# What a confirm does, and its absence


def test_a_change_without_a_confirm_is_taken_back(guarded: Camera) -> None:
    done = quarnctl(guarded, "set", "--confirm=1", f"{MTU}=1400")
    assert done == Run(
        0,
        f"{MTU}: 1500 -> 1400\n"
        "taken back in 1 s unless 'quarnctl confirm' comes before;"
        " 'quarnctl rollback' takes it back at once\n",
        "",
    )
    assert guarded.get(MTU) == 1400
    assert wait_outcome(guarded, "taken back")["errors"] == []
    assert (guarded.get(MTU), guarded.link()["mtu"]) == (1500, 1500)


def test_a_confirmed_change_stays(served: Camera) -> None:
    guard = start_guard(served, "--stay")
    try_change(served, f"{MTU}=1400", seconds=2)
    deadline = json.loads(served.read_file(f"{STATE}/answered.json"))["deadline"]
    assert quarnctl(served, "confirm") == Run(0, "the change is confirmed\n", "")
    served.wait_until(
        lambda: time.clock_gettime(time.CLOCK_BOOTTIME) * 1000 > deadline + 500, "time"
    )
    assert guard.stderr == ""
    assert (served.get(MTU), served.link()["mtu"]) == (1400, 1400)
    assert len(sent_requests(served)) == 1


def test_rollback_takes_a_change_back_at_once(guarded: Camera) -> None:
    try_change(guarded, f"{MTU}=1400")
    assert quarnctl(guarded, "rollback") == Run(0, f"{TAKEN_BACK}\n", "")
    assert guarded.get(MTU) == 1500
    assert quarnctl(guarded, "confirm") == Run(
        1, "", "quarnctl: no change waits for a confirm; the last one was taken back\n"
    )


def test_a_file_is_applied_on_trial(guarded: Camera) -> None:
    wanted = {MTU: 1400, "[RTSP]Port": 555}
    done = quarnctl(guarded, "apply", "--confirm=60", "-", stdin=json.dumps(wanted))
    assert done.status == 0
    assert quarnctl(guarded, "rollback").status == 0
    assert guarded.api_get([MTU, "[RTSP]Port"]) == {
        "success": True,
        "errors": [],
        MTU: 1500,
        "[RTSP]Port": 554,
    }


def test_the_factory_reset_can_be_tried(guarded: Camera) -> None:
    quarnctl(guarded, "set", f"{MTU}=1400", "[IPv4/Manual]Address=10.0.0.5", f"{GATEWAYS}=10.0.0.1")
    before = quarnctl(guarded, "export").stdout
    assert quarnctl(guarded, "reset", "--all", "--yes", "--confirm=60").status == 0
    assert guarded.get(MTU) == 1500
    assert quarnctl(guarded, "rollback").status == 0
    assert quarnctl(guarded, "export").stdout == before


def test_an_address_comes_back_with_its_routes(guarded: Camera) -> None:
    quarnctl(guarded, "set", "[IPv4/Manual]Address=10.0.0.5", f"{GATEWAYS}=10.0.0.1,10.0.0.2")
    routes = guarded.routes()
    try_change(guarded, "[IPv4/Manual]Address=10.7.0.5", f"{GATEWAYS}=10.7.0.1")
    assert guarded.addresses(4) == ["10.7.0.5/24"]
    assert quarnctl(guarded, "rollback").status == 0
    assert (guarded.addresses(4), guarded.routes()) == (["10.0.0.5/24"], routes)


def test_an_address_comes_back_with_routes_whose_gateways_did_not_change(guarded: Camera) -> None:
    quarnctl(guarded, "set", "[IPv4/Manual]Address=10.0.0.5", f"{GATEWAYS}=10.0.0.1,10.0.0.2")
    routes = guarded.routes()
    for address in ("10.9.0.5", ""):
        try_change(guarded, f"[IPv4/Manual]Address={address}")
        assert quarnctl(guarded, "rollback").status == 0
        assert (guarded.addresses(4), guarded.routes()) == (["10.0.0.5/24"], routes)


def test_ipv6_comes_back_with_the_mtu_that_it_needs(guarded: Camera) -> None:
    words = ["[IPv6/Manual]Addresses=2001:db8::5/64", "[IPv6/Manual]Gateways=2001:db8::1"]
    quarnctl(guarded, "set", *words)
    addresses = guarded.addresses(6)
    assert "2001:db8::5/64" in addresses
    try_change(guarded, f"{MTU}=1200")
    assert guarded.addresses(6) == []
    assert quarnctl(guarded, "rollback").status == 0
    guarded.wait_until(lambda: sorted(guarded.addresses(6)) == sorted(addresses), "the addresses")


def test_gateways_that_were_taken_away_come_back(guarded: Camera) -> None:
    quarnctl(guarded, "set", "[IPv4/Manual]Address=10.0.0.5", f"{GATEWAYS}=10.0.0.1,10.0.0.2")
    try_change(guarded, f"{GATEWAYS}=")
    assert guarded.get(GATEWAYS) == []
    assert quarnctl(guarded, "rollback").status == 0
    assert guarded.get(GATEWAYS) == ["10.0.0.1", "10.0.0.2"]


def test_gateways_that_were_not_there_go_away_again(guarded: Camera) -> None:
    try_change(guarded, "[IPv4/Manual]Address=10.0.0.5", f"{GATEWAYS}=10.0.0.1")
    assert quarnctl(guarded, "rollback").status == 0
    values = guarded.api_get([GATEWAYS, "[IPv4/Manual]DefaultGateway", "[IPv4/Manual]Address"])
    assert list(values.values())[2:] == [[], None, None]


def test_a_rate_limit_that_a_link_speed_overwrote_comes_back(guarded: Camera) -> None:
    quarnctl(guarded, "set", "[TrafficShaping]AvgRateLimit=50000")
    try_change(guarded, "[NIC/eth0/AutoNegotiated]LinkSpeed=1000")
    assert guarded.get("[TrafficShaping]AvgRateLimit") == 240000
    assert quarnctl(guarded, "rollback").status == 0
    assert guarded.get("[TrafficShaping]AvgRateLimit") == 50000
    assert guarded.get("[NIC/eth0/AutoNegotiated]LinkSpeed") == 100


def test_what_cannot_be_taken_back_is_told_before(guarded: Camera) -> None:
    done = quarnctl(guarded, "set", "--confirm=60", "[Hostname]Domain=lan.example", f"{MTU}=1400")
    assert done.stderr == "quarnctl: [Hostname]Domain: cannot be taken back to having no value\n"
    assert quarnctl(guarded, "rollback") == Run(1, f"{TAKEN_BACK} in part\n", "")
    assert (guarded.get(MTU), guarded.get("[Hostname]Domain")) == (1500, "lan.example")


# Who dies meanwhile


def test_it_is_taken_back_when_the_connection_that_made_it_dies(guarded: Camera) -> None:
    rule = guarded.hang("/sbin/ip link set eth0 mtu *")
    with guarded.start(["quarnctl", "set", "--confirm=1", f"{MTU}=1400"]) as client:
        guarded.wait_log("api_set: API call: SET.")
        client.stop(signal.SIGKILL)
    rule.release()
    wait_outcome(guarded, "taken back")
    assert (guarded.get(MTU), guarded.link()["mtu"]) == (1500, 1500)


def test_the_time_counts_from_the_answer_of_a_change_that_takes_longer(guarded: Camera) -> None:
    rule = guarded.hang("/sbin/ip link set eth0 mtu *")
    with guarded.start(["quarnctl", "set", "--confirm=20", f"{MTU}=1400"]) as client:
        guarded.wait_log("api_set: API call: SET.")
        first = json.loads(guarded.read_file(PENDING))["deadline"]
        rule.release()
        assert client.wait() == 0
    assert json.loads(guarded.read_file(f"{STATE}/answered.json"))["deadline"] > first
    assert quarnctl(guarded, "confirm").status == 0


def test_a_change_under_way_is_not_taken_back_before_its_answer(guarded: Camera) -> None:
    rule = guarded.hang("/sbin/ip link set eth0 mtu *")
    with guarded.start(["quarnctl", "set", "--confirm=1", f"{MTU}=1400"]) as client:
        guarded.wait_log("api_set: API call: SET.")
        deadline = json.loads(guarded.read_file(PENDING))["deadline"]
        guarded.wait_until(
            lambda: time.clock_gettime(time.CLOCK_BOOTTIME) * 1000 > deadline + 1500, "time"
        )
        assert guarded.files.exists(PENDING)
        rule.release()
        assert client.wait() == 0
    wait_outcome(guarded, "taken back")


def test_a_guard_that_dies_is_followed_by_another(served: Camera) -> None:
    guard = start_guard(served, "--stay")
    try_change(served, f"{MTU}=1400", seconds=2)
    guard.stop(signal.SIGKILL)
    next_guard = start_guard(served)
    assert next_guard.wait() == 0
    wait_outcome(served, "taken back")
    assert served.get(MTU) == 1500


def test_a_rollback_without_a_guard_says_so_and_is_made_up_for(served: Camera) -> None:
    guard = start_guard(served, "--stay")
    try_change(served, f"{MTU}=1400")
    guard.stop(signal.SIGKILL)
    assert quarnctl(served, "rollback") == Run(
        1,
        "",
        "quarnctl: nobody takes the change back yet;"
        " start the guard with: systemctl start quarnctl-guard.path\n",
    )
    assert start_guard(served).wait() == 0
    wait_outcome(served, "taken back")
    assert served.get(MTU) == 1500


def test_a_daemon_that_is_away_is_waited_for(guarded: Camera) -> None:
    try_change(guarded, f"{MTU}=1400", seconds=1)
    guarded.kill_daemon()
    guarded.wait_until(lambda: guarded.files.exists(RESTORING), "the time's end")
    assert start(guarded) == ["READY=1"]
    wait_outcome(guarded, "taken back")
    assert (guarded.get(MTU), guarded.link()["mtu"]) == (1500, 1500)


def test_after_a_power_cut_within_the_time_the_old_values_come_back(served: Camera) -> None:
    start_guard(served, "--stay")
    try_change(served, f"{MTU}=1400", seconds=3600)
    another_boot(served)
    assert start(served) == ["READY=1"]
    assert served.get(MTU) == 1400
    guard = start_guard(served)
    assert guard.wait() == 0
    wait_outcome(served, "taken back")
    assert (served.get(MTU), served.link()["mtu"]) == (1500, 1500)


def test_a_record_by_another_boots_clock_does_not_block_later_changes(guarded: Camera) -> None:
    record = {"id": "1", "milliseconds": 1000, "deadline": 1 << 52, "restore": {MTU: 1450}}
    guarded.files.replace(PENDING, json.dumps(record).encode())
    wait_outcome(guarded, "taken back")
    assert guarded.get(MTU) == 1450


def test_the_guard_of_the_next_boot_may_come_before_the_bus_and_the_daemon(served: Camera) -> None:
    start_guard(served, "--stay")
    try_change(served, f"{MTU}=1400", seconds=3600)
    another_boot(served)
    served.stop_bus()
    guard = start_guard(served)
    served.wait_until(lambda: served.files.exists(RESTORING), "the guard")
    served.start_bus()
    assert start(served) == ["READY=1"]
    assert guard.wait() == 0
    assert served.get(MTU) == 1500


def test_after_a_power_cut_a_confirmed_change_stays(served: Camera) -> None:
    start_guard(served, "--stay")
    try_change(served, f"{MTU}=1400")
    assert quarnctl(served, "confirm").status == 0
    another_boot(served)
    assert start(served) == ["READY=1"]
    assert start_guard(served).wait() == 0
    assert served.get(MTU) == 1400


def test_a_restoring_that_a_power_cut_ended_goes_on(served: Camera) -> None:
    guard = start_guard(served, "--stay")
    try_change(served, f"{MTU}=1400", "[RTSP]Port=555")
    rule = served.hang("/sbin/ip link set eth0 mtu *")
    with served.start(["quarnctl", "rollback"]):
        served.wait_log("api_set: API call: SET.", count=2)
        guard.stop(signal.SIGKILL)
    served.kill_daemon()
    rule.release()
    another_boot(served)
    assert start(served) == ["READY=1"]
    assert start_guard(served).wait() == 0
    wait_outcome(served, "taken back")
    assert (served.get(MTU), served.get("[RTSP]Port")) == (1500, 554)


# What goes wrong


def test_without_a_guard_nothing_is_changed(served: Camera) -> None:
    done = quarnctl(served, "set", "--confirm=60", f"{MTU}=1400")
    assert done == Run(
        1,
        "",
        "quarnctl: the change is not made: nobody would take it back;"
        " start the guard with: systemctl start quarnctl-guard.path\n",
    )
    assert sent_requests(served) == []
    assert not served.files.exists(PENDING)


def test_a_refused_change_leaves_nothing_to_confirm(guarded: Camera) -> None:
    done = quarnctl(guarded, "set", "--confirm=60", f"{MTU}=9000")
    assert (done.status, done.stdout) == (1, "")
    assert quarnctl(guarded, "confirm") == Run(1, "", "quarnctl: no change waits for a confirm\n")


def test_a_change_that_changes_nothing_needs_no_confirm(served: Camera) -> None:
    wanted = json.dumps({MTU: 1500})
    assert quarnctl(served, "apply", "--confirm=60", "-", stdin=wanted) == Run(0, "", "")


def test_a_second_change_waits_for_the_first(guarded: Camera) -> None:
    try_change(guarded, f"{MTU}=1400")
    done = quarnctl(guarded, "set", "--confirm=60", "[RTSP]Port=555")
    assert done == Run(
        1,
        "",
        "quarnctl: another change waits for its confirm:"
        " 'quarnctl confirm' keeps it, 'quarnctl rollback' takes it back\n",
    )
    assert guarded.get("[RTSP]Port") == 554


def test_what_the_daemon_refuses_to_take_back_does_not_hold_up_the_rest(guarded: Camera) -> None:
    try_change(guarded, f"{MTU}=1400", f"{PORT}=8080")
    with guarded.start(["python3", "-m", "http.server", "80"]) as server:
        guarded.wait_until(
            lambda: not guarded.api_set({"[TCP/Port]InUse": 80})["success"], "a server on port 80"
        )
        done = quarnctl(guarded, "rollback")
        server.stop()
    assert done == Run(1, f"{TAKEN_BACK} in part\n", "")
    assert (guarded.get(MTU), guarded.get(PORT)) == (1500, 8080)
    outcome = wait_outcome(guarded, "taken back in part")
    assert outcome["errors"] == [{"key": PORT, "code": 11, "msg": "Proposed port is in use"}]


def test_what_stands_in_the_way_for_a_moment_is_taken_back_later(guarded: Camera) -> None:
    try_change(guarded, f"{MTU}=1400")
    guarded.fill_store()
    with guarded.start(["quarnctl", "rollback"]) as rollback:
        guarded.wait_log("api_set: API call: SET.", count=2)
        guarded.empty_store()
        assert rollback.wait(60) == 0
    assert guarded.get(MTU) == 1500


def test_a_damaged_record_is_set_aside_and_later_changes_are_watched(guarded: Camera) -> None:
    guarded.write_file(PENDING, '{"id":"1","deadline"')
    guarded.wait_until(lambda: not guarded.files.exists(PENDING), "the guard")
    assert guarded.files.exists(f"{PENDING}.damaged")
    try_change(guarded, f"{MTU}=1400", seconds=1)
    wait_outcome(guarded, "taken back")


def test_one_guard_is_enough(guarded: Camera) -> None:
    try_change(guarded, f"{MTU}=1400")
    second = start_guard(guarded)
    assert second.wait() == 0
    assert second.stderr == f"<5>another guard watches {STATE}\n"


# Who may


def test_a_member_of_the_group_may_try_and_another_one_confirm(guarded: Camera) -> None:
    try_change(guarded, f"{MTU}=1400", groups=[QUARN_GROUP])
    assert quarnctl(guarded, "confirm").status == 0
    try_change(guarded, f"{MTU}=1300")
    assert quarnctl(guarded, "rollback", groups=[QUARN_GROUP]).status == 0


def test_a_stranger_may_neither_confirm_nor_take_back(guarded: Camera) -> None:
    try_change(guarded, f"{MTU}=1400")
    refusal = (
        f"quarnctl: not permitted to write in {STATE}:"
        " become root, or a member of the group 'quarn'\n"
    )
    for command in ("confirm", "rollback"):
        assert quarnctl(guarded, command, groups=[]) == Run(1, "", refusal)
    assert guarded.files.exists(PENDING)


# On a terminal, for programs, from elsewhere


def test_a_countdown_is_shown_on_a_terminal_and_enter_keeps_the_change(guarded: Camera) -> None:
    with on_terminal(guarded, f"quarnctl set --confirm=60 '{MTU}=1400'") as terminal:
        guarded.wait_until(lambda: COUNTDOWN in guarded.read_file(SHOWN), "the countdown")
        press_enter(guarded)
        assert terminal.wait(60) == 0
    assert f"taken back in 60 s; {COUNTDOWN}" in guarded.read_file(SHOWN)
    assert "the change is confirmed" in guarded.read_file(SHOWN)
    assert guarded.get(MTU) == 1400


def test_what_is_typed_before_the_countdown_confirms_nothing(guarded: Camera) -> None:
    rule = guarded.hang("/sbin/ip link set eth0 mtu *")
    with on_terminal(guarded, f"quarnctl set --confirm=2 '{MTU}=1400'") as terminal:
        guarded.wait_log("api_set: API call: SET.")
        press_enter(guarded)
        # The terminal shows what is typed, so it has arrived.
        guarded.wait_until(lambda: "\n" in guarded.read_file(SHOWN), "the key")
        rule.release()
        assert terminal.wait(60) == 1
    assert TAKEN_BACK in guarded.read_file(SHOWN)
    assert guarded.get(MTU) == 1500


def test_the_countdown_fits_a_narrow_terminal(guarded: Camera) -> None:
    with on_terminal(guarded, f"stty cols 30; quarnctl set --confirm=1 '{MTU}=1400'") as terminal:
        assert terminal.wait(60) == 1
    lines = guarded.read_file(SHOWN).split("\r\033[K")
    assert lines[1] == "taken back in 1 s; Enter or '"


def on_terminal(camera: Camera, command: str) -> Process:
    """Run a command on a terminal of its own, whose keyboard is a pipe."""
    camera.run(["rm", "-f", KEYBOARD, SHOWN], check=True)
    camera.run(["mkfifo", KEYBOARD], check=True)
    camera.write_file(SHOWN, "")
    line = f'exec script -qefc "$0" {SHOWN} <>{KEYBOARD}'
    return camera.start(["sh", "-c", line, command])


def press_enter(camera: Camera) -> None:
    """Press Enter on the keyboard of that terminal."""
    camera.run(["sh", "-c", f"echo >{KEYBOARD}"], check=True)


def test_the_status_tells_of_a_change_on_trial(guarded: Camera) -> None:
    try_change(guarded, f"{MTU}=1400", seconds=3600)
    lines = quarnctl(guarded, "status").stdout.splitlines()
    assert [line for line in lines if line.startswith("on trial  a change is taken back in 3")]
    assert quarnctl(guarded, "rollback").status == 0
    assert "on trial" not in quarnctl(guarded, "status").stdout


def test_the_result_as_json_names_the_time(guarded: Camera) -> None:
    assert quarnctl_json(guarded, "set", "--confirm=60", f"{MTU}=1400") == {
        "success": True,
        "errors": [],
        "changes": [{"key": MTU, "before": 1500, "after": 1400}],
        "left_alone": [],
        "confirm_within": 60,
    }
    assert quarnctl_json(guarded, "rollback") == {
        "success": True,
        "errors": [],
        "result": "taken back",
    }


def test_what_cannot_be_taken_back_is_told_to_programs_in_the_result(guarded: Camera) -> None:
    done = quarnctl_json(guarded, "set", "--confirm=60", "[Hostname]Domain=lan.example")
    assert done["left_alone"] == [
        {
            "key": "[Hostname]Domain",
            "code": 3,
            "msg": "cannot be taken back to having no value",
        }
    ]


def test_a_camera_that_ssh_does_not_reach_is_named(guarded: Camera) -> None:
    guarded.write_file("/usr/local/bin/ssh", "#!/bin/sh\nexit 255\n", 0o755)
    assert quarnctl(guarded, "-H", "admin@porch", "confirm") == Run(
        3, "", "quarnctl: quarnctl could not be run on admin@porch over SSH\n"
    )


def test_over_ssh_the_whole_command_runs_on_the_camera(guarded: Camera) -> None:
    # In the place of SSH: the far end's shell, without the network between.
    guarded.write_file(
        "/usr/local/bin/ssh",
        '#!/bin/sh\n[ "$1 $2 $3" = "-xT -- admin@porch" ] || exit 255\nexec sh -c "$4"\n',
        0o755,
    )
    guarded.write_file("/tmp/new.json", json.dumps({MTU: 1400, "[Hostname]Name": "it-s"}))
    done = quarnctl(guarded, "-H", "admin@porch", "apply", "--confirm=60", "/tmp/new.json")
    assert (done.status, done.stderr) == (0, "")
    assert quarnctl(guarded, "-H", "admin@porch", "confirm").status == 0
    assert guarded.get(MTU) == 1400
    words = ["-H", "admin@porch", "set", "--confirm=60", "[DNS/Manual]Search=it's,$(reboot)"]
    assert "it's" in quarnctl(guarded, *words).stderr
