"""Waiting for events: no wait in the laboratory is for a time."""

from __future__ import annotations

import ctypes
import os
import select
import time
from collections.abc import Callable, Iterable
from typing import TypeVar

T = TypeVar("T")

_libc = ctypes.CDLL(None, use_errno=True)
_FILE_EVENTS = 0x2 | 0x80 | 0x100 | 0x200  # IN_MODIFY, IN_MOVED_TO, IN_CREATE, IN_DELETE
_NO_EVENT_SOURCE_PAUSE = 0.005


def wait_until(
    condition: Callable[[], T],
    timeout: float,
    what: str,
    folders: Iterable[str] = (),
) -> T:
    """Return the first true value of the condition, or raise TimeoutError.

    The condition is looked at again whenever a file in one of the folders changes; without
    folders (kernel state that tells nobody of its changes) every few milliseconds.
    """
    deadline = time.monotonic() + timeout
    with _FolderEvents(folders) as events:
        while not (value := condition()):
            rest = deadline - time.monotonic()
            if rest <= 0:
                raise TimeoutError(f"not within {timeout:g} s: {what}")
            events.wait(rest)
        return value


class _FolderEvents:
    def __init__(self, folders: Iterable[str]) -> None:
        self._descriptor = -1
        for folder in folders:
            if self._descriptor < 0:
                self._descriptor = _libc.inotify_init1(os.O_CLOEXEC | os.O_NONBLOCK)
            if _libc.inotify_add_watch(self._descriptor, folder.encode(), _FILE_EVENTS) < 0:
                raise OSError(ctypes.get_errno(), "inotify_add_watch", folder)

    def __enter__(self) -> _FolderEvents:
        return self

    def __exit__(self, *_: object) -> None:
        if self._descriptor >= 0:
            os.close(self._descriptor)

    def wait(self, timeout: float) -> None:
        if self._descriptor < 0:
            time.sleep(min(timeout, _NO_EVENT_SOURCE_PAUSE))
        elif select.select([self._descriptor], [], [], timeout)[0]:
            os.read(self._descriptor, 65536)
