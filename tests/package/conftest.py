"""Fixtures of the package tests: the built packages, and machines on which they are installed."""

from __future__ import annotations

import json
import os
import re
import shutil
import subprocess
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest
from container import (
    CHECKOUT,
    Container,
    ContainerError,
    build_packages,
    make_image,
    wait_until,
)

_KEEPER = "trap 'touch /tmp/told' USR2; touch /tmp/keeps; while :; do sleep 0.2; done"
BUS_CALL = ("busctl", "call", "com.vesko.networkingV2", "/com/vesko/networkingV2")


@pytest.fixture(scope="session")
def packages() -> list[Path]:
    """Return the files of quarn and quarnctl, built from the checkout as it is."""
    folder = Path(os.environ.get("QUARN_PACKAGES", CHECKOUT / "build/packages"))
    return list(build_packages("amd64", folder))


@pytest.fixture(scope="session")
def image() -> None:
    """See to it that a container can be booted here, or skip with the reason."""
    if shutil.which("systemd-nspawn") is None or shutil.which("mmdebstrap") is None:
        pytest.skip("no container: systemd-nspawn and mmdebstrap are not installed")
    try:
        make_image()
    except subprocess.CalledProcessError as error:
        pytest.skip(f"no container: the image cannot be made here: {error.stderr.decode()[-500:]}")
    try:
        with Container():
            pass
    except ContainerError as error:
        pytest.skip(f"no container: {error}")


@pytest.fixture(scope="module")
def clean_machine(image: None) -> Iterator[Container]:
    """Boot a machine that has what the packages need, and not them.

    nginx has a main file that includes the daemon's; a stand-in for the time service's keeper
    runs as another user, and notes that it was told of a change.
    """
    with Container() as machine:
        example = CHECKOUT / "packaging/examples/nginx.conf"
        shutil.copy(example, machine.path("/etc/nginx/nginx.conf"))
        shutil.copy(machine.path("/bin/bash"), machine.path("/usr/local/bin/ntp-keeper"))
        machine.run(
            "systemd-run", "--property=User=nobody", "/usr/local/bin/ntp-keeper", "-c", _KEEPER
        )
        wait_until(lambda: machine.holds("/tmp/keeps"), 10, "ntp-keeper runs")
        yield machine


@pytest.fixture(scope="module")
def machine(clean_machine: Container, packages: list[Path]) -> Container:
    """Return a machine with both packages, a name, and eth0 with its lease."""
    clean_machine.install(*packages)
    clean_machine.run("/usr/lib/quarn/quarn-wait-online")
    api(clean_machine, "api_set", {"[Hostname]Name": "porch"})
    return clean_machine


def api(machine: Container, method: str, request: object, user: str | None = None) -> Any:
    """Call the daemon with busctl, and return its answer; a refusal by the bus raises ContainerError."""
    words = ("com.vesko.networkingV2", method, "s", json.dumps(request))
    done = machine.run(*BUS_CALL, *words, user=user)
    return json.loads(json.loads(done.stdout.removeprefix("s ")))


def get(machine: Container, key: str, user: str | None = None) -> Any:
    """Return the value of one setting."""
    return api(machine, "api_get", {"settings": [key]}, user)[key]


def show(machine: Container, unit: str, *properties: str) -> dict[str, str]:
    """Return properties of a unit."""
    lines = machine.output("systemctl", "show", unit, f"--property={','.join(properties)}")
    return dict(re.findall(r"(\w+)=(.*)", lines))


def journal(machine: Container, *matches: str) -> list[dict[str, Any]]:
    """Return the entries of the journal that match."""
    lines = machine.output("journalctl", "--output=json", *matches)
    return [json.loads(line) for line in lines.splitlines()]
