"""The root folder of a machine: an overlay over the host's, which stays as it is."""

from __future__ import annotations

import os
from collections.abc import Mapping

from .files import FileTree
from .namespaces import MS_BIND, MS_NODEV, MS_NOSUID, MS_RDONLY, MS_REMOUNT, Machine

# Every system has this folder, and nobody keeps a checkout in it.
_STAGING = "/sys"
_ROOT = f"{_STAGING}/root"
_DEVICES = {
    "null": (1, 3),
    "zero": (1, 5),
    "full": (1, 7),
    "random": (1, 8),
    "urandom": (1, 9),
    "tty": (5, 0),
    "net/tun": (10, 200),
}
_FRESH_FOLDERS = {"/tmp": "1777", "/var/tmp": "1777", "/run": "755"}


def build_root(machine: Machine, binds: Mapping[str, str]) -> None:
    """Give the machine a root folder of its own, and enter it.

    `binds` names host paths by the path at which they appear. /.camlab is the laboratory's own
    folder inside.
    """
    machine.mount("camlab", _STAGING, "tmpfs", 0, "mode=755")
    machine.look_at_root()
    for name in ("upper", "work", "root", "camlab"):
        machine.files.make_folder(f"{_STAGING}/{name}")
    machine.mount(
        "overlay",
        _ROOT,
        "overlay",
        0,
        f"lowerdir=/,upperdir={_STAGING}/upper,workdir={_STAGING}/work",
    )
    inside = FileTree(f"/proc/{machine.pid}/root{_ROOT}")
    inside.make_folder("/.camlab")
    machine.mount(f"{_STAGING}/camlab", f"{_ROOT}/.camlab", flags=MS_BIND)
    for source, kept in zip(binds.values(), _kept_sources(binds)):
        _make_target(inside, kept, os.path.isdir(source))
        machine.mount(source, f"{_ROOT}{kept}", flags=MS_BIND)
    inside.close()
    machine.mount("proc", f"{_ROOT}/proc", "proc")
    machine.enter_root(_ROOT)
    _make_devices(machine)
    _guard_proc(machine)
    mount_sys(machine)
    for folder in _FRESH_FOLDERS:
        _mount_fresh(machine, folder)
    _bind(machine, binds, "/")


def mount_sys(machine: Machine) -> None:
    """Mount /sys, which shows the network that the machine has at this moment."""
    machine.mount("sysfs", "/sys", "sysfs", MS_RDONLY | MS_NOSUID | MS_NODEV)


def empty_fresh_folders(machine: Machine, binds: Mapping[str, str]) -> None:
    """Make /run and the folders for temporary files as empty as after a start."""
    for folder in _FRESH_FOLDERS:
        machine.unmount(folder)
        _mount_fresh(machine, folder)
        _bind(machine, binds, f"{folder}/")


def _mount_fresh(machine: Machine, folder: str) -> None:
    options = f"mode={_FRESH_FOLDERS[folder]}"
    machine.mount("tmpfs", folder, "tmpfs", MS_NOSUID | MS_NODEV, options)
    if folder == "/run":
        machine.files.make_folder("/run/lock")
        machine.files.make_folder("/run/dbus")


def _kept_sources(binds: Mapping[str, str]) -> list[str]:
    """Where the host's files stay in reach, so that they can be bound again after a reboot."""
    return [f"/.camlab/host/{number}" for number in range(len(binds))]


def _bind(machine: Machine, binds: Mapping[str, str], below: str) -> None:
    """Let those of the host's files appear whose places are below a folder."""
    for target, kept in zip(binds, _kept_sources(binds)):
        if target.startswith(below):
            _make_target(machine.files, target, os.path.isdir(machine.path(kept)))
            machine.mount(kept, target, flags=MS_BIND)


def _make_target(files: FileTree, path: str, is_folder: bool) -> None:
    if is_folder:
        files.make_folder(path)
    elif not files.exists(path):
        files.write(path, b"", 0o755)


def _make_devices(machine: Machine) -> None:
    files = machine.files
    machine.mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=755")
    for folder in ("/dev/pts", "/dev/shm", "/dev/net"):
        files.make_folder(folder)
    for name, (major, minor) in _DEVICES.items():
        files.make_device(f"/dev/{name}", major, minor)
    machine.mount("devpts", "/dev/pts", "devpts", MS_NOSUID, "newinstance,ptmxmode=0666,mode=620")
    machine.mount("tmpfs", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777")
    files.link("/dev/ptmx", "pts/ptmx")
    files.link("/dev/fd", "/proc/self/fd")
    for number, name in enumerate(("stdin", "stdout", "stderr")):
        files.link(f"/dev/{name}", f"/proc/self/fd/{number}")


def _guard_proc(machine: Machine) -> None:
    """Only /proc/sys/net is the machine's own; the other kernel settings are the host's."""
    for path in filter(machine.files.exists, ("/proc/sys", "/proc/sysrq-trigger")):
        machine.mount(path, path, flags=MS_BIND)
        machine.mount("", path, flags=MS_BIND | MS_REMOUNT | MS_RDONLY)
    machine.mount("/proc/sys/net", "/proc/sys/net", flags=MS_BIND)
    machine.mount("", "/proc/sys/net", flags=MS_BIND | MS_REMOUNT)
