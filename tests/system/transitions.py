"""A camera on its way from one address to another: what a transition is, and how one is seen whole."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any, NamedTuple

from expectations import APPLY_ERROR, SUCCESS, answer, compact
from stored_settings import STORED_BY_START, plant, stored

from camlab import Camera, Command, Process, Signal
from camlab.bus import NAME, PATH

MakeCamera = Callable[..., Camera]

LOCAL_ROOT = "console=ttyS0\n"
NFS_ROOT = "console=ttyS0 root=/dev/nfs ip=dhcp\n"
# What the kernel of a camera with an NFS root has got before the daemon starts.
NFS_ADDRESS = "10.0.0.9/24"
FAILED = answer(APPLY_ERROR, success=True)


class Set(NamedTuple):
    """A set request, its text or its settings, and the answer to it."""

    request: dict[str, Any] | str
    response: str = SUCCESS


Step = Set | Callable[[Camera], None]


@dataclass(frozen=True)
class State:
    """What a camera is in before or after a transition, and how it gets there."""

    name: str
    network: Any  # of the kernel
    learned: list[Any]  # the values of the keys that DHCP clients report
    servers: list[str]  # the lines of name and time servers in the generated files
    stored: dict[str, Any]  # what is stored before the first start
    steps: tuple[Step, ...] = ()  # what follows the first start
    kernel_command_line: str = LOCAL_ROOT


@dataclass(frozen=True)
class Transition:
    """One event, and all that it leads to.

    `network` and `learned` are said where they depend on the way, and are the state's else.
    """

    before: State
    event: str
    steps: tuple[Step, ...]
    after: State
    commands: list[Command]
    signals: list[Signal] = field(default_factory=list)
    saved: dict[str, Any] = field(default_factory=dict)
    network: Any = None
    learned: list[Any] | None = None

    @property
    def row(self) -> tuple[str, str, str]:
        """How the table of all transitions names it."""
        return (self.before.name, self.event, self.after.name)


class Course(NamedTuple):
    """What was seen of a transition, or is to be seen."""

    commands: list[Command]
    signals: list[Signal]
    network: Any
    learned: list[Any]
    servers: list[str]
    stored: dict[str, Any]


def expected(transition: Transition) -> Course:
    """What is to be seen of a transition."""
    after = transition.after
    return Course(
        transition.commands,
        transition.signals,
        after.network if transition.network is None else transition.network,
        after.learned if transition.learned is None else transition.learned,
        after.servers,
        {**STORED_BY_START, "NIC.eth0.MTU": 1500, **transition.before.stored, **transition.saved},
    )


def seen(
    camera: Camera,
    steps: tuple[Step, ...],
    network: Callable[[Camera], Any],
    learned_keys: list[str],
) -> Course:
    """Let the steps of a transition happen one by one; return what was seen of it."""
    commands: list[Command] = []
    signals: list[Signal] = []
    for step in steps:
        camera.clear_commands()
        take(camera, step)
        commands += camera.commands()
        signals += signals_up_to_now(camera)
    learned = camera.api_get(learned_keys)
    return Course(
        commands,
        signals,
        network(camera),
        [learned[key] for key in learned_keys],
        servers(camera),
        stored(camera),
    )


def enter(make_camera: MakeCamera, state: State) -> Camera:
    """Return a camera in a state, whose prober finds every address free at once."""
    camera = make_camera(kernel_command_line=state.kernel_command_line)
    camera.rule("/usr/sbin/arping *", status=0)
    # Servers that are not there at all would hold every look-up of a name up.
    for address in ("10.1.2.1", "10.1.2.53"):
        camera.lan.own(address)
    plant(camera, {name: compact(value) for name, value in state.stored.items()})
    boot(camera)
    signals_up_to_now(camera)
    for step in state.steps:
        take(camera, step)
        signals_up_to_now(camera)
    return camera


def take(camera: Camera, step: Step) -> None:
    """Let one step happen."""
    if isinstance(step, Set):
        text = step.request if isinstance(step.request, str) else compact(step.request)
        assert camera.api_set_text(text) == step.response
    else:
        step(camera)


def signals_up_to_now(camera: Camera) -> list[Signal]:
    """The signals since the last call. That of the MTU, changed and put back, is sent last."""
    for mtu in (1499, 1500):
        assert camera.api_set_text(compact({"[NIC/eth0]MTU": mtu})) == SUCCESS
        while camera.wait_signal("MTUChange") != Signal("MTUChange", (mtu,)):
            pass
    signals = [signal for signal in camera.signals() if signal.name != "MTUChange"]
    camera.clear_signals()
    return signals


def servers(camera: Camera) -> list[str]:
    """The lines of name and time servers in the files that the services read."""
    lines = camera.read_file("/etc/resolv.conf") + camera.read_file("/etc/ntp.conf")
    return [line for line in lines.splitlines() if line.startswith(("nameserver ", "server "))]


# Events other than set requests


def boot(camera: Camera) -> None:
    """The machine is up, and so is its link: the daemon starts."""
    kernel_command_line = camera.read_file("/proc/cmdline")
    if kernel_command_line == NFS_ROOT:
        camera.run(["ip", "address", "replace", NFS_ADDRESS, "dev", "eth0"], check=True)
    # Without the kernel's proof, in which an IPv6 address counts neither as dynamic nor as in use.
    no_probes = "echo 0 > /proc/sys/net/ipv6/conf/eth0/accept_dad"
    camera.run(["/.camlab/real/sh", "-c", no_probes], check=True)
    camera.wait_until(lambda: camera.addresses(6), "eth0 has its link-local address")
    _start_again(camera)


def _start_again(camera: Camera) -> None:
    camera.start_daemon()
    assert camera.wait_ready() == ["READY=1"]


def restart(camera: Camera) -> None:
    """The daemon is ended by its supervisor and started again."""
    assert camera.stop_daemon() == 0
    _start_again(camera)


def kill(camera: Camera) -> None:
    """The daemon is killed and started again."""
    camera.kill_daemon()
    _start_again(camera)


def power_cut(camera: Camera, meanwhile: Callable[[], None] = lambda: None) -> None:
    """The plug is pulled and put back."""
    _reboot(camera, LOCAL_ROOT, meanwhile)


def power_cut_to_nfs_root(camera: Camera) -> None:
    """The plug is pulled and put back, and the next boot has its root on the network."""
    _reboot(camera, NFS_ROOT)


def _reboot(
    camera: Camera, kernel_command_line: str, meanwhile: Callable[[], None] = lambda: None
) -> None:
    camera.reboot()
    meanwhile()
    camera.set_kernel_command_line(kernel_command_line)
    boot(camera)


def cable_pulled(camera: Camera) -> None:
    """The camera loses its LAN and gets it back."""
    camera.cable.cut()
    camera.cable.join()


def call_without_waiting(camera: Camera, request: dict[str, Any]) -> Process:
    """Send a set request, and leave its answer to another process."""
    call = ["busctl", "call", NAME, PATH, NAME, "api_set", "s", compact(request)]
    return camera.start(call)
