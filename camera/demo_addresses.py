"""The demonstration's first half: start, requests, and every way to an address."""

from __future__ import annotations

import shlex
import time

from camlab import Process
from demo_steps import PEER, Demo

SERVER_FILE = "/tmp/udhcpd.conf"
DHCP_SERVER = ["busybox", "udhcpd", "-f", SERVER_FILE]
# A lease of 16 seconds is the shortest that the client takes, so that it is soon seen to run out.
SERVER_CONFIGURATION = """\
start 192.168.0.100
end 192.168.0.100
interface lan0
min_lease 16
option lease 16
option subnet 255.255.255.0
option router 192.168.0.1
option dns 192.168.0.53
option ntpsrv 192.168.0.123
lease_file /tmp/udhcpd.leases
pidfile /tmp/udhcpd.pid
"""
LEASE = ["192.168.0.100/24"]


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


def start_dhcp_server(demo: Demo) -> Process:
    print(f"   lan# {shlex.join(DHCP_SERVER)}", flush=True)
    return demo.camera.lan.start(DHCP_SERVER)


def show_lease(demo: Demo) -> Process:
    """A DHCP server appears on the LAN, and the camera goes over to its lease."""
    camera = demo.camera
    demo.step("A DHCP server comes up on the LAN, and the camera is told to use DHCP:")
    demo.show("lan", f"cat >{SERVER_FILE} <<.\n{SERVER_CONFIGURATION}.")
    server = start_dhcp_server(demo)
    demo.call("api_set", {"[IPv4/DHCP]Enabled": True})
    demo.wait("the lease is on eth0", lambda: camera.addresses(4) == LEASE)
    keys = [
        "[IPv4/Actual]Address",
        "[IPv4/DHCP]Gateways",
        "[DNS/IPv4/DHCP]Servers",
        "[NTP/IPv4/DHCP]Servers",
    ]
    answer = demo.call("api_get", {"settings": keys})
    demo.expect(
        "the lease's address, gateway, DNS and NTP servers are its settings",
        [answer[key] for key in keys]
        == ["192.168.0.100", ["192.168.0.1"], ["192.168.0.53"], ["192.168.0.123"]],
    )
    show_services_files(
        demo, "server -4 192.168.0.123", "nameserver 192.168.0.53", "via 192.168.0.1"
    )
    return server


def show_services_files(demo: Demo, *expected: str) -> None:
    shown = demo.show(
        "camera", "ip route show default; cat /etc/resolv.conf; tail -n 3 /etc/ntp.conf"
    )
    demo.expect(
        "and true in the kernel and in the services' files",
        all(text in shown for text in expected),
    )


def show_lost_lease(demo: Demo, server: Process) -> None:
    """The DHCP server goes, the camera falls back; the server returns, and so does the camera."""
    camera = demo.camera
    demo.step("The DHCP server goes. The lease runs out, and the camera falls back:")
    server.stop()
    demo.wait("the lease is gone from eth0", lambda: LEASE[0] not in camera.addresses(4))
    demo.wait(
        "the fallback is on eth0 beside a link-local address",
        lambda: "192.168.0.21/24" in camera.addresses(4),
    )
    demo.show("camera", "ip -4 -brief address show dev eth0; ip route show default")
    demo.expect(
        "the lease's route is gone with it",
        not camera.run(["ip", "route", "show", "default"]).stdout,
    )
    reached = demo.show("lan", "busybox ping -c 1 -W 2 192.168.0.21 | tail -n 2")
    demo.expect("the LAN host reaches the camera there", "1 packets received" in reached)

    demo.step("The DHCP server returns, and the camera comes back by itself:")
    start_dhcp_server(demo)
    demo.wait("the lease is on eth0", lambda: camera.addresses(4) == LEASE)
    demo.wait(
        "its gateway is the default route",
        lambda: "via 192.168.0.1" in camera.run(["ip", "route", "show", "default"]).stdout,
    )
