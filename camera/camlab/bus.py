"""The camera's system bus, and a client of the daemon on it."""

from __future__ import annotations

import json
import os
import select
import time
from collections.abc import Iterable, Mapping
from typing import Any, NamedTuple

from jeepney import DBusAddress, HeaderFields, MatchRule, MessageType, new_method_call
from jeepney.bus_messages import message_bus
from jeepney.io.blocking import DBusConnection, open_dbus_connection

from .namespaces import CameraError, Machine, Process

NAME = "com.vesko.networkingV2"
PATH = "/com/vesko/networkingV2"
SOCKET = "/run/dbus/system_bus_socket"
_DAEMON = DBusAddress(PATH, NAME, NAME)


class BusError(CameraError):
    """A call was answered with an error."""

    def __init__(self, name: str, text: str) -> None:
        super().__init__(f"{name}: {text}")
        self.name = name
        self.text = text


class Signal(NamedTuple):
    """A signal of the daemon: its name and its arguments."""

    name: str
    arguments: tuple[Any, ...]


class SystemBus:
    """The bus daemon of a camera."""

    def __init__(self, machine: Machine) -> None:
        self._machine = machine
        self._process: Process | None = None

    @property
    def process(self) -> Process | None:
        """The bus daemon, as long as it runs."""
        return self._process

    def start(self) -> None:
        """Start the bus daemon, and return once it listens."""
        near, far = os.pipe2(os.O_CLOEXEC)
        self._process = self._machine.start(
            ["dbus-daemon", "--system", "--nofork", "--nopidfile", "--print-address=3"],
            more_descriptors=[far],
        )
        os.close(far)
        with open(near, encoding="ascii") as answer:
            if not answer.readline():
                raise CameraError(f"no system bus: {self._process.stderr}")

    def stop(self) -> None:
        """End the bus daemon: every connection to it breaks."""
        if self._process is not None:
            self._process.stop()
            self.forget()

    def forget(self) -> None:
        """Let go of a bus daemon that has ended."""
        if self._process is not None:
            self._process.close()
            self._process = None

    def connect(self) -> DBusConnection:
        """Return a new connection, as root."""
        return open_dbus_connection(f"unix:path={self._machine.path(SOCKET)}", auth_timeout=10)


class Client:
    """Calls of the daemon's two methods, and its signals, each on a connection of its own."""

    def __init__(self, bus: SystemBus) -> None:
        self._calls = bus.connect()
        self._events = bus.connect()
        rule = MatchRule(type="signal", interface=NAME, path=PATH)
        reply = self._events.send_and_get_reply(message_bus.AddMatch(rule), timeout=10)
        if reply.header.message_type == MessageType.error:
            raise CameraError("the bus refuses to pass signals on")
        self._signals: list[Signal] = []
        self._waited_for: set[int] = set()

    def close(self) -> None:
        """Leave the bus."""
        self._calls.close()
        self._events.close()

    def call_text(self, method: str, text: str, timeout: float = 60) -> str:
        """Call api_get or api_set, and return the response text; BusError where there is none."""
        message = new_method_call(_DAEMON, method, "s", (text,))
        reply = self._calls.send_and_get_reply(message, timeout=timeout)
        if reply.header.message_type == MessageType.error:
            name = reply.header.fields[HeaderFields.error_name]
            raise BusError(name, str(reply.body[0]) if reply.body else "")
        return str(reply.body[0])

    def get(self, request: str | Iterable[str], timeout: float = 60) -> dict[str, Any]:
        """Call api_get with a list of keys or a text, and return the parsed response."""
        if not isinstance(request, str):
            request = json.dumps({"settings": list(request)})
        return _parsed(self.call_text("api_get", request, timeout))

    def set(self, request: str | Mapping[str, Any], timeout: float = 60) -> dict[str, Any]:
        """Call api_set with settings or a text, and return the parsed response."""
        if not isinstance(request, str):
            request = json.dumps(request)
        return _parsed(self.call_text("api_set", request, timeout))

    def signals(self) -> list[Signal]:
        """Return all signals since the start or the last clear."""
        self._read_signals()
        return list(self._signals)

    def clear_signals(self) -> None:
        """Forget the signals up to now."""
        self._read_signals()
        self._signals.clear()
        self._waited_for.clear()

    def wait_signal(self, name: str, timeout: float = 30) -> Signal:
        """Return the first signal of that name that no earlier wait has returned."""
        deadline = time.monotonic() + timeout
        while True:
            self._read_signals()
            for index, signal in enumerate(self._signals):
                if signal.name == name and index not in self._waited_for:
                    self._waited_for.add(index)
                    return signal
            rest = deadline - time.monotonic()
            if rest <= 0 or not select.select([self._events.sock], [], [], rest)[0]:
                raise TimeoutError(f"no signal {name} within {timeout:g} s: {self._signals}")

    def _read_signals(self) -> None:
        while True:
            try:
                message = self._events.receive(timeout=0)
            except TimeoutError:
                return
            fields = message.header.fields
            if (
                message.header.message_type == MessageType.signal
                and fields.get(HeaderFields.interface) == NAME
            ):
                self._signals.append(Signal(fields[HeaderFields.member], tuple(message.body)))


def _parsed(text: str) -> dict[str, Any]:
    response = json.loads(text)
    if not isinstance(response, dict):
        raise CameraError(f"the response is not an object: {text}")
    return response
