"""The daemon's main job, shown in a virtual camera: called by ./run."""

from __future__ import annotations

import argparse
import json
import os
import shlex
import sys
import time

from camlab import Camera
from camlab.namespaces import ENVIRONMENT
from camlab.programs import build_folder
from camlab.terminal import run_attached

SERVICE = "com.vesko.networkingV2 /com/vesko/networkingV2 com.vesko.networkingV2"
PEER = "192.168.0.20"
DHCP_SERVER = [
    *("dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--port=0", "--leasefile-ro"),
    *("--interface=lan0", "--bind-interfaces", "--dhcp-authoritative", "--dhcp-sequential-ip"),
    "--dhcp-range=192.168.0.100,192.168.0.150,255.255.255.0,10m",
    *("--dhcp-option=option:router,192.168.0.1", "--dhcp-option=option:dns-server,192.168.0.53"),
    "--dhcp-option=option:ntp-server,192.168.0.123",
]


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


def show_job(demo: Demo) -> None:
    """From boot to a refused request."""
    camera = demo.camera
    demo.step(
        f"The daemon starts. No DHCP server answers, and another host of the LAN owns {PEER}:"
    )
    started = time.monotonic()
    camera.start_daemon(QUARN_LOG_LEVEL="info")
    camera.wait_ready()
    print(f"   ready after {time.monotonic() - started:.1f} s; what it says on the console:")
    for line in camera.log_lines():
        if line.startswith("QUARN: "):
            print(f"     {line}")
    addresses = demo.show("camera", "ip -4 -brief address show dev eth0")
    demo.expect(
        "a link-local address, and the first free fallback beside it",
        "192.168.0.21/24" in addresses,
    )

    demo.step(
        "Settings are read over the bus; the Actual ones come from the kernel at that moment:"
    )
    keys = [
        "[IPv4/DHCP]Enabled",
        "[NIC/eth0]MTU",
        "[NIC/eth0]MAC",
        "[IPv4/Actual]Address",
        "[IPv6/Actual]Addresses",
    ]
    answer = demo.call("api_get", {"settings": keys})
    demo.expect(
        "every value came", all(key in answer for key in keys) and answer["success"] is True
    )

    demo.step("A manual address is set, and the MTU. The answer comes when the change is made:")
    camera.clear_signals()
    answer = demo.call(
        "api_set",
        {
            "[IPv4/DHCP]Enabled": False,
            "[IPv4/Manual]Address": "192.168.0.90",
            "[NIC/eth0]MTU": 1400,
        },
    )
    demo.expect("the daemon reports success", answer == {"success": True, "errors": []})

    demo.step("It is true in the kernel, and for another host on the LAN:")
    kernel = demo.show(
        "camera",
        "ip -4 -brief address show dev eth0; ip -brief link show dev eth0; cat /sys/class/net/eth0/mtu",
    )
    demo.expect(
        "the kernel has the address and the MTU",
        "192.168.0.90/24" in kernel and kernel.endswith("1400"),
    )
    reached = demo.show("lan", "busybox ping -c 1 -W 2 192.168.0.90 | tail -n 2")
    demo.expect("the LAN host reaches the camera", "1 packets received" in reached)

    demo.step("Everybody on the bus heard of it:")
    heard = [camera.wait_signal("IPv4AddressChange"), camera.wait_signal("MTUChange")]
    for signal in heard:
        print(f"     signal {signal.name} {signal.arguments[0]!r}")
    demo.expect(
        "the signals carry the new values",
        [s.arguments[0] for s in heard] == ["192.168.0.90", 1400],
    )

    demo.step("A bad request is refused whole, with every fault named, and changes nothing:")
    answer = demo.call(
        "api_set",
        {
            "[NIC/eth0]MTU": 9000,
            "[IPv4/Manual]Address": "127.0.0.1; reboot",
            "[IPv4/DHCP]Enabled": "yes",
        },
    )
    errors = answer["errors"]
    demo.expect(
        "three faults, one an entry",
        answer["success"] is False and isinstance(errors, list) and len(errors) == 3,
    )
    demo.expect("the address is what it was", camera.addresses(4) == ["192.168.0.90/24"])

    demo.step("The daemon is killed and started again: what was answered is still there:")
    camera.kill_daemon()
    camera.start_daemon()
    camera.wait_ready()
    answer = demo.call(
        "api_get", {"settings": ["[IPv4/DHCP]Enabled", "[IPv4/Manual]Address", "[NIC/eth0]MTU"]}
    )
    demo.expect("the settings survived", answer["[IPv4/Manual]Address"] == "192.168.0.90")


def show_lease(demo: Demo) -> None:
    """A DHCP server appears on the LAN, and the camera goes over to its lease."""
    camera = demo.camera
    demo.step("A DHCP server comes up on the LAN, and the camera is told to use DHCP:")
    print(f"   lan# {shlex.join(DHCP_SERVER)}", flush=True)
    camera.lan.start(DHCP_SERVER)
    camera.clear_signals()
    demo.call("api_set", {"[IPv4/DHCP]Enabled": True})
    camera.wait_until(lambda: camera.get("[IPv4/DHCP]Address"), "a lease has been reported")
    camera.wait_until(lambda: camera.addresses(4) == ["192.168.0.100/24"], "the lease is on eth0")
    keys = [
        "[IPv4/Actual]Address",
        "[IPv4/DHCP]Gateways",
        "[DNS/IPv4/DHCP]Servers",
        "[NTP/IPv4/DHCP]Servers",
    ]
    answer = demo.call("api_get", {"settings": keys})
    demo.expect(
        "the lease's address, gateway, DNS and NTP servers are its settings",
        answer["[DNS/IPv4/DHCP]Servers"] == ["192.168.0.53"],
    )
    shown = demo.show(
        "camera", "ip route show default; cat /etc/resolv.conf; tail -n 3 /etc/ntp.conf"
    )
    demo.expect(
        "and true in the kernel and in the services' files",
        "via 192.168.0.1" in shown and "nameserver 192.168.0.53" in shown,
    )


def main() -> int:
    parser = argparse.ArgumentParser(
        prog="./run", description="Show the daemon's main job in a virtual camera."
    )
    parser.add_argument(
        "--shell", action="store_true", help="afterwards open a shell inside the camera"
    )
    arguments = parser.parse_args()
    started = time.monotonic()
    keeper = {"/usr/sbin/ntp-keeper": str(build_folder() / "ntp-keeper")}
    with Camera(install=keeper) as camera:
        print(
            f"\nA virtual camera is up after {time.monotonic() - started:.2f} s: network, mount, PID and UTS namespaces of its"
        )
        print(
            "own, eth0 on a LAN with one other host, a system bus, a boot environment. Nothing of it touches this machine."
        )
        camera.lan.own(PEER)
        # Stands in for the supervisor of the time daemon, which is part of a camera's own image.
        camera.start(["ntp-keeper"])
        demo = Demo(camera)
        show_job(demo)
        show_lease(demo)
        print(
            "\nAll of it held." if not demo.failed else "\nNot all of it held: see above.",
            flush=True,
        )
        if arguments.shell:
            print(
                "A shell in the camera; 'exit' takes the camera down. Try the busctl calls from above.",
                flush=True,
            )
            run_attached(
                camera,
                ["bash", "--norc"],
                {**ENVIRONMENT, "PS1": r"[camera] \w\$ ", "TERM": os.environ.get("TERM", "dumb")},
            )
    return 1 if demo.failed else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
