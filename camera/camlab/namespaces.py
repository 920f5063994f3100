"""A machine made of kernel namespaces: its first process, and what is started in it."""

from __future__ import annotations

import array
import os
import select
import signal
import socket
import struct
import subprocess
import threading
from collections.abc import Mapping, Sequence

from .files import FileTree
from .programs import helper

MS_RDONLY, MS_NOSUID, MS_NODEV, MS_REMOUNT, MS_BIND = 1, 2, 4, 32, 4096

ENVIRONMENT = {
    "PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
    "HOME": "/root",
    "LANG": "C.UTF-8",
}


class CameraError(Exception):
    """The virtual camera cannot do what it was asked for."""


class Process:
    """A process of a machine; it ends with the machine at the latest."""

    def __init__(self, arguments: Sequence[str], pidfd: int, status: int, output: Output) -> None:
        self.arguments = list(arguments)
        self._pidfd = pidfd
        self._status = status
        self._output = output
        self._exit_status: int | None = None

    @property
    def pid(self) -> int:
        """The process id as the host sees it; -1 once it has ended."""
        with open(f"/proc/self/fdinfo/{self._pidfd}", encoding="ascii") as file:
            return int(next(line for line in file if line.startswith("Pid:")).split()[1])

    @property
    def pid_inside(self) -> int:
        """The process id as the machine sees it."""
        with open(f"/proc/self/fdinfo/{self._pidfd}", encoding="ascii") as file:
            return int(next(line for line in file if line.startswith("NSpid:")).split()[-1])

    def poll(self) -> int | None:
        """Return the exit status, or None while it runs."""
        try:
            return self.wait(0)
        except TimeoutError:
            return None

    def fileno(self) -> int:
        """A descriptor that can be read, as select() sees it, once the process has ended."""
        return self._status

    def wait(self, timeout: float | None = 30) -> int:
        """Return the exit status, below 0 the signal that ended it."""
        if self._exit_status is None:
            if not select.select([self._status], [], [], timeout)[0]:
                raise TimeoutError(f"still running after {timeout:g} s: {self.arguments}")
            content = os.read(self._status, 4)
            if len(content) < 4:
                raise CameraError(f"the machine of {self.arguments} has ended")
            self._exit_status = os.waitstatus_to_exitcode(struct.unpack("i", content)[0])
        return self._exit_status

    def send_signal(self, number: int) -> None:
        """Send a signal; nothing happens to a process that has ended."""
        try:
            signal.pidfd_send_signal(self._pidfd, number)
        except ProcessLookupError:
            pass

    def stop(self, number: int = signal.SIGTERM, timeout: float = 30) -> int:
        """Send a signal, and return the exit status."""
        self.send_signal(number)
        return self.wait(timeout)

    @property
    def stdout(self) -> str:
        """What it wrote on standard output up to now."""
        return self._output.text(0)

    @property
    def stderr(self) -> str:
        """What it wrote on standard error up to now."""
        return self._output.text(1)

    def close(self) -> None:
        """Let go of the descriptors; the process itself goes on."""
        for descriptor in (self._pidfd, self._status):
            os.close(descriptor)
        self._output.close()

    def __enter__(self) -> Process:
        return self

    def __exit__(self, *_: object) -> None:
        self.stop(signal.SIGKILL)
        self.close()


class Output:
    """Two files in memory that take what a process writes, so that no pipe can fill."""

    def __init__(self, descriptors: Sequence[int] = ()) -> None:
        self.descriptors = list(descriptors) or [
            os.memfd_create("stdout"),
            os.memfd_create("stderr"),
        ]

    def text(self, index: int) -> str:
        """The content up to now."""
        size = os.fstat(self.descriptors[index]).st_size
        return os.pread(self.descriptors[index], size, 0).decode(errors="surrogateescape")

    def close(self) -> None:
        """Let go of both."""
        for descriptor in self.descriptors:
            os.close(descriptor)


class Machine:
    """Mount, network, process, host name and IPC namespaces of their own.

    They live as long as this object; when the Python process dies, however it does, the kernel
    takes them down.
    """

    def __init__(self) -> None:
        if os.geteuid() != 0:
            raise CameraError("the virtual camera needs root: it is built of kernel namespaces")
        self._lock = threading.Lock()
        self._control, far_end = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        with far_end:
            self._outer = subprocess.Popen(
                [helper("camera-init"), str(far_end.fileno())],
                pass_fds=[far_end.fileno()],
                stdin=subprocess.DEVNULL,
            )
        self._control.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 20)
        hello = self._control.recv(64).decode()
        if not hello.isdigit():
            raise CameraError("the kernel refuses new namespaces")
        self.pid = int(hello)
        self.files = FileTree("/")  # until there is a root of its own

    def close(self) -> None:
        """End every process of the machine, and wait until the last one is gone."""
        self._control.close()
        self.files.close()
        self._outer.wait()

    def request(self, *fields: str, descriptors: Sequence[int] = ()) -> int:
        """Have process 1 do something; return the descriptor that it hands over, or -1."""
        message = "".join(f"{field}\0" for field in fields).encode(errors="surrogateescape")
        rights = array.array("i", descriptors)
        ancillary = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, rights)] if rights else []
        with self._lock:
            self._control.sendmsg([message], ancillary)
            answer, received, _, _ = socket.recv_fds(self._control, 64, 1)
        if answer != b"ok":
            if not answer:
                raise CameraError("the machine has ended")
            raise OSError(int(answer), f"{os.strerror(int(answer))}: {' '.join(fields[:4])}")
        return received[0] if received else -1

    def mount(
        self, source: str, target: str, kind: str = "", flags: int = 0, options: str = ""
    ) -> None:
        """Do what mount(2) does."""
        self.request("mount", source, target, kind, str(flags), options)

    def unmount(self, target: str) -> None:
        """Take a mount away, even one in use."""
        self.request("unmount", target)

    def enter_root(self, new_root: str) -> None:
        """Make new_root the machine's / and leave the host's behind."""
        self.request("pivot", new_root)
        self.look_at_root()

    def look_at_root(self) -> None:
        """Take the machine's present / as the tree behind `files`."""
        self.files.close()
        self.files = FileTree(f"/proc/{self.pid}/root")

    def open(self, path: str, flags: int) -> int:
        """Open a file as a process of the machine would."""
        return self.request("open", path, str(flags))

    def socket(self, family: int, kind: int, protocol: int = 0) -> socket.socket:
        """Return a socket that belongs to the machine's network."""
        descriptor = self.request("socket", str(int(family)), str(int(kind)), str(protocol))
        return socket.socket(fileno=descriptor)

    def path(self, path: str) -> str:
        """Return the host's name of a path without links on its way."""
        return f"/proc/{self.pid}/root{path}"

    def start(
        self,
        arguments: Sequence[str],
        *,
        environment: Mapping[str, str] | None = None,
        stdin: int | str | bytes | None = None,
        output: Sequence[int] = (),
        more_descriptors: Sequence[int] = (),
        folder: str = "/",
        tty: bool = False,
    ) -> Process:
        """Start a program as a child of process 1.

        `stdin` is a text, a descriptor or None for none; `output` are two descriptors for standard
        output and error, else they are collected. `more_descriptors` become 3, 4 and so on.
        """
        collected = Output([os.dup(descriptor) for descriptor in output])
        near, far = os.pipe2(os.O_CLOEXEC)
        source = _descriptor_with(stdin)
        variables = ENVIRONMENT if environment is None else environment
        try:
            pidfd = self.request(
                *("spawn", folder, "tty" if tty else "", str(len(arguments)), *arguments),
                *(f"{name}={value}" for name, value in variables.items()),
                descriptors=[far, source, *collected.descriptors, *more_descriptors],
            )
        except OSError:
            collected.close()
            os.close(near)
            raise
        finally:
            os.close(far)
            os.close(source)
        return Process(arguments, pidfd, near, collected)

    def run(
        self,
        arguments: Sequence[str],
        *,
        input: str | bytes | None = None,
        timeout: float = 30,
        check: bool = False,
        environment: Mapping[str, str] | None = None,
    ) -> subprocess.CompletedProcess[str]:
        """Run a program to its end; one that outlasts the timeout is killed."""
        with self.start(arguments, stdin=input, environment=environment) as process:
            try:
                status = process.wait(timeout)
            except TimeoutError as error:
                raise subprocess.TimeoutExpired(
                    list(arguments), timeout, process.stdout, process.stderr
                ) from error
            done = subprocess.CompletedProcess(
                list(arguments), status, process.stdout, process.stderr
            )
        if check:
            done.check_returncode()
        return done

    def end_everything(self) -> None:
        """Kill every process of the machine but the first."""
        self.request("end-everything")


def _descriptor_with(content: int | str | bytes | None) -> int:
    if content is None:
        return os.open("/dev/null", os.O_RDONLY | os.O_CLOEXEC)
    if isinstance(content, int):
        return os.dup(content)
    if isinstance(content, str):
        content = content.encode(errors="surrogateescape")
    descriptor = os.memfd_create("stdin")
    os.write(descriptor, content)
    os.lseek(descriptor, 0, os.SEEK_SET)
    return descriptor
