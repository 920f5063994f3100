"""The LAN that the camera is plugged into: one more host, and the cable between the two."""

from __future__ import annotations

import os
import socket

from .interfaces import is_running, is_up, make_tap
from .namespaces import Machine, Process
from .programs import helper
from .root_folder import build_root
from .waiting import wait_until

LAN_MAC = "00:00:5e:00:53:02"


class Lan(Machine):
    """A host on the camera's LAN, with the interface lan0 and files of its own."""

    def __init__(self) -> None:
        super().__init__()
        build_root(self, {"/.camlab/camera-cable": helper("camera-cable")})
        self.request("hostname", "lan")
        self.tap = make_tap(self, "lan0", LAN_MAC)

    def close(self) -> None:
        """Take the host down."""
        os.close(self.tap)
        super().close()

    def own(self, address: str) -> None:
        """Let lan0 have an address, with a prefix length of 24 (IPv6: 64) if it names none."""
        command = ["ip", "address", "add", _with_prefix(address), "dev", "lan0"]
        self.run(command + (["nodad"] if ":" in address else []), check=True)

    def disown(self, address: str) -> None:
        """Take an address away from lan0."""
        self.run(["ip", "address", "delete", _with_prefix(address), "dev", "lan0"], check=True)


class Cable:
    """The cable between the camera's eth0 and the LAN."""

    def __init__(self, lan: Lan, camera: Machine, camera_tap: int) -> None:
        self._camera = camera
        self._control, far_end = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        with far_end:
            self._process: Process = lan.start(
                ["/.camlab/camera-cable", "3", "4", "5"],
                more_descriptors=[far_end.fileno(), camera_tap, lan.tap],
            )

    def cut(self) -> None:
        """Take the carrier from eth0; frames are lost from now on."""
        self._command(b"cut")
        self._wait_until_seen(False)

    def join(self) -> None:
        """Give eth0 its carrier back."""
        self._command(b"join")
        self._wait_until_seen(True)

    def close(self) -> None:
        """Take the cable away; eth0 vanishes when it was the last to hold it."""
        self._control.close()
        self._process.wait()
        self._process.close()

    @property
    def process(self) -> Process:
        """The process that passes the frames."""
        return self._process

    def _command(self, text: bytes) -> None:
        self._control.send(text)
        answer = self._control.recv(64)
        if answer != b"ok":
            raise OSError(int(answer or 5), f"the cable did not {text.decode()}")

    def _wait_until_seen(self, joined: bool) -> None:
        """The kernel takes note of a carrier up to a second later, unless the interface is down."""
        wait_until(
            lambda: is_running(self._camera, "eth0") == joined or not is_up(self._camera, "eth0"),
            10,
            f"eth0 {'has a' if joined else 'is without'} carrier",
        )


def _with_prefix(address: str) -> str:
    if "/" in address:
        return address
    return f"{address}/64" if ":" in address else f"{address}/24"
