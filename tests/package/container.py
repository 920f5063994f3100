"""A clean Debian machine: a real systemd in a container, over an image that is made once."""

from __future__ import annotations

import ctypes
import os
import queue
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
from collections.abc import Callable, Mapping, Sequence
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import TypeVar, cast

CHECKOUT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(CHECKOUT / "camera"))

from camlab.interfaces import LinkModes, make_tap, set_link_modes  # noqa: E402
from camlab.lan import Cable, Lan  # noqa: E402
from camlab.namespaces import Machine, Process  # noqa: E402
from camlab.waiting import wait_until  # noqa: E402, F401 for the tests

LAN_ADDRESS = "10.9.8.1"
LEASES = ("10.9.8.50", "10.9.8.60")

# Where the image stays between runs. It holds what the packages depend on, so that a test needs no registry.
IMAGE = CHECKOUT / "build" / "images" / "debian12"
_IMAGE_PACKAGES = (
    "systemd-sysv dbus libcjson1 libglib2.0-0 libsystemd0 libsqlite3-0 libubootenv0.1 busybox udhcpc "
    "isc-dhcp-client net-tools iproute2 ethtool iptables procps nginx-light rdnssd"
)
_T = TypeVar("_T")
_libc = ctypes.CDLL(None, use_errno=True)
_CLONE_NEWNET = 0x40000000
_CGROUPS = ("/sys/fs/cgroup/systemd", "/sys/fs/cgroup/unified")


class ContainerError(Exception):
    """The container, or a command in it, did not do what it was to do."""


def make_image() -> None:
    """Make the image if there is none yet."""
    if (IMAGE / "etc/debian_version").exists():
        return
    IMAGE.parent.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=IMAGE.parent) as scratch:
        made = Path(scratch) / "root"
        include = "--include=" + ",".join(_IMAGE_PACKAGES.split())
        subprocess.run(
            ["mmdebstrap", "--variant=minbase", include, "bookworm", str(made)],
            check=True,
            stdin=subprocess.DEVNULL,
            capture_output=True,
        )
        os.rename(made, IMAGE)


class Container:
    """One container; it goes down with the `with` block that it is used in."""

    def __init__(self) -> None:
        self._folder = Path(tempfile.mkdtemp(prefix="quarn-container-"))
        self._root = self._folder / "root"
        self._cgroups: list[Path] = []
        self._nspawn: subprocess.Popen[bytes] | None = None
        self._cable: Cable | None = None
        self._dhcp_server: Process | None = None
        self.lan: Lan | None = None
        self._leader = 0
        self._notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_CLOEXEC)
        self._listener = threading.Thread(target=self._listen, daemon=True)
        self._boots: queue.Queue[int] = queue.Queue()
        self._network = ""
        self._holder: subprocess.Popen[bytes] | None = None

    def __enter__(self) -> Container:
        try:
            self._mount()
            self._make_network()
            self._boot()
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def run(
        self, *command: str, user: str | None = None, check: bool = True, text: str | None = None
    ) -> subprocess.CompletedProcess[str]:
        """Run a command in the container, as root or as another user of it."""
        words = ["runuser", "-u", user, "--", *command] if user else list(command)
        done = subprocess.run(
            ["nsenter", "-t", str(self._leader), "-a", "-r", "-w", "--", *words],
            env={
                "PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
                "LC_ALL": "C",
                "DEBIAN_FRONTEND": "noninteractive",
            },
            input=text,
            stdin=None if text is not None else subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            check=False,
            timeout=180,
        )
        if check and done.returncode != 0:
            raise ContainerError(
                f"{command} ended with {done.returncode}: {done.stdout}{done.stderr}"
            )
        return done

    def output(self, *command: str) -> str:
        """Return what a command of root prints, without the blanks around it."""
        return self.run(*command).stdout.strip()

    def install(self, *packages: Path) -> str:
        """Install packages from files with apt, which cannot fetch anything else here."""
        for package in packages:
            shutil.copy(package, self._root / "root")
        names = [f"/root/{package.name}" for package in packages]
        apt = ["apt-get", "install", "-y", "--no-install-recommends"]
        return self.output(*apt, *names)

    def path(self, path: str) -> Path:
        """Return where a file of the container's root folder is for us. Not for what is mounted in it."""
        return self._root / path.lstrip("/")

    def holds(self, path: str) -> bool:
        """Whether a file is there, for whoever is in the container."""
        return self.run("test", "-e", path, check=False).returncode == 0

    def reboot(self) -> None:
        """Shut the machine down in order, and boot it again."""
        self.run("systemctl", "poweroff", check=False)
        assert self._nspawn is not None
        self._nspawn.wait(timeout=120)
        self._leader = 0
        self._boot()

    def close(self) -> None:
        """End the container and all that belongs to it."""
        if self._leader:
            os.kill(self._leader, signal.SIGKILL)
        if self._nspawn is not None:
            if not self._leader:
                self._nspawn.kill()
            self._nspawn.wait()
        if self._dhcp_server is not None:
            self._dhcp_server.close()
        if self._cable is not None:
            self._cable.close()
        if self.lan is not None:
            self.lan.close()
        if self._holder is not None:
            self._holder.kill()
            self._holder.wait()
        if self._listener.is_alive():
            self._notify.shutdown(socket.SHUT_RD)
            self._listener.join()
        self._notify.close()
        for cgroup in self._cgroups:
            for folder, _, _ in os.walk(cgroup, topdown=False):
                os.rmdir(folder)
        subprocess.run(["umount", str(self._root)], check=False, capture_output=True)
        shutil.rmtree(self._folder)

    def _mount(self) -> None:
        for name in ("upper", "work", "root"):
            (self._folder / name).mkdir()
        layers = f"lowerdir={IMAGE},upperdir={self._folder}/upper,workdir={self._folder}/work"
        subprocess.run(
            ["mount", "-t", "overlay", "overlay", "-o", layers, str(self._root)], check=True
        )

    def _boot(self) -> None:
        """Boot, and wait until the container's systemd says that it is done."""
        if not self._listener.is_alive():
            self._notify.bind(str(self._folder / "notify"))
            self._listener.start()
        under_systemd = os.path.isdir("/run/systemd/system")
        command = ["systemd-nspawn", "--quiet", "--directory", str(self._root), "--boot"]
        command += [
            "--register=no",
            f"--network-namespace-path={self._network}",
            "--resolv-conf=off",
            "--timezone=off",
        ]
        command += [
            "--capability=CAP_NET_ADMIN",
            "--hostname=camera",
            "--console=pipe",
            "--notify-ready=yes",
        ]
        command += [] if under_systemd else ["--keep-unit"]
        if not under_systemd and not self._cgroups:
            self._make_cgroups()
        with open(self._folder / "console", "wb") as console:
            self._nspawn = subprocess.Popen(
                command,
                env={
                    **os.environ,
                    "NOTIFY_SOCKET": str(self._folder / "notify"),
                    # The network is the container's own, although nspawn did not make it.
                    "SYSTEMD_NSPAWN_API_VFS_WRITABLE": "network",
                },
                stdin=subprocess.DEVNULL,
                stdout=console,
                stderr=console,
                preexec_fn=self._enter_cgroups,
            )
        self._wait_for_boot()

    def _wait_for_boot(self) -> None:
        try:
            self._leader = self._boots.get(timeout=60)
        except queue.Empty as error:
            text = (self._folder / "console").read_text(errors="replace")
            raise ContainerError(f"systemd does not boot in a container here: {text}") from error

    def _listen(self) -> None:
        """Take all that nspawn passes on: it stands still, and the machine with it, when nobody does."""
        leader = booted = 0
        while message := self._notify.recv(65536):
            lines = dict(
                line.split("=", 1) for line in message.decode().splitlines() if "=" in line
            )
            leader = int(lines.get("X_NSPAWN_LEADER_PID", leader))
            # A reload of units makes the same systemd say so again.
            if "READY" in lines and leader != booted:
                booted = leader
                self._boots.put(leader)

    def _make_cgroups(self) -> None:
        """Where no systemd runs, nobody gives the container a group of its own."""
        for hierarchy in _CGROUPS if os.path.isdir(_CGROUPS[0]) else ("/sys/fs/cgroup",):
            if os.path.exists(f"{hierarchy}/cgroup.procs"):
                cgroup = Path(hierarchy) / self._folder.name
                cgroup.mkdir()
                self._cgroups.append(cgroup)

    def _enter_cgroups(self) -> None:
        for cgroup in self._cgroups:
            (cgroup / "cgroup.procs").write_text(str(os.getpid()))

    def _make_network(self) -> None:
        """Make an eth0 as a NIC has it, and a LAN with a DHCP server behind its cable.

        They are there before the machine boots, as hardware is, and stay over its reboots.
        """
        self._holder = subprocess.Popen(["unshare", "--net", "sleep", "infinity"])
        self._network = f"/proc/{self._holder.pid}/ns/net"
        ours = os.stat("/proc/self/ns/net").st_ino
        wait_until(lambda: os.stat(self._network).st_ino != ours, 10, "a network namespace")
        self.lan = Lan()
        network = cast(Machine, _Network(self._network, self.lan.pid))
        tap = make_tap(network, "eth0", "00:00:5e:00:53:01", up=False)
        try:
            self._cable = Cable(self.lan, network, tap)
        finally:
            os.close(tap)
        set_link_modes(network, "eth0", LinkModes())
        self.lan.own(LAN_ADDRESS)
        server = "dnsmasq --keep-in-foreground --conf-file=/dev/null --port=0 --interface=lan0"
        leases = f"--dhcp-range={LEASES[0]},{LEASES[1]},2h --dhcp-leasefile=/tmp/leases --user=root"
        self._dhcp_server = self.lan.start([*server.split(), *leases.split()])


class _Network:
    """The container's network, for what makes interfaces and looks at them."""

    def __init__(self, namespace: str, device_holder: int) -> None:
        self._namespace = namespace
        self._devices = f"/proc/{device_holder}/root"

    def open(self, path: str, flags: int) -> int:
        """Open a device of the LAN's host as the container's."""
        return self._inside(lambda: os.open(f"{self._devices}{path}", flags | os.O_CLOEXEC))

    def socket(self, family: int, kind: int, protocol: int = 0) -> socket.socket:
        """Return a socket in the container's network."""
        return self._inside(lambda: socket.socket(family, kind, protocol))

    def _inside(self, work: Callable[[], _T]) -> _T:
        """A thread has a network namespace of its own, and takes it along when it ends."""

        def enter_and_work() -> _T:
            with open(self._namespace, "rb") as namespace:
                if _libc.setns(namespace.fileno(), _CLONE_NEWNET) != 0:
                    raise OSError(ctypes.get_errno(), "setns")
            return work()

        with ThreadPoolExecutor(1) as executor:
            return executor.submit(enter_and_work).result()


def build_packages(architecture: str, folder: Path) -> Sequence[Path]:
    """Build both packages, and return their files: quarn, quarnctl."""
    script = CHECKOUT / "tests/package/build_packages.sh"
    done = subprocess.run(
        [str(script), architecture, str(folder)], check=False, capture_output=True, text=True
    )
    if done.returncode != 0:
        raise ContainerError(
            f"the packages do not build: {done.stdout[-3000:]}{done.stderr[-3000:]}"
        )
    return [next(folder.glob(f"{name}_*_{architecture}.deb")) for name in ("quarn", "quarnctl")]
