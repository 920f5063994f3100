"""How the demonstration prints its steps."""

from __future__ import annotations

import json
import shlex
import time
from collections.abc import Callable

from camlab import Camera

SERVICE = "com.vesko.networkingV2 /com/vesko/networkingV2 com.vesko.networkingV2"
PEER = "192.168.0.20"


class Demo:
    """Prints each step, the command that does it, and what came back."""

    def __init__(self, camera: Camera) -> None:
        self.camera = camera
        self.step_number = 0
        self.failed = False

    def step(self, text: str) -> None:
        self.step_number += 1
        print(f"\n{self.step_number}. {text}", flush=True)

    def show(self, where: str, command: str) -> str:
        """Run a command in the camera or on the LAN host, shown so that it can be repeated."""
        print(f"   {where}# {command}", flush=True)
        machine = self.camera if where == "camera" else self.camera.lan
        result = machine.run(["sh", "-c", command])
        output = (result.stdout + result.stderr).strip()
        for line in output.splitlines():
            print(f"     {line}", flush=True)
        return output

    def call(self, method: str, request: dict[str, object]) -> dict[str, object]:
        """Call the daemon with busctl, and return its answer."""
        text = shlex.quote(json.dumps(request))
        output = self.show("camera", f"busctl call {SERVICE} {method} s {text}")
        # busctl quotes as a shell does: its one escape that JSON does not know.
        return dict(json.loads(json.loads(output.removeprefix("s ").replace("\\'", "'"))))

    def expect(self, what: str, holds: bool) -> None:
        print(f"   {'ok' if holds else 'NOT SO'}: {what}", flush=True)
        self.failed = self.failed or not holds

    def wait(self, what: str, condition: Callable[[], object], timeout: float = 120) -> None:
        """Wait for something to become true, and say how long it took."""
        started = time.monotonic()
        self.camera.wait_until(condition, what, timeout)
        print(f"   after {time.monotonic() - started:.1f} s {what}", flush=True)
