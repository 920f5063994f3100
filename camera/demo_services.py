"""The demonstration's second half: web server, packet filter and traffic shaping."""

from __future__ import annotations

import json

from camlab.web_server import PAGE, start_nginx
from demo_steps import PEER, Demo

CAMERA = "192.168.0.100"
FETCH = f"curl --silent --show-error --max-time 2 http://{CAMERA}:8080/"


def show_web_port(demo: Demo) -> None:
    """The web pages move to another port."""
    demo.step("The web server's port is changed, and a page is fetched from the LAN:")
    start_nginx(demo.camera)
    answer = demo.call("api_set", {"[Webserver/HTTP]Port": 8080})
    demo.expect("the daemon reports success", answer["success"] is True)
    # nginx takes a moment to reload after it was told to.
    demo.wait("nginx listens on the new port", lambda: fetched(demo) == PAGE)
    demo.expect("the page comes", demo.show("lan", FETCH) == PAGE.strip())


def show_packet_filter(demo: Demo) -> None:
    """A host is shut out, and let in again."""
    demo.step(f"The packet filter shuts {PEER} out, and lets it in again:")
    demo.call("api_set", {"[IPTables/Deny]IPv4List": [f"{PEER}/32"]})
    demo.expect("nothing comes", "timed out" in demo.show("lan", FETCH))
    demo.call("api_set", {"[IPTables/Deny]IPv4List": []})
    demo.expect("the page comes", demo.show("lan", FETCH) == PAGE.strip())


def show_rate(demo: Demo) -> None:
    """The camera's sending is limited, and measured on the LAN."""
    demo.step("The camera's rate is limited, 80 % of it for what is no media, and measured:")
    server = demo.camera.lan.start(["iperf3", "--server", "--one-off"])
    demo.wait("iperf3 listens", lambda: ":5201 " in listening(demo))
    demo.call("api_set", {"[TrafficShaping]AvgRateLimit": 20000})
    report = demo.camera.run(["iperf3", "--json", "--client", PEER, "--time", "4"], check=True)
    server.wait()
    print(f"   camera# iperf3 --client {PEER} --time 4", flush=True)
    received = json.loads(report.stdout)["end"]["sum_received"]["bits_per_second"] / 1e6
    print(f"     {received:.2f} Mbit/s arrived", flush=True)
    demo.expect("no more than 16 Mbit/s arrive, and not much less", 8 < received < 17.6)


def fetched(demo: Demo) -> str:
    return demo.camera.lan.run(["sh", "-c", FETCH]).stdout


def listening(demo: Demo) -> str:
    return demo.camera.lan.run(["ss", "-Htln"], check=True).stdout


def show_status(demo: Demo) -> None:
    """What a person sees at a glance."""
    demo.step("All of it on one screen, for a person:")
    status = demo.show("camera", "quarnctl status")
    demo.expect("it tells the lease's address", f"{CAMERA}/24 (DHCP)" in status)
