"""The virtual camera itself.

Where a test needs a daemon, the camera's daemon is a Python interpreter: it runs commands and
speaks on the bus just as the real one does.
"""

from __future__ import annotations

import os
import select
import signal
import socket
import subprocess
import textwrap
from collections.abc import Callable
from pathlib import Path

import pytest

from camlab import (
    BusError,
    Camera,
    CameraError,
    Command,
    LinkModes,
    Mode,
    Signal,
)

PYTHON = "/usr/bin/python3"
PROGRAM = str(Path(__file__).resolve().parents[2] / "camera" / "camera")
MakeCamera = Callable[..., Camera]

PREAMBLE = """
import os, signal, socket, sys
def notify(text):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as supervisor:
        supervisor.sendto(text.encode(), os.environ["NOTIFY_SOCKET"])
"""

PROVIDER = """
from jeepney import DBusAddress, MessageType, new_error, new_method_return, new_signal
from jeepney.bus_messages import message_bus
from jeepney.io.blocking import open_dbus_connection
NAME = "com.vesko.networkingV2"
bus = open_dbus_connection("SYSTEM")
bus.send_and_get_reply(message_bus.RequestName(NAME))
notify("READY=1")
while True:
    call = bus.receive()
    if call.header.message_type != MessageType.method_call:
        continue
    if call.body == ("nothing",):
        bus.send(new_error(call, NAME + ".Error.NoResponse"))
        continue
    emitter = DBusAddress("/com/vesko/networkingV2", interface=NAME)
    bus.send(new_signal(emitter, "MTUChange", "i", (1400,)))
    bus.send(new_method_return(call, "s", ('{"success": true, "request": %s}' % call.body,)))
"""


def start(camera: Camera, script: str) -> None:
    """Start a script as the camera's daemon."""
    camera.start_daemon("-c", PREAMBLE + textwrap.dedent(script))


def run_commands(camera: Camera, *commands: str | bytes) -> None:
    """Have the camera's daemon run shell commands one after the other, and end."""
    start(camera, f"for command in {list(commands)!r}: os.system(command)")
    assert camera.wait_daemon() == 0


def wait_for_answer(camera: Camera, address: str) -> None:
    """Ping until an address answers: the first question can meet a neighbour entry of before."""
    camera.wait_until(lambda: can_ping(camera, address), f"{address} answers")


def can_ping(camera: Camera, address: str) -> bool:
    """Whether an address answers within a second."""
    return camera.run(["busybox", "ping", "-c1", "-W1", address]).returncode == 0


def host_state() -> tuple[str, str, str, list[str], str]:
    """What a camera could have left on the host."""
    return (
        Path("/proc/self/mountinfo").read_text(),
        socket.gethostname(),
        Path("/proc/sys/net/ipv4/ip_forward").read_text(),
        sorted(os.listdir("/sys/class/net")),
        Path("/etc/hostname").read_text() if os.path.exists("/etc/hostname") else "",
    )


# What is in a camera


def test_eth0_is_a_plugged_in_network_card(camera: Camera) -> None:
    link = camera.link()
    assert link["address"] == "00:00:5e:00:53:01"
    assert link["qdisc"] == "pfifo_fast"
    assert "LOWER_UP" in link["flags"]
    assert camera.addresses(family=4) == []


def test_the_tools_of_the_daemon_are_in_their_places(camera: Camera) -> None:
    for path in ("/usr/sbin/arping", "/sbin/udhcpc"):
        assert "BusyBox" in camera.run([path, "--help"]).stderr
    assert camera.run(["/bin/hostname"]).stdout == "camera\n"
    assert camera.run(["/sbin/ifconfig", "eth0"]).returncode == 0
    assert camera.run(["/sbin/tc", "qdisc", "show", "dev", "eth0"]).returncode == 0
    assert camera.run(["iptables-restore"], input="*filter\nCOMMIT\n").returncode == 0


def test_a_camera_leaves_the_host_as_it_was(make_camera: MakeCamera) -> None:
    before = host_state()
    camera = make_camera()
    camera.write_file("/etc/hostname", "elsewhere\n")
    camera.files.link("/etc/camlab-link", "/tmp/camlab-file")
    camera.write_file("/etc/camlab-link", "through an absolute link")
    camera.run(["hostname", "elsewhere"], check=True)
    camera.run(["sysctl", "-w", "net.ipv4.ip_forward=1"], check=True)
    camera.run(["sh", "-c", "echo >/var/lib/quarn/x; echo >/run/x; echo >/var/tmp/x"], check=True)
    assert camera.read_file("/tmp/camlab-file") == "through an absolute link"
    camera.close()
    assert host_state() == before
    for path in (
        "/etc/camlab-link",
        "/tmp/camlab-file",
        "/var/lib/quarn/x",
        "/run/x",
        "/var/tmp/x",
    ):
        assert not os.path.lexists(path)


def test_kernel_settings_that_are_not_the_cameras_own_are_read_only(camera: Camera) -> None:
    done = camera.run(["sh", "-c", "echo 1 >/proc/sys/kernel/panic"])
    assert "Read-only file system" in done.stderr


def test_cameras_side_by_side_know_nothing_of_each_other(make_camera: MakeCamera) -> None:
    cameras = [make_camera(hostname=name) for name in ("north", "south")]
    for number, camera in enumerate(cameras, 1):
        camera.run(["ip", "address", "add", f"10.0.0.{number}/24", "dev", "eth0"], check=True)
        camera.write_file("/var/lib/quarn/number", str(number))
    assert [camera.run(["hostname"]).stdout for camera in cameras] == ["north\n", "south\n"]
    assert [camera.addresses(4) for camera in cameras] == [["10.0.0.1/24"], ["10.0.0.2/24"]]
    assert [camera.read_file("/var/lib/quarn/number") for camera in cameras] == ["1", "2"]
    assert not can_ping(cameras[0], "10.0.0.2")


def test_a_shared_folder_keeps_what_the_camera_writes(
    make_camera: MakeCamera, tmp_path: Path
) -> None:
    camera = make_camera(share=[str(tmp_path)])
    camera.run(["touch", str(tmp_path / "written")], check=True)
    assert os.listdir(tmp_path) == ["written"]
    camera.reboot()
    assert camera.files.names(str(tmp_path)) == ["written"]


def test_the_kernel_command_line_can_be_another(make_camera: MakeCamera) -> None:
    camera = make_camera(kernel_command_line="root=/dev/nfs\n")
    assert camera.run(["cat", "/proc/cmdline"]).stdout == "root=/dev/nfs\n"
    camera.set_kernel_command_line("root=/dev/mmcblk0p2\n")
    assert camera.run(["cat", "/proc/cmdline"]).stdout == "root=/dev/mmcblk0p2\n"


def test_a_full_store_takes_nothing_until_it_is_emptied(camera: Camera) -> None:
    write = ["sh", "-c", "echo text >/var/lib/quarn/file"]
    camera.fill_store()
    assert camera.run(write).returncode != 0
    camera.empty_store()
    assert camera.run(write).returncode == 0


def test_a_read_only_store_takes_nothing(camera: Camera) -> None:
    camera.set_store_read_only()
    assert "Read-only" in camera.run(["touch", "/var/lib/quarn/file"]).stderr
    camera.set_store_read_only(False)
    assert camera.run(["touch", "/var/lib/quarn/file"]).returncode == 0


def test_a_reboot_keeps_files_and_drops_all_that_lived_in_memory(camera: Camera) -> None:
    kept = ["/var/lib/quarn/settings", "/etc/quarn/quarn.conf", "/boot/uboot.env"]
    lost = ["/tmp/file", "/run/file", "/var/tmp/file"]
    for path in kept[:2] + lost:
        camera.write_file(path, "text")
    camera.run(["ip", "address", "add", "10.0.0.1/24", "dev", "eth0"], check=True)
    sleeper = camera.start(["sleep", "infinity"])
    camera.reboot()
    assert sleeper.wait() == -signal.SIGKILL
    assert [path for path in kept + lost if camera.files.exists(path)] == kept
    assert camera.addresses(family=4) == []
    assert camera.run(["busctl", "list"]).returncode == 0
    camera.lan.own("192.168.0.20")
    camera.run(["ip", "address", "add", "192.168.0.90/24", "dev", "eth0"], check=True)
    wait_for_answer(camera, "192.168.0.20")


# The LAN


def test_frames_pass_until_the_cable_is_cut_and_again_when_it_is_joined(camera: Camera) -> None:
    camera.lan.own("192.168.0.20")
    camera.run(["ip", "address", "add", "192.168.0.90/24", "dev", "eth0"], check=True)
    wait_for_answer(camera, "192.168.0.20")
    camera.cable.cut()
    assert "NO-CARRIER" in camera.link()["flags"]
    assert not can_ping(camera, "192.168.0.20")
    camera.cable.join()
    assert "LOWER_UP" in camera.link()["flags"]
    wait_for_answer(camera, "192.168.0.20")


def test_arping_finds_the_address_that_a_peer_owns(camera: Camera) -> None:
    probe = ["/usr/sbin/arping", "-D", "-c2", "192.168.0.20"]
    camera.lan.own("192.168.0.20")
    assert camera.run(probe).returncode == 1
    camera.lan.disown("192.168.0.20")
    assert camera.run(probe).returncode == 0


def test_the_peer_has_files_and_a_name_of_its_own(camera: Camera) -> None:
    camera.lan.files.write("/etc/resolv.conf", "nameserver 192.0.2.1\n")
    assert camera.lan.run(["cat", "/etc/resolv.conf"]).stdout == "nameserver 192.0.2.1\n"
    assert camera.run(["cat", "/etc/resolv.conf"]).stdout != "nameserver 192.0.2.1\n"
    assert camera.lan.run(["hostname"]).stdout == "lan\n"


def test_the_link_modes_are_those_that_the_test_sets(camera: Camera) -> None:
    modes = LinkModes(Mode.FULL_100 | Mode.MII, Mode.FULL_100, speed=100, duplex=0, autoneg=False)
    camera.set_link_modes(modes)
    assert camera.link_modes() == modes
    camera.set_link_modes(speed=2500)
    output = camera.run(["ethtool", "eth0"]).stdout
    assert "Speed: 2500Mb/s" in output
    assert "Duplex: Half" in output


# The recorder


def test_commands_are_recorded_with_their_exact_texts_and_statuses(make_camera: MakeCamera) -> None:
    camera = make_camera(binary=PYTHON)
    texts = ["true", "exit 7", ": two\n: lines  ", ": end 1 2 3", "kill -TERM $$", ""]
    run_commands(camera, *texts, b": \xff\xfe")
    assert camera.commands() == [
        *map(Command, texts, [0, 7, 0, 0, -15, 0]),
        Command(": \udcff\udcfe", 0),
    ]
    camera.clear_commands()
    assert camera.commands() == []


def test_only_the_daemons_own_commands_are_recorded(make_camera: MakeCamera) -> None:
    camera = make_camera(binary=PYTHON)
    camera.run(["sh", "-c", "true"])
    run_commands(camera, "sh -c 'sh -c true; exit 3'")
    assert camera.commands() == [Command("sh -c 'sh -c true; exit 3'", 3)]


def test_a_command_in_the_background_keeps_running(make_camera: MakeCamera) -> None:
    camera = make_camera(binary=PYTHON)
    run_commands(camera, "sleep 600 & echo $! >/tmp/sleeper")
    assert camera.commands() == [Command("sleep 600 & echo $! >/tmp/sleeper", 0)]
    sleeper = camera.read_file("/tmp/sleeper").strip()
    comm = f"/proc/{sleeper}/comm"
    camera.wait_until(lambda: camera.read_file(comm) == "sleep\n", "the command runs")


def test_the_end_of_the_recording_shell_is_the_end_of_the_command(make_camera: MakeCamera) -> None:
    camera = make_camera(binary=PYTHON)
    start(
        camera,
        """
        import subprocess
        shell = subprocess.Popen("trap 'exit 9' TERM; echo; while :; do sleep 0.01; done",
                                 shell=True, stdout=subprocess.PIPE)
        shell.stdout.readline()
        shell.terminate()
        sys.exit(shell.wait())
        """,
    )
    assert camera.wait_daemon() == 9
    assert [command.status for command in camera.commands()] == [9]


def test_a_rule_answers_without_running_the_command(make_camera: MakeCamera) -> None:
    camera = make_camera(binary=PYTHON)
    camera.rule("touch *", status=4, output="out\n", errors="err\n")
    run_commands(camera, "touch /tmp/file", "true")
    assert camera.commands() == [Command("touch /tmp/file", 4), Command("true", 0)]
    assert (camera.stdout(), camera.log_lines()) == ("out\n", ["err"])
    assert not camera.files.exists("/tmp/file")


def test_the_newest_matching_rule_holds_as_often_as_it_says(make_camera: MakeCamera) -> None:
    camera = make_camera(binary=PYTHON)
    camera.rule("probe *", status=1)
    camera.rule("probe *", status=5, times=2)
    camera.recorder.run("probe real", times=1)
    run_commands(camera, "probe a", "probe real", "probe b", "probe c", "probe real")
    assert [command.status for command in camera.commands()] == [5, 127, 5, 1, 1]


def test_a_hung_command_is_unfinished_until_its_rule_is_released(make_camera: MakeCamera) -> None:
    camera = make_camera(binary=PYTHON)
    runs_later = camera.hang("exit 3")
    ends_later = camera.hang("exit 4", status=6)
    start(camera, "os.system('exit 3'); os.system('exit 4')")
    assert camera.recorder.wait_for("exit 3", finished=False) == Command("exit 3", None)
    runs_later.release()
    assert camera.recorder.wait_for("exit 3") == Command("exit 3", 3)
    camera.recorder.wait_for("exit 4", finished=False)
    ends_later.release()
    assert camera.wait_daemon() == 0
    assert camera.commands() == [Command("exit 3", 3), Command("exit 4", 6)]


def test_without_the_recorder_the_real_shell_is_at_its_place(make_camera: MakeCamera) -> None:
    camera = make_camera(binary=PYTHON, recorder=False)
    run_commands(camera, "echo ran")
    assert camera.stdout() == "ran\n"
    assert camera.commands() == []


# The daemon and the bus


def test_the_daemon_is_a_direct_child_of_process_1_with_a_supervisor(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(binary=PYTHON)
    start(
        camera,
        """
        print(os.getppid(), flush=True)
        print("<4>text", file=sys.stderr)
        notify("ERRNO=5"); notify("READY=1")
        signal.pause()
        """,
    )
    assert camera.wait_ready() == ["ERRNO=5", "READY=1"]
    assert camera.stdout() == "1\n"
    assert camera.wait_log("text") == "<4>text"
    assert camera.stop_daemon(signal.SIGTERM) == -signal.SIGTERM


def test_the_daemon_gets_the_environment_that_the_test_chooses(make_camera: MakeCamera) -> None:
    camera = make_camera(binary=PYTHON)
    script = "import os; print(os.environ['QUARN_LOG_LEVEL'])"
    camera.start_daemon("-c", script, QUARN_LOG_LEVEL="debug")
    assert camera.wait_daemon() == 0
    assert camera.stdout() == "debug\n"


def test_a_daemon_that_ends_before_it_is_ready_is_an_error(make_camera: MakeCamera) -> None:
    camera = make_camera(binary=PYTHON)
    start(camera, "notify('ERRNO=5'); sys.exit('reason')")
    with pytest.raises(CameraError, match="ended with 1 before READY=1: reason"):
        camera.wait_ready()
    assert camera.notifications() == ["ERRNO=5"]


def test_requests_responses_and_signals_pass_over_the_bus(make_camera: MakeCamera) -> None:
    camera = make_camera(binary=PYTHON)
    start(camera, PROVIDER)
    camera.wait_ready()
    assert camera.api_get(["a"]) == {"success": True, "request": {"settings": ["a"]}}
    assert camera.api_set({"b": None}) == {"success": True, "request": {"b": None}}
    assert camera.api_get_text("7") == '{"success": true, "request": 7}'
    with pytest.raises(BusError) as refusal:
        camera.api_set("nothing")
    assert refusal.value.name == "com.vesko.networkingV2.Error.NoResponse"
    assert camera.wait_signal("MTUChange") == Signal("MTUChange", (1400,))
    assert camera.signals() == [Signal("MTUChange", (1400,))] * 3


@pytest.mark.parametrize(
    ("identity", "answered"),
    [
        ([], True),
        (["--reuid=65534", "--regid=65534", "--clear-groups"], False),
        (["--reuid=65534", "--regid=65534", "--groups=901"], True),
    ],
    ids=["root", "anyone", "group quarn"],
)
def test_only_root_and_the_group_quarn_may_call_the_daemon(
    make_camera: MakeCamera, identity: list[str], answered: bool
) -> None:
    camera = make_camera(binary=PYTHON)
    start(camera, PROVIDER)
    camera.wait_ready()
    name = "com.vesko.networkingV2"
    call = ["busctl", "call", name, "/com/vesko/networkingV2", name, "api_get", "s", "7"]
    done = camera.run(["setpriv", *identity, *call] if identity else call)
    assert (done.stdout, done.stderr) == (
        ('s "{\\"success\\": true, \\"request\\": 7}"\n', "")
        if answered
        else ("", "Call failed: Access denied\n")
    )


def test_only_root_may_own_the_daemons_name(camera: Camera) -> None:
    bus = "org.freedesktop.DBus"
    request = ["busctl", "call", bus, "/org/freedesktop/DBus", bus, "RequestName", "su"]
    request += ["com.vesko.networkingV2", "0"]
    stranger = ["setpriv", "--reuid=65534", "--regid=65534", "--groups=901", *request]
    assert camera.run(stranger).stderr == "Call failed: Access denied\n"
    assert camera.run(request).stdout == "u 1\n"


def test_the_bus_comes_up_without_a_group_quarn(make_camera: MakeCamera) -> None:
    camera = make_camera(binary=PYTHON, quarn_group=None)
    start(camera, PROVIDER)
    camera.wait_ready()
    assert camera.api_get_text("7") == '{"success": true, "request": 7}'


def test_the_bus_can_go_away_and_come_back(make_camera: MakeCamera) -> None:
    camera = make_camera(binary=PYTHON)
    start(camera, PROVIDER)
    camera.wait_ready()
    camera.stop_bus()
    assert camera.wait_daemon() == 1
    camera.start_bus()
    start(camera, PROVIDER)
    camera.wait_ready()
    assert camera.api_get_text("7") == '{"success": true, "request": 7}'


# The boot environment


@pytest.mark.parametrize("kind", ["plain", "redundant"])
def test_the_boot_environment_is_read_and_written_by_the_real_tools(
    make_camera: MakeCamera, kind: str
) -> None:
    camera = make_camera(boot_environment=kind, variables={"vesko_hostname": "a name"})
    assert camera.run(["fw_printenv"]).stdout == "vesko_hostname=a name\n"
    camera.run(["fw_setenv", "netdev0", "00ff"], check=True)
    assert camera.bootenv.variables() == {"netdev0": "00ff", "vesko_hostname": "a name"}
    camera.bootenv.set("netdev0", None)
    camera.bootenv.set("vesko_ipv6_enable", "1")
    assert sorted(camera.run(["fw_printenv"]).stdout.splitlines()) == [
        "vesko_hostname=a name",
        "vesko_ipv6_enable=1",
    ]


@pytest.mark.parametrize("damage", ["corrupt", "truncate", "remove"])
def test_a_damaged_boot_environment_has_no_variables(camera: Camera, damage: str) -> None:
    camera.bootenv.set("name", "value")
    getattr(camera.bootenv, damage)()
    done = camera.run(["fw_printenv", "name"])
    assert done.stdout in ("", "name=\n")
    assert done.stderr != ""
    with pytest.raises(ValueError):
        camera.bootenv.variables()


@pytest.mark.parametrize("copy", [0, 1])
def test_a_redundant_boot_environment_outlives_the_damage_of_one_copy(
    make_camera: MakeCamera, copy: int
) -> None:
    camera = make_camera(boot_environment="redundant", variables={"name": "value"})
    camera.bootenv.corrupt(copy)
    assert camera.run(["fw_printenv", "name"]).stdout == "name=value\n"
    assert camera.bootenv.get("name") == "value"


def test_a_camera_without_a_boot_environment_has_no_configuration(make_camera: MakeCamera) -> None:
    camera = make_camera(boot_environment=None)
    assert not camera.files.exists("/etc/fw_env.config")


# The program, and what stays behind


def test_the_program_runs_a_command_and_passes_its_status_on() -> None:
    command = [PROGRAM, "boot", "--no-daemon", "--", "sh", "-c", "cat; hostname; exit 7"]
    done = subprocess.run(command, input="typed\n", capture_output=True, text=True, timeout=30)
    assert (done.returncode, done.stdout, done.stderr) == (7, "typed\ncamera\n", "")


def test_the_program_says_that_it_needs_root() -> None:
    command = ["setpriv", "--reuid=65534", "--clear-groups", PYTHON, PROGRAM, "boot", "--no-daemon"]
    done = subprocess.run(
        command, capture_output=True, text=True, timeout=30, stdin=subprocess.DEVNULL
    )
    assert done.returncode == 1
    assert (
        done.stderr == "camera: the virtual camera needs root: it is built of kernel namespaces\n"
    )


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGKILL])
def test_nothing_outlives_the_program_whatever_ends_it(number: signal.Signals) -> None:
    before = host_state()
    command = [PROGRAM, "boot", "--no-daemon", "--hold"]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as program:
        assert program.stdout is not None
        assert program.stdout.readline().startswith("camera: process 1 is ")
        descendants = descendants_of(program.pid)
        assert descendants.keys() >= {"camera-init", "init", "dbus-daemon", "camera-cable"}
        program.send_signal(number)
        assert program.wait(30) == (-number if number == signal.SIGKILL else 128 + number)
    for pidfds in descendants.values():
        for pidfd in pidfds:
            assert select.select([pidfd], [], [], 30)[0], "a process of the camera is left"
            os.close(pidfd)
    assert host_state() == before


def descendants_of(ancestor: int) -> dict[str, list[int]]:
    """Return descriptors of a process's descendants by their names."""
    parents: dict[int, tuple[int, str]] = {}
    for entry in filter(str.isdigit, os.listdir("/proc")):
        try:
            head, _, tail = Path(f"/proc/{entry}/stat").read_text().rpartition(") ")
        except (FileNotFoundError, ProcessLookupError):
            continue
        parents[int(entry)] = (int(tail.split()[1]), head.partition("(")[2])
    found: dict[str, list[int]] = {}
    for pid, (parent, name) in parents.items():
        while parent not in (0, ancestor):
            parent = parents.get(parent, (0, ""))[0]
        if parent == ancestor:
            found.setdefault(name, []).append(os.pidfd_open(pid))
    return found
