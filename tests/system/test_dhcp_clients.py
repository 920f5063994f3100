"""The real DHCP clients of eth0: which run, with which arguments, and that none is left behind."""

from __future__ import annotations

import signal
import time
from collections.abc import Callable
from typing import Any, NamedTuple

import pytest
from expectations import SUCCESS, masked, set_settings, start

from camlab import Camera, Command, Process

MakeCamera = Callable[..., Camera]

IPV4_PID_FILE = "/var/run/udhcpc.eth0.pid"
IPV6_PID_FILE = "/var/run/dhclient6.pid"
STOP_IPV4 = f"/bin/kill `cat {IPV4_PID_FILE} 2>/dev/null` 2>/dev/null"
STOP_IPV6 = f"/bin/kill `cat {IPV6_PID_FILE} 2>/dev/null` 2>/dev/null"
IPV4_ENABLED = "[IPv4/DHCP]Enabled"
IPV6_ENABLED = "[IPv6/Stateful]Enabled"
UDHCPC = (
    "/sbin/udhcpc -p /var/run/udhcpc.eth0.pid -i eth0 -T10 -t2 -A60 -f -a -S  "
    "-x hostname:Corvy-0000000  -x 0x3d:0100005E005301 "
)
DHCLIENT = (
    "/usr/sbin/dhclient -6 -cf /etc/isc-dhcp/isc_dhclient6.conf -pf /var/run/dhclient6.pid eth0"
)
IPV4_KEYS: dict[str, Any] = {
    "[IPv4/DHCP]Address": None,
    "[IPv4/DHCP]Netmask": None,
    "[IPv4/DHCP]Gateways": [],
    "[NTP/IPv4/DHCP]Servers": [],
    "[DNS/IPv4/DHCP]Servers": [],
    "[DNS/IPv4/DHCP]Search": [],
}
IPV6_KEYS: dict[str, Any] = {
    "[IPv6/Stateful]Addresses": [],
    "[NTP/IPv6/DHCP]Servers": [],
    "[DNS/IPv6/DHCP]Servers": [],
    "[DNS/IPv6/DHCP]Search": [],
}
# In place of a client, where its behaviour cannot be had of the real one.
STAND_IN = "#!/usr/bin/python3\nimport signal\nsignal.pause()\n"
DEAF_STAND_IN = (
    "#!/usr/bin/python3\nimport signal\nsignal.signal(signal.SIGTERM, signal.SIG_IGN)\n"
    "open('/run/deaf', 'w').close()\nsignal.pause()\n"
)


class Client(NamedTuple):
    """A process of a DHCP client."""

    pid: int
    parent: int
    arguments: list[str]


def clients(camera: Camera, program: str) -> list[Client]:
    """The running clients; what a client forks for its script is a part of it."""
    found = []
    for name in filter(str.isdigit, camera.files.names("/proc")):
        try:
            command_line = camera.files.read(f"/proc/{name}/cmdline")
            parent = camera.files.read(f"/proc/{name}/stat").rpartition(")")[2].split()[1]
        except (FileNotFoundError, ProcessLookupError):
            continue
        arguments = command_line.split("\0")[:-1]
        names = [argument.rpartition("/")[2] for argument in arguments[:2]]
        if program in names[: 2 if names[:1] == ["python3"] else 1]:
            found.append(Client(int(name), int(parent), arguments))
    pids = {client.pid for client in found}
    return [client for client in found if client.parent not in pids]


def pids(camera: Camera, program: str) -> list[int]:
    """The process ids of the running clients."""
    return [client.pid for client in clients(camera, program)]


def boot(camera: Camera) -> Camera:
    """Start the daemon; probes find every address free, the time service is there to be told."""
    camera.rule("/usr/sbin/arping *", status=0)
    camera.rule("kill -USR2 *", status=0)
    camera.wait_until(lambda: camera.addresses(6), "eth0 has its link-local address")
    assert start(camera) == ["READY=1"]
    return camera


def switch(camera: Camera, key: str, on: bool) -> None:
    """Switch a client on or off."""
    assert set_settings(camera, {key: on}).response == SUCCESS


def put_in_place(camera: Camera, path: str, script: str) -> None:
    """Let a script stand where a client is."""
    camera.files.remove(path)
    camera.write_file(path, script, 0o755)


def stranger(camera: Camera, *before: str, arguments: tuple[str, ...]) -> Process:
    """Start something that looks like a client."""
    camera.write_file("/opt/strangers/udhcpc", STAND_IN, 0o755)
    process = camera.start([*before, "/opt/strangers/udhcpc", *arguments])
    camera.wait_until(lambda: pids(camera, "udhcpc"), "the stranger runs")
    return process


@pytest.fixture
def running_camera(camera: Camera) -> Camera:
    """Return a camera that runs both clients, neither of which has found a server."""
    return boot(camera)


@pytest.fixture
def served_camera(camera: Camera) -> Camera:
    """Return a camera whose clients both have a lease of the LAN's server."""
    camera.lan.own("10.1.2.1/24")
    camera.lan.own("2001:db8::1/64")
    server = camera.lan.start(
        [
            *("dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--port=0"),
            *("--interface=lan0", "--bind-interfaces", "--log-facility=-", "--no-ping"),
            *("--dhcp-leasefile=/tmp/leases", "--pid-file=/tmp/dnsmasq.pid"),
            *("--dhcp-authoritative", "--dhcp-range=10.1.2.10,10.1.2.20,255.255.255.0,1h"),
            "--dhcp-option=option:ntp-server,10.1.2.1",
            "--dhcp-option=option:dns-server,10.1.2.1",
            "--domain=example.com",
            *("--dhcp-range=2001:db8::10,2001:db8::20,64,1h", "--enable-ra"),
            "--dhcp-option=option6:dns-server,[2001:db8::1]",
            "--dhcp-option=option6:domain-search,example.com",
        ]
    )
    assert server.poll() is None
    boot(camera)
    camera.wait_until(lambda: bool(camera.get("[IPv4/DHCP]Address")), "an IPv4 lease")
    camera.wait_until(lambda: bool(camera.get("[IPv6/Stateful]Addresses")), "an IPv6 lease")
    return camera


# Their arguments


def test_udhcpc_is_started_with_these_very_arguments(running_camera: Camera) -> None:
    [client] = clients(running_camera, "udhcpc")
    assert client.arguments == UDHCPC.split()
    assert running_camera.files.read(IPV4_PID_FILE) == f"{client.pid}\n"


def test_dhclient_is_started_with_these_very_arguments(running_camera: Camera) -> None:
    [client] = clients(running_camera, "dhclient")
    assert client.arguments == DHCLIENT.split()


def test_the_command_is_logged_with_all_its_blanks(camera: Camera) -> None:
    camera.start_daemon(QUARN_LOG_LEVEL="debug")
    camera.rule("/usr/sbin/arping *", status=0)
    camera.wait_ready()
    log = masked(camera.log_lines())
    begin = log.index("<6>stop_any_dhcpv4: Stopping any running DHCPv4 client")
    own = [line for line in log[begin:] if "start_dhcpv" in line or "stop_any" in line]
    assert own == [
        "<6>stop_any_dhcpv4: Stopping any running DHCPv4 client",
        f"<7>stop_any_dhcpv4:LINE: Received code 1 on '{STOP_IPV4}'",
        f"<7>start_dhcpv4:LINE: DHCPv4 is enabled.  Starting client: '{UDHCPC}'",
        "<5>start_dhcpv4: Console Output: Started IPv4 DHCP client in background",
        "<6>stop_any_dhcpv6: Stopping any running DHCPv6 client",
        f"<7>stop_any_dhcpv6:LINE: Received code 1 on '{STOP_IPV6}'",
        f"<7>start_dhcpv6:LINE: DHCPv6 is enabled.  Starting client: '{DHCLIENT}'",
        "<5>start_dhcpv6: Console Output: Started DHCPv6 client in background",
    ]
    assert log.count("QUARN: Started IPv4 DHCP client in background") == 1
    assert log.count("QUARN: Started DHCPv6 client in background") == 1


def test_a_client_has_none_of_the_daemons_descriptors(running_camera: Camera) -> None:
    [client] = clients(running_camera, "udhcpc")
    links = running_camera.run(["ls", "-l", f"/proc/{client.pid}/fd"], check=True).stdout
    targets = [line.partition(" -> ")[2] for line in links.splitlines()[1:]]
    own = [target for target in targets if not target.startswith(("socket:", "/dev/null", "pipe:"))]
    assert own == ["/.camlab/daemon.stdout", "/.camlab/daemon.stderr"]
    assert not [target for target in targets if "settings.db" in target]


# Never two of a family, none left behind


@pytest.mark.parametrize(("key", "program"), [(IPV4_ENABLED, "udhcpc"), (IPV6_ENABLED, "dhclient")])
def test_switched_off_and_on_ten_times_at_once_one_client_runs_or_none(
    running_camera: Camera, key: str, program: str
) -> None:
    seen = set(pids(running_camera, program))
    for count in range(2, 12):
        switch(running_camera, key, False)
        assert clients(running_camera, program) == []
        switch(running_camera, key, True)
        seen.update(pids(running_camera, program))
        assert len(clients(running_camera, program)) == 1
        assert len(seen) == count
    switch(running_camera, key, False)
    assert clients(running_camera, program) == []


def test_a_burst_of_switches_that_nobody_waits_for_leaves_what_the_last_one_says(
    running_camera: Camera,
) -> None:
    text = "".join(f'{{"{IPV4_ENABLED}":{on}}}\n' for on in ["false", "true"] * 5)
    running_camera.write_file("/tmp/requests", text)
    running_camera.write_file(
        "/tmp/burst",
        "while read -r request; do\n"
        "  dbus-send --system --type=method_call --dest=com.vesko.networkingV2 "
        '/com/vesko/networkingV2 com.vesko.networkingV2.api_set string:"$request"\n'
        "done < /tmp/requests\n",
    )
    running_camera.clear_commands()
    running_camera.run(["dash", "/tmp/burst"], check=True)
    running_camera.recorder.wait_for(STOP_IPV4, count=10)
    assert running_camera.get(IPV4_ENABLED) is True
    assert len(clients(running_camera, "udhcpc")) == 1


def test_clients_with_leases_are_ended_and_started_again(served_camera: Camera) -> None:
    for key, program in ((IPV4_ENABLED, "udhcpc"), (IPV6_ENABLED, "dhclient")):
        before = pids(served_camera, program)
        switch(served_camera, key, False)
        assert clients(served_camera, program) == []
        switch(served_camera, key, True)
        [after] = pids(served_camera, program)
        assert [after] != before


def test_a_client_without_its_pid_file_is_ended_too(running_camera: Camera) -> None:
    running_camera.files.remove(IPV4_PID_FILE)
    switch(running_camera, IPV4_ENABLED, False)
    assert clients(running_camera, "udhcpc") == []


def test_clients_that_somebody_started_beside_ours_are_ended_with_them(
    running_camera: Camera,
) -> None:
    arguments = ["/sbin/udhcpc", "-p", IPV4_PID_FILE, "-i", "eth0", "-f", "-x", "hostname:old"]
    with running_camera.start(arguments) as second:
        running_camera.wait_until(
            lambda: len(clients(running_camera, "udhcpc")) == 2, "two clients run"
        )
        switch(running_camera, IPV4_ENABLED, False)
        assert clients(running_camera, "udhcpc") == []
        second.wait()


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM])
@pytest.mark.parametrize(("key", "program"), [(IPV4_ENABLED, "udhcpc"), (IPV6_ENABLED, "dhclient")])
def test_a_client_that_was_killed_is_followed_by_one_and_its_number_by_nobody(
    running_camera: Camera, key: str, program: str, number: signal.Signals
) -> None:
    [pid] = pids(running_camera, program)
    running_camera.run(["kill", f"-{int(number)}", str(pid)], check=True)
    running_camera.wait_until(lambda: pid not in pids(running_camera, program), "the client ended")
    switch(running_camera, key, False)
    assert clients(running_camera, program) == []
    switch(running_camera, key, True)
    assert len(clients(running_camera, program)) == 1


def test_the_end_of_the_daemon_ends_its_clients(running_camera: Camera) -> None:
    running_camera.clear_commands()
    assert running_camera.stop_daemon() == 0
    assert [command.text for command in running_camera.commands()] == [STOP_IPV4, STOP_IPV6]
    assert clients(running_camera, "udhcpc") == []
    assert clients(running_camera, "dhclient") == []


def test_a_client_that_waits_for_its_link_is_ended_with_the_script_that_waits(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(link_up=False)
    camera.cable.cut()
    for command in ("/usr/sbin/arping *", "kill -USR2 *"):
        camera.rule(command, status=0)
    assert start(camera) == ["READY=1"]
    waiting = "quarn-dhcp-event"
    for _ in range(2):
        camera.wait_until(lambda: clients(camera, waiting), "the script waits for the link")
        switch(camera, IPV6_ENABLED, False)
        assert clients(camera, "dhclient") == []
        camera.wait_until(lambda: not clients(camera, waiting), "the script ended", timeout=2)
        switch(camera, IPV6_ENABLED, True)
        assert len(clients(camera, "dhclient")) == 1
    camera.wait_until(lambda: clients(camera, waiting), "the script waits for the link")
    assert camera.stop_daemon() == 0
    assert clients(camera, "dhclient") == []
    camera.wait_until(lambda: not clients(camera, waiting), "the script ended", timeout=2)


def test_clients_of_a_killed_daemon_make_place_for_those_of_the_next_one(
    running_camera: Camera,
) -> None:
    before = {program: pids(running_camera, program) for program in ("udhcpc", "dhclient")}
    running_camera.kill_daemon()
    for program, old in before.items():
        assert pids(running_camera, program) == old
    assert start(running_camera) == ["READY=1"]
    for program, old in before.items():
        [new] = pids(running_camera, program)
        assert [new] != old


def test_clients_with_leases_of_a_killed_daemon_make_place_too(served_camera: Camera) -> None:
    served_camera.kill_daemon()
    assert start(served_camera) == ["READY=1"]
    assert len(clients(served_camera, "udhcpc")) == 1
    assert len(clients(served_camera, "dhclient")) == 1
    assert served_camera.stop_daemon() == 0
    assert clients(served_camera, "udhcpc") + clients(served_camera, "dhclient") == []


@pytest.mark.parametrize(
    ("key", "path"), [(IPV4_ENABLED, "/usr/sbin/udhcpc"), (IPV6_ENABLED, "/usr/sbin/dhclient")]
)
def test_a_client_that_ignores_sigterm_is_killed_after_a_second(
    camera: Camera, key: str, path: str
) -> None:
    put_in_place(camera, path, DEAF_STAND_IN)
    boot(camera)
    program = path.rpartition("/")[2]
    camera.wait_until(lambda: camera.files.exists("/run/deaf"), "the client is deaf")
    assert len(clients(camera, program)) == 1
    begin = time.monotonic()
    switch(camera, key, False)
    duration = time.monotonic() - begin
    assert clients(camera, program) == []
    assert 1 <= duration < 5


# Strangers


def test_a_stale_pid_file_that_names_a_stranger_costs_the_stranger_nothing(camera: Camera) -> None:
    with camera.start(["sleep", "1000"]) as sleeper:
        for path in (IPV4_PID_FILE, IPV6_PID_FILE):
            camera.write_file(path, f"{sleeper.pid_inside}\n")
        boot(camera)
        stops = [command for command in camera.commands() if command.text.startswith("/bin/kill")]
        assert stops == [Command(STOP_IPV4, 1), Command(STOP_IPV6, 1)]
        switch(camera, IPV4_ENABLED, False)
        assert sleeper.poll() is None
        assert not camera.files.exists(IPV6_PID_FILE)


def test_a_pid_file_that_names_a_client_and_a_stranger_costs_the_stranger_nothing(
    running_camera: Camera,
) -> None:
    [pid] = pids(running_camera, "udhcpc")
    with running_camera.start(["sleep", "1000"]) as sleeper:
        running_camera.write_file(IPV4_PID_FILE, f"{pid} {sleeper.pid_inside}\n")
        switch(running_camera, IPV4_ENABLED, False)
        assert sleeper.poll() is None
        assert clients(running_camera, "udhcpc") == []


OURS = ("-p", IPV4_PID_FILE, "-i", "eth0")


@pytest.mark.parametrize(
    ("before", "arguments"),
    [
        ((), ("-p", "/var/run/other.pid", "-i", "eth0")),
        ((), ("-p", IPV4_PID_FILE, "-i", "eth1")),
        (("unshare", "--net"), OURS),
        (("setpriv", "--reuid=1000", "--clear-groups"), OURS),
    ],
    ids=["another pid file", "another interface", "another network", "another user"],
)
def test_clients_that_are_not_ours_live(
    camera: Camera, before: tuple[str, ...], arguments: tuple[str, ...]
) -> None:
    with stranger(camera, *before, arguments=arguments) as other:
        boot(camera)
        switch(camera, IPV4_ENABLED, False)
        assert other.poll() is None


def test_a_client_that_is_a_script_is_ours(camera: Camera) -> None:
    with stranger(camera, arguments=OURS) as other:
        boot(camera)
        assert other.wait() == -signal.SIGTERM


# What they had learned


def test_switched_off_dhcp_forgets_the_lease(served_camera: Camera) -> None:
    learned = served_camera.api_get(IPV4_KEYS)
    assert learned["[IPv4/DHCP]Netmask"] == 24
    assert learned["[IPv4/DHCP]Gateways"] == ["10.1.2.1"]
    assert learned["[NTP/IPv4/DHCP]Servers"] == ["10.1.2.1"]
    assert learned["[DNS/IPv4/DHCP]Servers"] == ["10.1.2.1"]
    assert learned["[DNS/IPv4/DHCP]Search"] == ["example.com"]
    switch(served_camera, IPV4_ENABLED, False)
    assert clients(served_camera, "udhcpc") == []
    assert served_camera.get("[IPv4/DHCP]Address") is None
    after = served_camera.api_get(IPV4_KEYS)
    assert {key: after[key] for key in IPV4_KEYS} == IPV4_KEYS
    assert len(clients(served_camera, "dhclient")) == 1


@pytest.mark.parametrize("off", [{"[IPv6]Enabled": False}, {IPV6_ENABLED: False}])
def test_without_ipv6_or_stateful_addresses_no_ipv6_client_runs_and_its_keys_are_reset(
    served_camera: Camera, off: dict[str, bool]
) -> None:
    assert served_camera.get("[DNS/IPv6/DHCP]Servers") == ["2001:db8::1"]
    assert served_camera.get("[DNS/IPv6/DHCP]Search") == ["example.com"]
    assert set_settings(served_camera, off).response == SUCCESS
    assert clients(served_camera, "dhclient") == []
    after = served_camera.api_get(IPV6_KEYS)
    assert {key: after[key] for key in IPV6_KEYS} == IPV6_KEYS
    assert len(clients(served_camera, "udhcpc")) == 1


# Missing clients


def test_a_missing_udhcpc_costs_ipv4_dhcp_only(camera: Camera) -> None:
    camera.files.remove("/usr/sbin/udhcpc")
    boot(camera)
    line = f"<4>start_dhcpv4: Couldn't start dhcpv4 with '{UDHCPC}'"
    assert [entry for entry in camera.log_lines() if "start_dhcpv4" in entry] == [line]
    assert len(clients(camera, "dhclient")) == 1
    switch(camera, IPV4_ENABLED, False)
    switch(camera, IPV4_ENABLED, True)


def test_a_missing_dhclient_costs_dhcpv6_only(camera: Camera) -> None:
    camera.files.remove("/usr/sbin/dhclient")
    boot(camera)
    line = f"<4>start_dhcpv6: Couldn't start DHCPv6 client with '{DHCLIENT}'"
    assert [entry for entry in camera.log_lines() if "start_dhcpv6" in entry] == [line]
    assert len(clients(camera, "udhcpc")) == 1


def test_a_missing_kill_tool_leaves_no_client_behind(running_camera: Camera) -> None:
    running_camera.files.remove("/bin/kill")
    outcome = set_settings(running_camera, {IPV4_ENABLED: False})
    assert outcome.response == SUCCESS
    assert Command(STOP_IPV4, 127) in outcome.commands
    assert clients(running_camera, "udhcpc") == []
