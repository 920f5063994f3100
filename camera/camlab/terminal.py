"""A person's terminal, passed into a machine."""

from __future__ import annotations

import fcntl
import os
import select
import signal
import struct
import sys
import termios
import tty
from collections.abc import Mapping, Sequence

from .namespaces import Machine, Process

_TIOCGPTPEER = 0x5441
_TIOCSPTLCK = 0x40045431


def run_attached(machine: Machine, arguments: Sequence[str], environment: Mapping[str, str]) -> int:
    """Run a program on this process's standard input, output and error; return its exit status.

    Where they are a terminal, the program gets a terminal of the machine with job control.
    """
    if not (sys.stdin.isatty() and sys.stdout.isatty()):
        process = machine.start(arguments, environment=environment, stdin=0, output=(1, 2))
        return process.wait(None)
    master = machine.open("/dev/pts/ptmx", os.O_RDWR)
    fcntl.ioctl(master, _TIOCSPTLCK, struct.pack("i", 0))
    slave = fcntl.ioctl(master, _TIOCGPTPEER, os.O_RDWR | os.O_NOCTTY)
    _copy_window_size(master)
    process = machine.start(
        arguments, environment=environment, stdin=slave, output=(slave, slave), tty=True
    )
    os.close(slave)
    signal.signal(signal.SIGWINCH, lambda *_: _copy_window_size(master))
    before = termios.tcgetattr(0)
    tty.setraw(0)
    try:
        _relay(process, master)
    finally:
        termios.tcsetattr(0, termios.TCSADRAIN, before)
        signal.signal(signal.SIGWINCH, signal.SIG_DFL)
    return process.wait(None)


def _relay(process: Process, master: int) -> None:
    sources = [0, master, process]
    while True:
        ready = select.select(sources, [], [])[0]
        if master in ready:
            try:
                _write_all(1, os.read(master, 65536))
            except OSError:  # EIO: nobody holds the terminal any more
                return
        elif process in ready:
            return
        if 0 in ready:
            typed = os.read(0, 65536)
            if typed:
                _write_all(master, typed)
            else:
                sources.remove(0)


def _write_all(descriptor: int, content: bytes) -> None:
    while content:
        content = content[os.write(descriptor, content) :]


def _copy_window_size(master: int) -> None:
    size = fcntl.ioctl(0, termios.TIOCGWINSZ, bytes(8))
    fcntl.ioctl(master, termios.TIOCSWINSZ, size)
