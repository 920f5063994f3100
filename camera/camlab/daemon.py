"""The daemon in a camera: its process, its log, and what it tells its supervisor."""

from __future__ import annotations

import os
import select
import signal
import socket
import time
from collections.abc import Mapping, Sequence

from .namespaces import ENVIRONMENT, CameraError, Machine, Process
from .waiting import wait_until

FOLDER = "/.camlab"
_STDOUT = f"{FOLDER}/daemon.stdout"
_STDERR = f"{FOLDER}/daemon.stderr"
_NOTIFY = f"{FOLDER}/notify"
# What a run under a sanitizer, a profiler or a coverage tool needs of the caller's environment.
_PASSED_ON = ("ASAN_", "UBSAN_", "TSAN_", "LSAN_", "LLVM_", "GCOV_", "QUARN_LOG_")


class Daemon:
    """One run of the daemon after the other."""

    def __init__(self, machine: Machine, program: str) -> None:
        self._machine = machine
        self._program = program
        self._process: Process | None = None
        self._notify: socket.socket | None = None
        self._notifications: list[str] = []

    @property
    def process(self) -> Process:
        """The running daemon, or the last one that ran."""
        if self._process is None:
            raise CameraError("the daemon was never started")
        return self._process

    @property
    def running(self) -> bool:
        """Whether it runs."""
        return self._process is not None and self._process.poll() is None

    def start(self, arguments: Sequence[str], environment: Mapping[str, str]) -> Process:
        """Start the daemon as a direct child of process 1; its log begins anew."""
        if self.running:
            raise CameraError("the daemon runs already")
        if not self._machine.files.exists(self._program):
            raise CameraError("there is no daemon: build the checkout, or set QUARN_BINARY")
        self.close()
        self._open_notify_socket()
        passed_on = {
            name: value for name, value in os.environ.items() if name.startswith(_PASSED_ON)
        }
        variables = {
            **ENVIRONMENT,
            **passed_on,
            "NOTIFY_SOCKET": _NOTIFY,
            "CAMLAB_RECORD": "1",
            **environment,
        }
        output = [self._fresh_file(path) for path in (_STDOUT, _STDERR)]
        try:
            self._process = self._machine.start(
                [self._program, *arguments], environment=variables, output=output
            )
        finally:
            for descriptor in output:
                os.close(descriptor)
        return self._process

    def notifications(self) -> list[str]:
        """Return all messages of sd_notify since the start."""
        if self._notify is not None:
            while True:
                try:
                    message = self._notify.recv(65536, socket.MSG_DONTWAIT)
                except BlockingIOError:
                    break
                self._notifications.append(message.decode(errors="surrogateescape"))
        return list(self._notifications)

    def wait_notification(self, text: str, timeout: float) -> list[str]:
        """Wait for a message of sd_notify; return all up to now."""
        assert self._notify is not None
        deadline = time.monotonic() + timeout
        while text not in self.notifications():
            if not self.running and text not in self.notifications():
                status = self.process.wait(0)
                raise CameraError(f"the daemon ended with {status} before {text}: {self._tail()}")
            rest = deadline - time.monotonic()
            if rest <= 0:
                raise TimeoutError(f"no {text} within {timeout:g} s: {self._tail()}")
            select.select([self.process, self._notify], [], [], rest)
        return self.notifications()

    def stop(self, number: int = signal.SIGTERM, timeout: float = 30) -> int:
        """Send a signal, and return the exit status."""
        return self.process.stop(number, timeout)

    def stdout(self) -> str:
        """Return what the present or last run wrote on standard output."""
        return self._machine.files.read(_STDOUT)

    def log_lines(self) -> list[str]:
        """Return the lines that the present or last run wrote on standard error."""
        return self._machine.files.read(_STDERR).split("\n")[:-1]

    def wait_log(self, text: str, count: int, timeout: float) -> str:
        """Wait for the count-th log line that contains the text, and return it."""

        def find() -> str | None:
            found = [line for line in self.log_lines() if text in line]
            return found[count - 1] if len(found) >= count else None

        line = wait_until(find, timeout, f"log line {text!r}", [self._machine.path(FOLDER)])
        assert line is not None
        return line

    def close(self) -> None:
        """Let go of a daemon that has ended, or ends with its machine."""
        if self._process is not None:
            self._process.close()
            self._process = None
        if self._notify is not None:
            self._notify.close()
            self._notify = None

    def _open_notify_socket(self) -> None:
        self._machine.files.remove(_NOTIFY)
        self._notifications = []
        self._notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._notify.bind(self._machine.path(_NOTIFY))

    def _fresh_file(self, path: str) -> int:
        flags = os.O_WRONLY | os.O_APPEND | os.O_CREAT | os.O_TRUNC
        return self._machine.files.open(path, flags, 0o644)

    def _tail(self) -> str:
        return "\n".join(self.log_lines()[-20:])
