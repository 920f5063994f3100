"""The parts that measure what a change of each kind costs, and what a start costs, against the same commands."""

from __future__ import annotations

import json
import threading
import time
from collections.abc import Mapping, Sequence
from statistics import median
from typing import Any, NamedTuple

from camlab.bus import Client
from laboratory import (
    FOLDER,
    MTU,
    UNIT_ENVIRONMENT,
    Bench,
    bench,
    echo,
    fresh_network,
    quarn,
    require_success,
    seconds_to_ready,
    until,
)
from table import Table, duration

ADDRESS_SIGNAL = "IPv4AddressChange"
NOTHING = f"{FOLDER}/nothing"
ACCEPT_RA = [f"/proc/sys/net/ipv6/conf/{name}/accept_ra" for name in ("default", "eth0")]
DISABLE_IPV6 = "/proc/sys/net/ipv6/conf/all/disable_ipv6"


class Change(NamedTuple):
    """A key that stands for an apply flag, and two values that it takes by turns, the second one first there.

    What the daemon writes besides its generated files is named for each value.
    """

    flag: str
    key: str
    values: tuple[Any, Any]
    files: tuple[Mapping[str, str], Mapping[str, str]] = ({}, {})


# The IPv4 address is in the part "apply", the DHCP client in "lease". The last ones take away what others need.
CHANGES = [
    Change("resolver", "[Hostname]Domain", ("lab.example.net", "example.net")),
    Change("time service", "[NTP/Manual]Enabled", (True, False)),
    Change("web server", "[Webserver/HTTPS]Certificate", (NOTHING, None)),
    Change("IPv4 packet filter", "[IPTables/Deny]IPv4List", (["198.51.100.0/24"], [])),
    Change("both packet filters", "[IPTables/Deny]IPv6List", (["2001:db8:1::/48"], [])),
    Change("link mode", "[NIC/eth0/AutoNegotiated]FullDuplex", (False, True)),
    Change("host name", "[Hostname]Name", ("cam-a", "cam-b")),
    Change("IPv6 addresses", "[IPv6/Manual]Addresses", (["2001:db8::2/64"], [])),
    Change("IPv4 routes", "[IPv4/Manual]Gateways", (["192.168.10.1"], [])),
    Change("IPv6 routes", "[IPv6/Manual]Gateways", (["fe80::1"], [])),
    Change("MTU", MTU, (1400, 1500)),
    Change("traffic shaping", "[TrafficShaping]AvgRateLimit", (70000, 80000)),
    Change("filters of service ports", "[RTSP]Port", (555, 554)),
    Change(
        "router advertisements",
        "[IPv6/Stateless]AcceptRA",
        (False, True),
        ({path: "0" for path in ACCEPT_RA}, {path: "1" for path in ACCEPT_RA}),
    ),
    Change("IPv6 as a whole", "[IPv6]Enabled", (False, True), ({DISABLE_IPV6: "1"}, {DISABLE_IPV6: "0"})),
]


def measure_settings(table: Table, quick: bool) -> None:
    """What the apply run of one key costs for each apply flag, against a call that does the same work."""
    with bench() as here:
        here.camera.write_file(NOTHING, "")
        # Neither nginx nor its supervisor runs here; the command does.
        here.camera.run(["ln", "-sf", "/bin/true", "/usr/bin/systemctl"], check=True)
        here.start()
        for change in CHANGES:
            measure_one_setting(here, table, change, 2 if quick else 60)
    table.note(
        "the apply of a setting: api_set that carries out, less one that only stores; beside it a call that writes the"
        " same files and runs the same texts with system(), less one that does nothing. In the first there is also what"
        " an apply run compares: the addresses before and after."
    )


def measure_one_setting(here: Bench, table: Table, change: Change, rounds: int) -> None:
    """One key, changed to and fro: carried out, and then stored only."""
    texts = [json.dumps({change.key: value}) for value in change.values]
    require_success(here.camera.api_set(texts[1]))
    files = here.record_changes(change.flag.replace(" ", "-"), texts, change.files)
    run = echo(*files, method="run")
    (whole, compared), answers = here.by_turns(rounds, 2, [quarn("api_set", *texts), run])
    require_success(json.loads(answers[0]))
    here.hold_back()
    (stored, nothing), _ = here.by_turns(rounds, 2, [quarn("api_set", *texts), echo(texts[0])])
    require_success(here.camera.api_set({"[Settings]Apply": True}))
    commands = len(answers[1].split())
    with_what = f"system() of {commands}" if commands else "files only"
    target = 1.03 if commands else None
    table.ratio(f"apply of the {change.flag}, {change.key}", whole - stored, compared - nothing, with_what, target)


def lease(address: str, server: str) -> str:
    """The request of quarn-dhcp-event for a lease with a new address."""
    return (
        f'{{"[IPv4/DHCP]Address":"{address}","[IPv4/DHCP]Netmask":24,"[IPv4/DHCP]Gateways":[],'
        f'"[IPv4/DHCP]Gateways":["10.1.2.1"],"[DNS/IPv4/DHCP]Servers":["{server}"],'
        f'"[DNS/IPv4/DHCP]Search":["lan.example.org"],"[NTP/IPv4/DHCP]Servers":["{server}"]}}'
    )


def script_prober(here: Bench) -> None:
    """Have every probe find its address free at once: two seconds of waiting say nothing about the daemon."""
    here.camera.run(["ln", "-sf", "/bin/true", "/usr/sbin/arping"], check=True)


def measure_lease(table: Table, quick: bool) -> None:
    """From a lease, and from the end of DHCP, to the address in the kernel and announced."""
    rounds = 3 if quick else 100
    with bench(variables={"vesko_ipv4_dhcp_enable": "1"}) as here:
        script_prober(here)
        # No client: it would ask for a lease while another one is measured.
        here.camera.files.remove("/usr/sbin/udhcpc")
        here.start_echo()
        here.camera.start_daemon(environment=UNIT_ENVIRONMENT)
        here.camera.wait_ready()
        leases = [lease("10.1.2.50", "10.1.2.53"), lease("10.1.2.51", "10.1.2.54")]
        switches = [json.dumps({"[IPv4/DHCP]Enabled": enabled}) for enabled in (True, False)]
        require_success(here.camera.api_set(leases[1]))
        compare_addressing(here, table, rounds, leases, "a new lease's request", slice(None))
        require_success(here.camera.api_set(switches[1]))
        compare_addressing(here, table, rounds, switches, "DHCP off", slice(1, None, 2))


def compare_addressing(here: Bench, table: Table, rounds: int, texts: Sequence[str], what: str, counted: slice) -> None:
    """Requests that change the address, against the same commands, to the kernel's message and to the signal."""
    files = here.record_changes(what.replace(" ", "-"), texts)
    change, run = quarn("api_set", *texts), echo(*files, method="run")
    cases = [until("address", change), until("address", run), until("signal", change, signal=ADDRESS_SIGNAL), run]
    samples, answers = here.samples_by_turns(rounds, 2, cases)
    require_success(json.loads(answers[0]))
    to_kernel, run_to_kernel, to_signal, run_to_end = [median(values[counted]) for values in samples]
    table.ratio(f"{what} until the address is in the kernel", to_kernel, run_to_kernel, "system()")
    table.ratio(f"{what} until the address is announced", to_signal, run_to_end, "system(), to its end")
    table.note(
        f"{what}: {duration(to_kernel - run_to_kernel)} more until the kernel has the address, which includes the"
        " check of the request, and the commit or the write of the boot environment that comes first."
    )


def measure_boot(table: Table, quick: bool) -> None:
    """The normal boot of a camera without a lease: its probes, its time, and how long it holds up a call."""
    variables = {"vesko_ipv4_dhcp_enable": "1", "vesko_ipv4_link_local_enable": "1"}
    with bench(variables=variables) as here:
        camera = here.camera
        real = start_without_lease(here)
        probes = probes_of_start(here)
        waited = longest_wait(here)
        camera.stop_daemon()
        script_prober(here)
        scripted = median(start_without_lease(here, stop=True) for _ in range(2 if quick else 50))
    table.amount("start to READY=1 without a lease, real prober", round(real, 2), "s", f"{probes} probes of 2 s")
    table.amount("the same, scripted prober", round(scripted * 1e3, 1), "ms", f"{probes} probes of nothing")
    table.amount("probes of such a start", probes, "", "", 2)
    table.note(
        f"An api_get that comes right after an api_set which turns DHCP on has to wait {waited:.2f} s: there is one"
        " thread, and an apply run that probes takes two seconds for each address that is free. The worst one, where"
        " every address is taken or silent, lasts minutes; while nothing probes, the longest is the start-up apply."
    )


def start_without_lease(here: Bench, stop: bool = False) -> float:
    """Start the daemon on a fresh network; return the seconds until it is ready."""
    fresh_network(here.camera)
    seconds = seconds_to_ready(here.camera.daemon, UNIT_ENVIRONMENT)
    if stop:
        here.camera.stop_daemon()
    return seconds


def probes_of_start(here: Bench) -> int:
    """How many addresses a start probes."""
    here.camera.stop_daemon()
    here.camera.recorder.switch_on()
    here.forget_last_run()
    start_without_lease(here)
    here.camera.recorder.switch_off()
    return sum("arping" in command.text for command in here.camera.commands())


def longest_wait(here: Bench) -> float:
    """How long an api_get waits that comes right after an apply run that probes two addresses has begun."""
    camera = here.camera
    require_success(camera.api_set({"[IPv4/DHCP]Enabled": False}))
    other = Client(camera.system_bus)
    text = json.dumps({"[IPv4/DHCP]Enabled": True})
    change = threading.Thread(target=lambda: require_success(json.loads(other.call_text("api_set", text))))
    change.start()
    # The log names the request once the daemon has taken it.
    camera.wait_log(text)
    begin = time.monotonic()
    camera.api_get([MTU])
    waited = time.monotonic() - begin
    change.join()
    other.close()
    return waited
