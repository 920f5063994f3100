"""The daemon's main job, shown in a virtual camera: called by ./run."""

from __future__ import annotations

import argparse
import os
import sys
import time

from camlab import Camera
from camlab.namespaces import ENVIRONMENT
from camlab.programs import build_folder
from camlab.terminal import run_attached
from camlab.web_server import install_web_server
from demo_addresses import show_job, show_lease, show_lost_lease
from demo_services import show_packet_filter, show_rate, show_status, show_web_port
from demo_steps import PEER, Demo


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
        install_web_server(camera)
        # Stands in for the supervisor of the time daemon, which is part of a camera's own image.
        camera.start(["ntp-keeper"])
        demo = Demo(camera)
        show_job(demo)
        show_lost_lease(demo, show_lease(demo))
        show_web_port(demo)
        show_packet_filter(demo)
        show_rate(demo)
        show_status(demo)
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
