"""Runs of quarnctl in a camera, and what several tests of it know."""

from __future__ import annotations

import json
from collections.abc import Sequence
from typing import Any, NamedTuple

from camlab import Camera

STATE = "/var/lib/quarnctl"
QUARN_GROUP = 901
NOBODY = 65534


class Run(NamedTuple):
    """How a run of quarnctl ended."""

    status: int
    stdout: str
    stderr: str


def quarnctl(
    camera: Camera,
    *arguments: str,
    stdin: str | None = None,
    groups: Sequence[int] | None = None,
    **variables: str,
) -> Run:
    """Run quarnctl, as root or, with groups, as an ordinary user who is a member of them."""
    words = [*_as_user(groups), "/usr/bin/quarnctl", *arguments]
    environment = {"PATH": "/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin", "LANG": "C.UTF-8"}
    done = camera.run(words, input=stdin, timeout=120, environment={**environment, **variables})
    return Run(done.returncode, done.stdout, done.stderr)


def _as_user(groups: Sequence[int] | None) -> list[str]:
    if groups is None:
        return []
    members = [f"--groups={','.join(map(str, groups))}"] if groups else ["--clear-groups"]
    return ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", *members, "--"]


def quarnctl_json(camera: Camera, *arguments: str, **more: Any) -> Any:
    """Run quarnctl with --json; return what it printed, parsed, with nothing beside it."""
    done = quarnctl(camera, "--json", *arguments, **more)
    assert done.stderr == ""
    return json.loads(done.stdout)


def make_state_folder(camera: Camera) -> None:
    """Make the folder of the records as the package does."""
    camera.run(["mkdir", "-p", STATE], check=True)
    camera.run(["chgrp", str(QUARN_GROUP), STATE], check=True)
    camera.run(["chmod", "2770", STATE], check=True)


def sent_requests(camera: Camera) -> list[Any]:
    """Return the set requests that the daemon has logged, parsed."""
    mark = "api_set: API call: SET.  Data: "
    return [json.loads(line.split(mark, 1)[1]) for line in camera.log_lines() if mark in line]
