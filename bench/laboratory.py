"""What the benchmarks run in: a camera with the daemon and what it is compared with."""

from __future__ import annotations

import json
import os
import re
import time
from collections.abc import Iterator, Mapping, Sequence
from contextlib import contextmanager
from pathlib import Path
from statistics import median

from camlab import Camera
from camlab.daemon import Daemon
from camlab.programs import build_folder

BENCH_PROGRAMS = ("bench-echo", "bench-echo-with-libraries", "bench-client", "bench-system-sequence")
BENCH = Path(__file__).resolve().parent
FOLDER = "/.camlab/bench"
QUARN = ("com.vesko.networkingV2", "/com/vesko/networkingV2")
ECHO = ("com.vesko.bench", "/com/vesko/bench")
GENERATED = ("resolv.conf", "ntp.conf", "hostname", "nginx.conf", "iptables.rules", "ip6tables.rules")
TIME_SUPERVISOR = "/usr/sbin/ntp-keeper"
PROBING_KEY = "[IPv4/LocalLink]Address"
MTU = "[NIC/eth0]MTU"
ADDRESSES = ("192.168.10.2", "192.168.10.3")
# A camera with a fixed address, so that nothing probes and no DHCP client runs. The record holds six bytes of
# the board, then address, netmask and gateway.
BOOT_ENVIRONMENT = {
    "vesko_ipv4_dhcp_enable": "0",
    "vesko_ipv4_link_local_enable": "0",
    "vesko_ipv6_enable": "1",
    "netdev0": "00005e005301" + "c0a80a02" + "ffffff00" + "00000000",
}
# What the daemon's supervisor gives it.
UNIT = BENCH.parent / "packaging" / "quarn.service"
UNIT_ENVIRONMENT = dict(
    re.findall(r"^Environment=(\w+)=(.*)$", UNIT.read_text(encoding="utf-8") if UNIT.exists() else "", re.MULTILINE)
)
NO_DHCP = {"[IPv4/DHCP]Enabled": False, "[IPv6/Stateful]Enabled": False}
# As the daemon's own: the shell's search for a command and grep's locale cost time.
DAEMON_ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C"}
# Takes off what an apply run puts on: without it the second start would find all done.
FRESH_NETWORK = (
    "tc qdisc del dev eth0 root; ip address flush dev eth0; ip -6 address flush dev eth0; ip link set eth0 down;"
    " ip address flush dev lo; ip link set lo down"
)


def all_keys(reader: str = r"\w+(?:<\w+>)?") -> list[str]:
    """The keys of the setting table whose reader matches, without the one that probes for an address."""
    table = (BENCH.parent / "src" / "settings" / "setting_table.cpp").read_text(encoding="utf-8")
    keys = re.findall(rf'^    \{{"(\[[^"]+)", {reader},', table, re.MULTILINE)
    return [key for key in keys if key != PROBING_KEY]


def get_request(keys: Sequence[str]) -> str:
    """The text of an api_get for these keys."""
    return json.dumps({"settings": list(keys)})


def quarn(method: str, *texts: str) -> str:
    """A case of bench-client: a call of the daemon."""
    return "\n".join(["call", *QUARN, method, *texts])


def until(event: str, case: str, *, signal: str = "") -> str:
    """The same case measured until the kernel tells of an "address", or until a "signal" of that name is here."""
    _, *target, text = case.split("\n", 4)
    return "\n".join([event, *target, *([signal] if signal else []), text])


def echo(text: str, *more: str, method: str = "echo") -> str:
    """A case of bench-client: a call of the echo daemon."""
    return "\n".join(["call", *ECHO, method, text, *more])


class Bench:
    """A camera with the daemon and, on the same bus, the echo daemon."""

    def __init__(self, camera: Camera) -> None:
        self.camera = camera
        self.echo = Daemon(camera, "/usr/bin/bench-echo")
        self._written_before: dict[str, int] = {}
        camera.files.make_folder(FOLDER)

    def start(self) -> None:
        """Start both, and see to it that no DHCP client is wanted."""
        self.start_echo()
        self.camera.start_daemon(environment=UNIT_ENVIRONMENT)
        self.camera.wait_ready()
        require_success(self.camera.api_set(NO_DHCP))

    def start_echo(self) -> None:
        """Start the echo daemon."""
        self.echo.start([], DAEMON_ENVIRONMENT)
        self.echo.wait_notification("READY=1", 30)

    def by_turns(self, rounds: int, block: int, cases: Sequence[str]) -> tuple[list[float], list[str]]:
        """Run bench-client; return each case's median in seconds, and its first result."""
        samples, results = self.samples_by_turns(rounds, block, cases)
        return [median(values) for values in samples], results

    def samples_by_turns(self, rounds: int, block: int, cases: Sequence[str]) -> tuple[list[list[float]], list[str]]:
        """Run bench-client; return each case's samples in seconds, in order, and its first result."""
        done = self.camera.run(
            ["/usr/bin/bench-client", str(rounds), str(block)],
            input="".join(f"{case}\0" for case in cases), environment=DAEMON_ENVIRONMENT, timeout=600,
        )  # fmt: skip
        if done.returncode != 0:
            raise SystemExit(done.stderr)
        samples: list[list[float]] = [[] for _ in cases]
        results = [""] * len(cases)
        for line in done.stdout.splitlines():
            kind, case, value = line.split(" ", 2)
            if kind == "first":
                results[int(case)] = value
            else:
                samples[int(case)].append(int(value) / 1e9)
        return samples, results

    def rate(self, clients: int, rounds: int, case: str) -> float:
        """How many runs of a case are done in a second by so many clients at once, each of which waits for its answer."""
        block = 10
        begin = time.monotonic()
        running = [
            self.camera.start(["/usr/bin/bench-client", str(rounds), str(block)], stdin=f"{case}\0",
                              environment=DAEMON_ENVIRONMENT)
            for _ in range(clients)
        ]  # fmt: skip
        for client in running:
            if client.wait(600) != 0:
                raise SystemExit(f"bench-client: {client.stderr}")
        return clients * (rounds + 1) * block / (time.monotonic() - begin)

    def start_first_time(self) -> None:
        """Start the daemon and end it, so that later starts find all stored that a start stores."""
        self.start()
        self.echo.stop()
        self.camera.stop_daemon()
        self.forget_last_run()

    def wait_idle(self) -> None:
        """Wait until the daemon has closed its database, the last thing that it does of itself."""
        folder = Path(f"/proc/{self.camera.daemon.process.pid}/fd")

        def closed() -> bool:
            return not any("settings.db" in os.readlink(entry) for entry in folder.iterdir())

        self.camera.wait_until(closed, "the daemon is idle")

    def hold_back(self) -> None:
        """Store without carrying out, as long as the daemon runs."""
        require_success(self.camera.api_set({"[Settings]Apply": False}))

    def record_changes(
        self, name: str, texts: Sequence[str], more_files: Sequence[Mapping[str, str] | None] = (None, None)
    ) -> list[str]:
        """Carry requests out; return for each the file with what the daemon wrote and ran."""
        self.camera.recorder.switch_on()
        files = []
        for text, more in zip(texts, more_files):
            self.forget_last_run()
            require_success(self.camera.api_set(text))
            files.append(self.commands_of_last_run(f"{name}-{len(files)}", more))
        self.camera.recorder.switch_off()
        return files

    def forget_last_run(self) -> None:
        """Let the recorder and the generated files begin anew."""
        self.camera.clear_commands()
        self._written_before = self._written()

    def commands_of_last_run(self, name: str, more_files: Mapping[str, str] | None = None) -> str:
        """Note what the daemon has written and run since the last call of forget_last_run.

        Return the path, in the camera, of the file that bench-system-sequence and bench-echo read.
        """
        before = self._written_before
        files = {
            path: self.camera.read_file(path) for path, when in self._written().items() if when != before.get(path)
        }
        texts = [f">{path}\n{content}" for path, content in {**(more_files or {}), **files}.items()]
        texts += [command.text for command in self.camera.commands()]
        self.camera.write_file(f"{FOLDER}/{name}", "".join(f"{text}\0" for text in texts))
        return f"{FOLDER}/{name}"

    def _written(self) -> dict[str, int]:
        """When each generated file was written last."""
        paths = [f"/tmp/.quarn/{name}" for name in GENERATED if self.camera.files.exists(f"/tmp/.quarn/{name}")]
        return {path: self.camera.files.stat(path).st_mtime_ns for path in paths}


@contextmanager
def bench(store_folder: str | None = None, variables: Mapping[str, str] | None = None) -> Iterator[Bench]:
    """Boot a camera for benchmarks; the recorder is in place and switched off.

    The variables of the boot environment come on top of BOOT_ENVIRONMENT.
    """
    programs = {f"/usr/bin/{name}": str(build_folder() / name) for name in BENCH_PROGRAMS}
    policy = {"/usr/share/dbus-1/system.d/com.vesko.bench.conf": str(BENCH / "bench-bus.conf")}
    install = {**programs, **policy, TIME_SUPERVISOR: str(build_folder() / "ntp-keeper")}
    with Camera(
        variables={**BOOT_ENVIRONMENT, **(variables or {})}, store_folder=store_folder, install=install, bus=False
    ) as camera:
        camera.recorder.switch_off()
        # All of the camera on one processor: else it is luck whether the two ends of a call share one, and luck
        # is half of a round trip.
        os.sched_setaffinity(camera.pid, {max(os.sched_getaffinity(0))})
        camera.start_bus()
        # Without it each reload of the time service is a failed one.
        camera.start([TIME_SUPERVISOR])
        yield Bench(camera)


def require_success(response: dict) -> None:
    """A benchmark of refusals would be worth nothing."""
    if response.get("success") is not True or response.get("errors"):
        raise SystemExit(f"the daemon refuses: {json.dumps(response)[:500]}")


def require_values(answer: str, keys: Sequence[str]) -> None:
    """Each key must be there with a value."""
    response = json.loads(answer)
    require_success(response)
    if missing := [key for key in keys if key not in response]:
        raise SystemExit(f"no value for {missing}")


def fresh_network(camera: Camera) -> None:
    """Take off eth0 and lo what an apply run puts there."""
    camera.run(["/bin/sh", "-c", FRESH_NETWORK])


def seconds_to_ready(daemon: Daemon, environment: Mapping[str, str]) -> float:
    """Start a daemon; return the time until it says that it is ready."""
    begin = time.monotonic()
    daemon.start([], environment)
    daemon.wait_notification("READY=1", 60)
    return time.monotonic() - begin


def seconds_to_end(program: Daemon, argument: str) -> float:
    """Run a program to its end; return the time."""
    begin = time.monotonic()
    program.start([argument], DAEMON_ENVIRONMENT)
    program.process.wait(60)
    return time.monotonic() - begin


def fields(daemon: Daemon, file: str) -> dict[str, int]:
    """The numbers of a file of /proc with lines of the form "Name: number"."""
    text = Path(f"/proc/{daemon.process.pid}/{file}").read_text(encoding="ascii")
    return {name: int(number) for name, number in re.findall(r"^(\w+):\s+(\d+)", text, re.MULTILINE)}


def memory(daemon: Daemon) -> dict[str, int]:
    """Anonymous memory, Rss and so on in kB."""
    return fields(daemon, "smaps_rollup")


def switches(daemon: Daemon) -> int:
    """How often it has gone to sleep by itself."""
    return fields(daemon, "status")["voluntary_ctxt_switches"]


def processor_time(daemon: Daemon) -> float:
    """Seconds on a processor, as the scheduler counts them."""
    return int(Path(f"/proc/{daemon.process.pid}/schedstat").read_text(encoding="ascii").split()[0]) / 1e9
