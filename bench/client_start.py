"""What it costs to ask one question from a shell: from the start of a program to its end."""

from __future__ import annotations

import json
from statistics import median

from laboratory import MTU, QUARN, bench, get_request
from table import Table

_PROGRAMS = {
    "quarnctl get": ["/usr/bin/quarnctl", "get", MTU],
    "busctl call": ["/usr/bin/busctl", "call", *QUARN, QUARN[0], "api_get", "s", get_request([MTU])],
    "networkctl status": ["/usr/bin/networkctl", "status", "--no-pager"],
}
# Runs in the camera: starts the programs by turns, and prints the seconds that each run took.
_STARTER = """
import json, os, sys, time
rounds, programs = json.loads(sys.argv[1])
null = os.open("/dev/null", os.O_RDWR)
quiet = [(os.POSIX_SPAWN_DUP2, null, descriptor) for descriptor in (0, 1, 2)]
samples = [[] for _ in programs]
for _ in range(rounds):
    for taken, words in zip(samples, programs):
        begin = time.monotonic()
        process = os.posix_spawn(words[0], words, os.environ, file_actions=quiet)
        status = os.waitstatus_to_exitcode(os.waitpid(process, 0)[1])
        taken.append(time.monotonic() - begin)
        if status != 0:
            sys.exit(f"{words} ended with {status}")
print(json.dumps(samples))
"""


def measure_client(table: Table, quick: bool) -> None:
    """quarnctl against busctl with the same question, and against networkctl's picture of the machine."""
    with bench() as here:
        here.start()
        task = json.dumps([10 if quick else 200, list(_PROGRAMS.values())])
        done = here.camera.run(["python3", "-c", _STARTER, task], timeout=600)
        if done.returncode != 0:
            raise SystemExit(done.stderr)
        quarnctl, busctl, networkctl = map(median, json.loads(done.stdout))
        what = "quarnctl get, start to answer"
        table.ratio(what, quarnctl, busctl, "busctl call", 1.2)
        table.ratio(what, quarnctl, networkctl, "networkctl status")
