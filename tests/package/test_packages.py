"""The packages in the hands of dpkg: installed, upgraded, removed and purged on a clean machine."""

from __future__ import annotations

import shutil
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
from conftest import api, get, show
from container import Container

# What the daemon takes over, and a removal gives back.
TAKEN_FILES = ("/etc/resolv.conf", "/etc/hostname", "/etc/nginx/nginx.conf")
CLIENT_SCRIPT = "/etc/udhcpc/default.script"


@pytest.fixture(scope="module")
def plain_machine(image: None) -> Iterator[Container]:
    """Boot a machine as Debian makes it."""
    with Container() as machine:
        yield machine


@pytest.fixture(scope="module")
def debians_files(plain_machine: Container) -> dict[str, str]:
    """Return the files of Debian whose places the package takes, before it does."""
    return {path: plain_machine.output("cat", path) for path in (*TAKEN_FILES, CLIENT_SCRIPT)}


@pytest.fixture
def installed(
    plain_machine: Container, debians_files: dict[str, str], packages: list[Path]
) -> Container:
    """Return the machine with the packages, whatever an earlier test did."""
    if plain_machine.run("test", "-e", "/usr/sbin/quarn", check=False).returncode != 0:
        plain_machine.install(*packages)
    return plain_machine


def next_version(package: Path, folder: Path) -> Path:
    """Return the same package under a higher version."""
    unpacked = folder / package.stem
    subprocess.run(["dpkg-deb", "-R", str(package), str(unpacked)], check=True)
    control = unpacked / "DEBIAN/control"
    lines = control.read_text(encoding="utf-8").splitlines()
    raised = [f"{line}+1" if line.startswith("Version: ") else line for line in lines]
    control.write_text("\n".join(raised) + "\n", encoding="utf-8")
    target = folder / package.name.replace("_", "+1_", 1)
    build = ["dpkg-deb", "--root-owner-group", "-b", str(unpacked), str(target)]
    subprocess.run(build, check=True, capture_output=True)
    return target


def test_lintian_finds_no_error(packages: list[Path]) -> None:
    """Debian's own check of packages."""
    if shutil.which("lintian") is None:
        pytest.skip("lintian is not installed")
    done = subprocess.run(
        ["lintian", "--allow-root", "--fail-on=error", *map(str, packages)],
        check=False,
        capture_output=True,
        text=True,
    )
    assert done.returncode == 0, done.stdout + done.stderr


def test_the_packages_install_on_a_clean_machine(installed: Container) -> None:
    """Configured, the daemon running, and both programs of one version."""
    assert installed.output("dpkg", "--audit") == ""
    assert show(installed, "quarn.service", "ActiveState")["ActiveState"] == "active"
    enabled = installed.output(
        *("systemctl", "is-enabled", "quarn", "quarn-wait-online", "quarn-rdnssd")
    )
    assert enabled.split() == ["enabled"] * 3
    assert installed.output("getent", "group", "quarn").startswith("quarn:")
    assert installed.output("readlink", CLIENT_SCRIPT) == "/usr/lib/quarn/udhcpc.script"


def test_an_upgrade_keeps_the_settings_and_runs_the_new_daemon(
    installed: Container, packages: list[Path], tmp_path: Path
) -> None:
    """Stored rows, the boot environment's mirror and the diversion outlive it."""
    wanted = {"[Hostname]Name": "porch", "[NIC/eth0]MTU": 1400}
    assert api(installed, "api_set", wanted) == {"success": True, "errors": []}
    before = show(installed, "quarn.service", "MainPID")
    installed.install(*[next_version(package, tmp_path) for package in packages])
    assert show(installed, "quarn.service", "ActiveState")["ActiveState"] == "active"
    assert show(installed, "quarn.service", "MainPID") != before
    assert {key: get(installed, key) for key in wanted} == wanted
    assert installed.output("readlink", CLIENT_SCRIPT) == "/usr/lib/quarn/udhcpc.script"
    status = installed.output("dpkg-query", "--show", "--showformat=${Version}", "quarn")
    assert status.endswith("+1")


def test_a_removal_gives_debians_files_back_and_keeps_the_settings(
    installed: Container, debians_files: dict[str, str]
) -> None:
    """The machine goes on as it is after its next start: no link leads into /tmp/.quarn."""
    name = installed.output("cat", "/tmp/.quarn/hostname")
    installed.run("apt-get", "remove", "-y", "quarn", "quarnctl")
    assert not installed.holds("/usr/sbin/quarn")
    assert installed.run("pidof", "quarn", "udhcpc", check=False).stdout == ""
    assert installed.output("cat", CLIENT_SCRIPT) == debians_files[CLIENT_SCRIPT]
    nginx = installed.output("cat", "/etc/nginx/nginx.conf")
    assert nginx == debians_files["/etc/nginx/nginx.conf"]
    assert installed.output("cat", "/etc/hostname") == name
    links = [installed.run("test", "-L", path, check=False).returncode for path in TAKEN_FILES]
    assert links == [1, 1, 1]
    assert installed.holds("/var/lib/quarn/settings.db")


def test_an_installation_after_a_removal_finds_the_settings(installed: Container) -> None:
    """As Debian has it: only a purge forgets."""
    assert get(installed, "[NIC/eth0]MTU") == 1400


def test_a_purge_leaves_nothing_behind(installed: Container) -> None:
    """Neither the settings, nor their copy, nor generated files, nor a diversion."""
    assert installed.holds("/var/lib/quarn/settings.db.backup")
    installed.run("apt-get", "purge", "-y", "quarn", "quarnctl")
    found = installed.output(
        *("find", "/etc", "/var", "/run", "/tmp", "/usr", "-name", "*quarn*"),
        *("-not", "-path", "/var/log/*"),
    )
    assert found == ""
    assert "quarn" not in installed.output("dpkg-divert", "--list")
    assert installed.output("systemctl", "--failed", "--plain", "--no-legend") == ""
