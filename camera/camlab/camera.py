"""The virtual camera."""

from __future__ import annotations

import json
import os
import signal
from collections.abc import Callable, Iterable, Mapping, Sequence
from dataclasses import dataclass, field, replace
from typing import Any, TypeVar

from .boot_environment import BootEnvironment
from .bus import Client, Signal, SystemBus
from .daemon import Daemon
from .interfaces import LinkModes, get_link_modes, make_tap, set_link_modes
from .lan import Cable, Lan
from .namespaces import (
    MS_BIND,
    MS_NODEV,
    MS_NOSUID,
    MS_RDONLY,
    MS_REMOUNT,
    CameraError,
    Machine,
    Process,
)
from .programs import CHECKOUT, build_folder, daemon_binary, helper
from .recorder import SHELL, Command, Recorder, Rule
from .root_folder import build_root, empty_fresh_folders, mount_sys
from .waiting import wait_until

T = TypeVar("T")

MAC = "00:00:5e:00:53:01"
DAEMON = "/usr/sbin/quarn"
STORE = "/var/lib/quarn"
_POLICY = "/usr/share/dbus-1/system.d/com.vesko.networkingV2.conf"
_LEASE_HELPER = "/usr/lib/quarn/quarn-dhcp-event"
# Where each client looks for its script: busybox, as its maker and as Debian build it, dhclient, rdnssd.
_LEASE_SCRIPTS = {
    "/usr/share/udhcpc/default.script": "udhcpc.script",
    "/etc/udhcpc/default.script": "udhcpc.script",
    "/usr/lib/quarn/dhclient.script": "dhclient.script",
    "/usr/lib/quarn/rdnssd.hook": "rdnssd.hook",
    "/etc/isc-dhcp/isc_dhclient6.conf": "isc_dhclient6.conf",
}
_COMMAND_LINE = "/.camlab/cmdline"
# The camera's own places of what only its board has, or of what Debian puts elsewhere.
_BUSYBOX_LINKS = ("/usr/sbin/arping", "/usr/sbin/udhcpc")
_NEEDED = (
    "/bin/busybox",
    "/sbin/ifconfig",
    "/sbin/route",
    "/sbin/ip",
    "/sbin/tc",
    "/bin/hostname",
    "/usr/sbin/ethtool",
    "/usr/sbin/iptables-restore",
    "/usr/bin/dbus-daemon",
)


@dataclass(frozen=True)
class CameraOptions:
    """What a camera is made of."""

    binary: str | None = None  # the daemon; default: QUARN_BINARY, or the one of the build folder
    recorder: bool = True
    bus: bool = True
    boot_environment: str | None = "plain"  # or "redundant"; None: no fw_env.config
    variables: Mapping[str, str] = field(default_factory=dict)  # of the boot environment
    hostname: str = "camera"
    link_up: bool = True
    link_modes: LinkModes = LinkModes()
    kernel_command_line: str | None = None  # default: the host's
    store_size: str = "16m"
    store_folder: str | None = None  # a folder of the host in place of the memory
    install: Mapping[str, str] = field(default_factory=dict)  # path inside -> file of the host
    share: Sequence[str] = ()  # folders of the host that keep what the camera writes there
    quarn_group: int | None = 901  # group id of "quarn"; None: no such group


class Camera(Machine):
    """A camera of its own: network card, LAN, file system, processes, bus and boot environment.

    A context manager. The daemon is started by start_daemon().
    """

    lan: Lan
    cable: Cable
    recorder: Recorder
    bootenv: BootEnvironment
    daemon: Daemon
    system_bus: SystemBus

    def __init__(self, options: CameraOptions | None = None, **changes: Any) -> None:
        super().__init__()
        self.options = replace(options or CameraOptions(), **changes)
        self._closed = False
        self._client: Client | None = None
        try:
            self._boot()
        except BaseException:
            super().close()
            raise

    def __enter__(self) -> Camera:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Take everything down; returns when the last process is gone."""
        if self._closed:
            return
        self._closed = True
        self._leave_bus()
        super().close()
        self.daemon.close()
        self.system_bus.forget()
        self.cable.close()
        self.lan.close()

    def reboot(self) -> None:
        """Pull the plug and start again.

        Processes, /tmp, /run and all of the network are gone; /etc, the store and the boot
        environment stay. The daemon is not started.
        """
        self._leave_bus()
        self.end_everything()
        self.daemon.close()
        self.system_bus.forget()
        self.cable.close()
        self.request("new-network")
        self.unmount("/sys")
        mount_sys(self)
        empty_fresh_folders(self, self._binds)
        self._plug_in()
        if self.options.bus:
            self.system_bus.start()

    # The daemon

    def start_daemon(
        self, *arguments: str, environment: Mapping[str, str] | None = None, **variables: str
    ) -> Process:
        """Start the daemon, with more variables of its environment (QUARN_LOG_LEVEL="debug").

        The client joins the bus before that, so that no signal is missed.
        """
        if self.system_bus.process is not None:
            self.join_bus()
        return self.daemon.start(arguments, {**(environment or {}), **variables})

    def wait_ready(self, timeout: float = 60) -> list[str]:
        """Wait for READY=1; return all messages of sd_notify, in their order."""
        return self.daemon.wait_notification("READY=1", timeout)

    def notifications(self) -> list[str]:
        """Return the messages of sd_notify up to now."""
        return self.daemon.notifications()

    def stop_daemon(self, number: int = signal.SIGTERM, timeout: float = 30) -> int:
        """Send a signal to the daemon, and return its exit status (below 0: a signal)."""
        return self.daemon.stop(number, timeout)

    def kill_daemon(self) -> int:
        """Kill the daemon as a power cut would."""
        return self.daemon.stop(signal.SIGKILL)

    def wait_daemon(self, timeout: float | None = 30) -> int:
        """Wait for the daemon's own end; return its exit status."""
        return self.daemon.process.wait(timeout)

    def log_lines(self) -> list[str]:
        """Return the daemon's standard error, line by line."""
        return self.daemon.log_lines()

    def wait_log(self, text: str, count: int = 1, timeout: float = 30) -> str:
        """Wait for the count-th log line that contains the text."""
        return self.daemon.wait_log(text, count, timeout)

    def stdout(self) -> str:
        """Return the daemon's standard output."""
        return self.daemon.stdout()

    # The bus

    @property
    def client(self) -> Client:
        """The client of the daemon; it joins the bus when it is first needed."""
        return self.join_bus()

    def join_bus(self) -> Client:
        """Connect the client, unless it is connected."""
        if self._client is None:
            self._client = Client(self.system_bus)
        return self._client

    def api_get(self, request: str | Iterable[str], timeout: float = 60) -> dict[str, Any]:
        """Get settings by a list of keys or by a request text; return the parsed response."""
        return self.client.get(request, timeout)

    def api_set(self, request: str | Mapping[str, Any], timeout: float = 60) -> dict[str, Any]:
        """Set settings; return the parsed response."""
        return self.client.set(request, timeout)

    def api_get_text(self, text: str, timeout: float = 60) -> str:
        """Call api_get with this very text; return the response text."""
        return self.client.call_text("api_get", text, timeout)

    def api_set_text(self, text: str, timeout: float = 60) -> str:
        """Call api_set with this very text; return the response text."""
        return self.client.call_text("api_set", text, timeout)

    def get(self, key: str) -> Any:
        """Return the value of one setting."""
        response = self.api_get([key])
        if key not in response:
            raise CameraError(f"no value for {key}: {response}")
        return response[key]

    def signals(self) -> list[Signal]:
        """Return the daemon's signals since the client joined the bus or cleared them."""
        return self.client.signals()

    def clear_signals(self) -> None:
        """Forget the signals up to now."""
        self.client.clear_signals()

    def wait_signal(self, name: str, timeout: float = 30) -> Signal:
        """Return the first signal of that name that no earlier wait has returned."""
        return self.client.wait_signal(name, timeout)

    def stop_bus(self) -> None:
        """End the system bus."""
        self._leave_bus()
        self.system_bus.stop()

    def start_bus(self) -> None:
        """Start the system bus again."""
        self.system_bus.start()

    # The commands that the daemon runs

    def commands(self) -> list[Command]:
        """Return the daemon's shell commands and their exit statuses, in order."""
        return self.recorder.commands()

    def clear_commands(self) -> None:
        """Forget the commands up to now."""
        self.recorder.clear()

    def rule(self, pattern: str, status: int = 0, **more: Any) -> Rule:
        """Answer matching commands (fnmatch) with a status, without running them."""
        return self.recorder.answer(pattern, status, **more)

    def hang(self, pattern: str, **more: Any) -> Rule:
        """Hold matching commands up until the returned rule is released."""
        return self.recorder.hang(pattern, **more)

    # The network

    def ip(self, *arguments: str) -> Any:
        """Return what `ip -j` prints, parsed."""
        output = self.run(["ip", "-j", *arguments], check=True).stdout
        return json.loads(output) if output.strip() else []

    def addresses(self, family: int | None = None, scope: str | None = None) -> list[str]:
        """Return eth0's addresses with their prefix lengths, as the kernel lists them."""
        interfaces = self.ip("address", "show", "dev", "eth0")
        families = {4: "inet", 6: "inet6"}
        return [
            f"{entry['local']}/{entry['prefixlen']}"
            for interface in interfaces
            for entry in interface.get("addr_info", [])
            if family in (None, *(n for n, name in families.items() if name == entry["family"]))
            and scope in (None, entry["scope"])
        ]

    def routes(self, family: int = 4) -> list[dict[str, Any]]:
        """Return eth0's routes as `ip -j route` describes them."""
        return list(self.ip(f"-{family}", "route", "show", "dev", "eth0"))

    def link(self) -> dict[str, Any]:
        """Return what `ip -j link` says about eth0."""
        return dict(self.ip("link", "show", "dev", "eth0")[0])

    def link_modes(self) -> LinkModes:
        """Return eth0's link modes as they are now."""
        return get_link_modes(self, "eth0")

    def set_link_modes(self, modes: LinkModes | None = None, **changes: Any) -> None:
        """Set eth0's link modes, or change some of them (supported=Mode.FULL_100)."""
        set_link_modes(self, "eth0", replace(modes or self.link_modes(), **changes))

    # Files and the store

    def read_file(self, path: str) -> str:
        """Return the content of a file in the camera."""
        return self.files.read(path)

    def write_file(self, path: str, content: str | bytes, mode: int = 0o644) -> None:
        """Write a file in the camera, its folders included."""
        self.files.write(path, content, mode)

    def fill_store(self) -> None:
        """Leave no room in the file system of the settings store."""
        descriptor = self.files.open(f"{STORE}/.filler", os.O_WRONLY | os.O_CREAT, 0o600)
        with open(descriptor, "wb", buffering=0) as file:
            size = 1 << 20
            while size:
                try:
                    file.write(bytes(size))
                except OSError:
                    size //= 2

    def empty_store(self) -> None:
        """Give the room back that fill_store() took."""
        self.files.remove(f"{STORE}/.filler")

    def set_store_read_only(self, read_only: bool = True) -> None:
        """Mount the file system of the settings store for reading only, or for writing again."""
        flags = MS_REMOUNT | MS_BIND | (MS_RDONLY if read_only else 0)
        self.mount("", STORE, flags=flags)

    def set_kernel_command_line(self, text: str) -> None:
        """Show another /proc/cmdline."""
        bound = self.files.exists(_COMMAND_LINE)
        self.files.write(_COMMAND_LINE, text)
        if not bound:
            self.mount(_COMMAND_LINE, "/proc/cmdline", flags=MS_BIND)

    def wait_until(self, condition: Callable[[], T], what: str, timeout: float = 30) -> T:
        """Wait for kernel state that tells nobody of its changes."""
        return wait_until(condition, timeout, what)

    # How it comes up

    def _boot(self) -> None:
        options = self.options
        self._binds = self._host_files()
        build_root(self, self._binds)
        missing = [path for path in _NEEDED if not self.files.exists(path)]
        if missing:
            raise CameraError(f"the camera needs {' '.join(missing)}: install the packages")
        self.request("hostname", options.hostname)
        self.files.write("/etc/hostname", f"{options.hostname}\n")
        for path in _BUSYBOX_LINKS:
            self.files.link(path, "/bin/busybox")
        self._make_group()
        self._mount_store()
        if options.kernel_command_line is not None:
            self.set_kernel_command_line(options.kernel_command_line)
        self.recorder = Recorder(self)
        if options.recorder:
            self.recorder.switch_on()
        self.bootenv = BootEnvironment(self.files, options.boot_environment == "redundant")
        if options.boot_environment is None:
            self.bootenv.remove_configuration()
        else:
            self.bootenv.create(options.variables)
        self.daemon = Daemon(self, DAEMON)
        self.lan = Lan()
        try:
            self._plug_in()
            self.system_bus = SystemBus(self)
            if options.bus:
                self.system_bus.start()
        except BaseException:
            self.lan.close()
            raise

    def _host_files(self) -> dict[str, str]:
        binds = {os.path.abspath(folder): os.path.abspath(folder) for folder in self.options.share}
        if self.options.store_folder is not None:
            binds[STORE] = os.path.abspath(self.options.store_folder)
        binds[SHELL] = helper("camera-shell")
        binds[_POLICY] = str(CHECKOUT / "packaging" / "com.vesko.networkingV2.conf")
        optional = {
            DAEMON: self.options.binary or daemon_binary(),
            "/usr/bin/quarnctl": str(build_folder() / "quarnctl"),
            **_lease_reporting(),
        }
        binds.update({inside: host for inside, host in optional.items() if os.path.exists(host)})
        binds.update(self.options.install)
        return binds

    def _make_group(self) -> None:
        lines = self.files.read("/etc/group").splitlines(keepends=True)
        lines = [line for line in lines if not line.startswith("quarn:")]
        if self.options.quarn_group is not None:
            lines.append(f"quarn:x:{self.options.quarn_group}:\n")
        self.files.write("/etc/group", "".join(lines))

    def _mount_store(self) -> None:
        if self.options.store_folder is not None:
            return  # bound with the other folders of the host
        self.files.make_folder(STORE, 0o700)
        options = f"mode=700,size={self.options.store_size}"
        self.mount("tmpfs", STORE, "tmpfs", MS_NOSUID | MS_NODEV, options)

    def _plug_in(self) -> None:
        tap = make_tap(self, "eth0", MAC, self.options.link_up)
        try:
            self.cable = Cable(self.lan, self, tap)
        finally:
            os.close(tap)
        set_link_modes(self, "eth0", self.options.link_modes)

    def _leave_bus(self) -> None:
        if self._client is not None:
            self._client.close()
            self._client = None


def _lease_reporting() -> dict[str, str]:
    """What the DHCP clients and rdnssd call, once it is built."""
    helper_binary = build_folder() / "quarn-dhcp-event"
    if not helper_binary.exists():
        return {}
    scripts = CHECKOUT / "tools" / "dhcp"
    return {
        _LEASE_HELPER: str(helper_binary),
        **{inside: str(scripts / name) for inside, name in _LEASE_SCRIPTS.items()},
    }
