"""The shell commands of the daemon: what it ran, and what is to happen when it runs one.

/.camlab/commands, written by camera-shell, one of these after the other:
    start ID NANOSECONDS LENGTH\\n TEXT \\n       a command has begun
    end ID NANOSECONDS STATUS\\n                 its wait status, as system() returns it
/.camlab/rules, written here, in place of the old one at each change:
    NAME\\n                                      comm of the daemon
    ID ACTION STATUS TIMES LENGTH LENGTH LENGTH\\n PATTERN OUTPUT ERRORS \\n
    for each rule, the newest first. ACTION is "answer" or "hang", STATUS -1 means "run it", TIMES 0
    means "always".
"""

from __future__ import annotations

import itertools
import os
from fnmatch import fnmatchcase
from typing import NamedTuple

from .namespaces import Machine
from .waiting import wait_until

FOLDER = "/.camlab"
COMMANDS = f"{FOLDER}/commands"
RULES = f"{FOLDER}/rules"
SHELL = f"{FOLDER}/camera-shell"
_COMM_LENGTH = 15


class Command(NamedTuple):
    """A command text and its exit status: below 0 the signal that ended it, None while it runs."""

    text: str
    status: int | None


class TimedCommand(NamedTuple):
    """A command with the times of time.monotonic() at which it began and ended."""

    text: str
    status: int | None
    begin: float
    end: float | None


class Rule:
    """A rule that stands until it is released."""

    def __init__(self, recorder: Recorder, line: bytes) -> None:
        self._recorder = recorder
        self.line = line

    def release(self) -> None:
        """Take the rule away; the commands that hang by it go on."""
        self._recorder.release(self)


class Recorder:
    """The recording shell of a camera."""

    def __init__(self, machine: Machine) -> None:
        self._machine = machine
        self._real_shell = _link_target(machine, "/bin/sh")
        self._daemon = "quarn"
        self._rules: list[Rule] = []
        self._ids = itertools.count(1)
        machine.files.link(f"{FOLDER}/real/sh", self._real_shell)
        machine.files.write(COMMANDS, b"", 0o600)
        self._write_rules()

    def switch_on(self) -> None:
        """Put the recording shell at /bin/sh."""
        self._machine.files.link("/usr/bin/sh", SHELL)

    def switch_off(self) -> None:
        """Put the real shell back: nothing is recorded, no rule holds."""
        self._machine.files.link("/usr/bin/sh", self._real_shell)

    def watch_daemon(self, program: str) -> None:
        """Name the program whose commands are recorded."""
        self._daemon = os.path.basename(program)[:_COMM_LENGTH]
        self._write_rules()

    def commands(self) -> list[Command]:
        """Return the commands in the order in which they began."""
        return [Command(record.text, record.status) for record in self.timed_commands()]

    def timed_commands(self) -> list[TimedCommand]:
        """Return the commands with their times."""
        records: dict[bytes, TimedCommand] = {}
        rest = self._machine.files.read_bytes(COMMANDS)
        while rest:
            line, _, rest = rest.partition(b"\n")
            kind, name, time, value = line.split(b" ")
            seconds = int(time) / 1e9
            if kind == b"start":
                text = rest[: int(value)].decode(errors="surrogateescape")
                rest = rest[int(value) + 1 :]
                records[name] = TimedCommand(text, None, seconds, None)
            elif name in records:
                status = os.waitstatus_to_exitcode(int(value))
                records[name] = records[name]._replace(status=status, end=seconds)
        return list(records.values())

    def clear(self) -> None:
        """Forget the commands up to now."""
        os.truncate(self._machine.path(COMMANDS), 0)

    def wait_for(
        self, pattern: str, *, finished: bool = True, count: int = 1, timeout: float = 30
    ) -> Command:
        """Wait until `count` commands that match have ended (or begun); return the last of them."""

        def find() -> Command | None:
            found = [
                command
                for command in self.commands()
                if fnmatchcase(command.text, pattern)
                and (command.status is not None or not finished)
            ]
            return found[count - 1] if len(found) >= count else None

        what = f"command {pattern!r} {'ended' if finished else 'begun'}"
        command = wait_until(find, timeout, what, [self._machine.path(FOLDER)])
        assert command is not None
        return command

    def answer(
        self,
        pattern: str,
        status: int = 0,
        output: str | bytes = b"",
        errors: str | bytes = b"",
        times: int = 0,
    ) -> Rule:
        """Answer matching commands at once, without running them; with `times` only so many."""
        return self._add("answer", pattern, status, output, errors, times)

    def hang(self, pattern: str, status: int | None = None, times: int = 0) -> Rule:
        """Hold matching commands up until the rule is released.

        They then run, or end with `status` where one is given.
        """
        return self._add("hang", pattern, -1 if status is None else status, b"", b"", times)

    def run(self, pattern: str, times: int = 0) -> Rule:
        """Let matching commands run, whatever an older rule says."""
        return self._add("answer", pattern, -1, b"", b"", times)

    def release(self, rule: Rule) -> None:
        """Take a rule away."""
        self._rules.remove(rule)
        self._write_rules()

    def release_all(self) -> None:
        """Take every rule away."""
        self._rules.clear()
        self._write_rules()

    def _add(
        self,
        action: str,
        pattern: str,
        status: int,
        output: str | bytes,
        errors: str | bytes,
        times: int,
    ) -> Rule:
        texts = [
            text.encode(errors="surrogateescape") if isinstance(text, str) else text
            for text in (pattern, output, errors)
        ]
        lengths = " ".join(str(len(text)) for text in texts)
        head = f"{next(self._ids)} {action} {status} {times} {lengths}\n".encode()
        rule = Rule(self, head + b"".join(texts) + b"\n")
        self._rules.insert(0, rule)
        self._write_rules()
        return rule

    def _write_rules(self) -> None:
        lines = [f"{self._daemon}\n".encode(), *(rule.line for rule in self._rules)]
        self._machine.files.replace(RULES, b"".join(lines), 0o600)


def _link_target(machine: Machine, path: str) -> str:
    """The file at the end of a link, as a path of the machine."""
    descriptor = machine.files.open(path, os.O_PATH)
    try:
        return os.readlink(f"/proc/self/fd/{descriptor}")
    finally:
        os.close(descriptor)
