"""The daemon as systemd runs it, in its sandbox."""

from __future__ import annotations

import re
from pathlib import Path

import pytest
from conftest import api, get, journal, show
from container import LEASES, Container, ContainerError, wait_until

UNITS = ("quarn.service", "quarn-wait-online.service", "quarn-rdnssd.service")


def restart_count(machine: Container) -> int:
    """Return how often systemd has started the daemon again."""
    return int(show(machine, "quarn.service", "NRestarts")["NRestarts"])


def wait_for_restart(machine: Container, count: int) -> None:
    """Wait until systemd has started the daemon again, and it is ready."""
    wait_until(
        lambda: restart_count(machine) > count
        and show(machine, "quarn.service", "ActiveState")["ActiveState"] == "active",
        90,
        "the daemon is started again",
    )


def test_the_installed_daemon_is_active_and_reported_no_error(machine: Container) -> None:
    """`ERRNO=5` of a failed start would stand in StatusErrno."""
    state = show(machine, "quarn.service", "Type", "ActiveState", "SubState", "StatusErrno")
    assert state == {
        "Type": "notify",
        "ActiveState": "active",
        "SubState": "running",
        "StatusErrno": "0",
    }


def test_no_unit_of_the_machine_has_failed(machine: Container) -> None:
    """The neighbours of the daemon come up beside it."""
    assert machine.output("systemctl", "--failed", "--plain", "--no-legend") == ""


def test_nothing_that_the_daemon_does_is_refused_by_the_sandbox(machine: Container) -> None:
    """A start with everything applied logs no error in the daemon's name."""
    entries = journal(
        machine, "_SYSTEMD_UNIT=quarn.service", "SYSLOG_IDENTIFIER=QUARN", "--priority=err"
    )
    assert [entry["MESSAGE"] for entry in entries] == []


def test_the_journal_knows_function_and_setting_of_a_message(machine: Container) -> None:
    """Journal fields as `journalctl CODE_FUNC=...` and `QUARN_SETTING=...` look for them."""
    api(machine, "api_set", {"[IPv4/Actual]Address": "10.9.8.77"})
    entries = wait_until(
        lambda: journal(machine, "QUARN_SETTING=[IPv4/Actual]Address"),
        10,
        "a message of the setting",
    )
    assert {(entry["SYSLOG_IDENTIFIER"], entry["_SYSTEMD_UNIT"]) for entry in entries} == {
        ("QUARN", "quarn.service")
    }
    assert all(entry["MESSAGE"].startswith(entry["CODE_FUNC"]) for entry in entries)


def test_a_lease_reaches_eth0_through_the_clients_script(machine: Container) -> None:
    """udhcpc runs in the daemon's sandbox, and its script calls back over the bus."""
    first, last = (int(address.rsplit(".", 1)[1]) for address in LEASES)
    address = get(machine, "[IPv4/Actual]Address")
    assert address in [f"10.9.8.{number}" for number in range(first, last + 1)]
    assert f"inet {address}/24 " in machine.output("ip", "address", "show", "eth0")


def test_the_network_is_online_once_the_lease_is_there(machine: Container) -> None:
    """network-online.target waits for quarn-wait-online.service, that for the lease."""
    machine.run("systemctl", "start", "network-online.target", "quarn-wait-online.service")
    waiter = show(machine, "quarn-wait-online.service", "ActiveState", "Before", "WantedBy")
    assert waiter["ActiveState"] == "active"
    assert "network-online.target" in waiter["Before"].split()
    assert waiter["WantedBy"] == "network-online.target"


def test_settings_of_every_kind_are_carried_out_in_the_sandbox(machine: Container) -> None:
    """Files in /etc, the host name, kernel switches, the filter, queues, nginx: each by its own effect."""
    answer = api(
        machine,
        "api_set",
        {
            "[Hostname]Name": "garage",
            "[DNS/Manual]Enabled": True,
            "[DNS/Manual]Servers": ["10.9.8.1"],
            "[IPv6]Enabled": False,
            "[IPTables/Deny]IPv4List": ["192.0.2.7/32"],
            "[NIC/eth0]MTU": 1400,
            "[Webserver/HTTP]Port": 8080,
            "[TrafficShaping]AvgRateLimit": 70000,
        },
    )
    assert answer == {"success": True, "errors": []}
    assert machine.output("hostname") == "garage"
    assert "nameserver 10.9.8.1\n" in machine.output("cat", "/etc/resolv.conf") + "\n"
    assert machine.output("cat", "/proc/sys/net/ipv6/conf/all/disable_ipv6") == "1"
    assert "-s 192.0.2.7/32" in machine.output("iptables-save")
    assert machine.output("cat", "/sys/class/net/eth0/mtu") == "1400"
    assert "rate 70Mbit" in machine.output("tc", "class", "show", "dev", "eth0")
    port = f":{8080:04X} "
    wait_until(lambda: port in machine.output("cat", "/proc/net/tcp"), 10, "nginx listens on 8080")
    back = api(machine, "api_set", {"[Hostname]Name": "porch", "[IPv6]Enabled": True})
    assert back == {"success": True, "errors": []}


def test_a_time_service_of_another_user_is_told(machine: Container) -> None:
    """The signal to ntp-keeper passes the sandbox, whose /proc shows processes of more rights."""
    machine.run("rm", "-f", "/tmp/told")
    answer = api(
        machine, "api_set", {"[NTP/Manual]Enabled": True, "[NTP/Manual]Servers": ["10.9.8.1"]}
    )
    assert answer == {"success": True, "errors": []}
    wait_until(lambda: machine.holds("/tmp/told"), 10, "ntp-keeper is told")


def test_a_killed_daemon_is_started_again_with_one_client(machine: Container) -> None:
    """What a killed daemon leaves behind is ended before the next one begins."""
    count = restart_count(machine)
    machine.run("systemctl", "kill", "--kill-who=main", "--signal=KILL", "quarn.service")
    wait_for_restart(machine, count)
    machine.run("/usr/lib/quarn/quarn-wait-online")
    assert len(machine.output("pidof", "udhcpc").split()) == 1


def test_a_daemon_that_lost_its_bus_is_started_again(machine: Container) -> None:
    """It ends with status 0, and is started all the same."""
    count = restart_count(machine)
    machine.run("systemctl", "restart", "dbus.service")
    wait_for_restart(machine, count)
    assert show(machine, "quarn.service", "ExecMainStatus")["ExecMainStatus"] == "0"
    assert get(machine, "[Hostname]Name") == "porch"


def test_a_stopped_daemon_leaves_no_client_and_keeps_the_last_report(machine: Container) -> None:
    """What the DHCP clients reported outlives the daemon, the clients do not."""
    machine.run("systemctl", "stop", "quarn.service")
    try:
        assert machine.run("pidof", "udhcpc", "dhclient", check=False).stdout == ""
        assert machine.output("ls", "/run/quarn") == "udhcpc.json"
    finally:
        machine.run("systemctl", "start", "quarn.service")


def test_rdnssd_reports_to_the_daemon_and_debians_own_unit_stays_off(machine: Container) -> None:
    """Two would write each other's pid file, and one of them /etc/resolv.conf."""
    machine.run("systemctl", "start", "quarn-rdnssd.service", "rdnssd.service")
    assert show(machine, "quarn-rdnssd.service", "ActiveState")["ActiveState"] == "active"
    debians = show(machine, "rdnssd.service", "ActiveState", "ConditionResult")
    assert debians == {"ActiveState": "inactive", "ConditionResult": "no"}
    assert machine.output("stat", "--format=%U", "/run/rdnssd") == "rdnssd"


def test_no_cleaning_of_tmp_takes_the_generated_files(machine: Container) -> None:
    """However old they are: other services' configurations lead there."""
    before = machine.output("ls", "/tmp/.quarn")
    old = machine.path("/etc/tmpfiles.d/short.conf")
    old.write_text("q /tmp 1777 root root 1us\n", encoding="ascii")
    machine.run("touch", "/tmp/somebody-elses")
    machine.run("systemd-tmpfiles", "--clean")
    assert not machine.holds("/tmp/somebody-elses")
    assert machine.output("ls", "/tmp/.quarn") == before


def test_a_reboot_brings_the_network_up_in_order(machine: Container) -> None:
    """The filter before the services, the lease before those that wait for it, the settings as they were."""
    machine.run("systemctl", "add-wants", "multi-user.target", "network-online.target")
    machine.reboot()
    reached = {
        unit: int(
            show(machine, unit, "ActiveEnterTimestampMonotonic")["ActiveEnterTimestampMonotonic"]
        )
        for unit in (
            "quarn.service",
            "network.target",
            "quarn-wait-online.service",
            "network-online.target",
        )
    }
    assert 0 not in reached.values()
    assert list(reached.values()) == sorted(reached.values())
    starts = show(machine, "nginx.service", "ExecMainStartTimestampMonotonic", "ActiveState")
    assert starts["ActiveState"] == "active"
    assert int(starts["ExecMainStartTimestampMonotonic"]) >= reached["quarn.service"]
    assert get(machine, "[Hostname]Name") == machine.output("hostname") == "porch"
    assert get(machine, "[IPv4/Actual]Address").startswith("10.9.8.")
    assert machine.output("systemctl", "--failed", "--plain", "--no-legend") == ""


@pytest.mark.parametrize("unit", UNITS)
def test_a_units_exposure_is_small(machine: Container, unit: str) -> None:
    """As systemd-analyze rates it: at most 3.5 of 10."""
    path = f"/lib/systemd/system/{unit}"
    lines = machine.output("systemd-analyze", "security", "--offline=yes", path)
    rating = re.search(r"exposure level for \S+: ([0-9.]+)", lines)
    assert rating is not None
    print(rating.group(0))
    assert float(rating.group(1)) <= 3.5


def test_the_units_are_without_fault_in_systemds_eyes(machine: Container) -> None:
    """No unknown line, no ordering cycle, no missing program."""
    paths = [f"/lib/systemd/system/{unit}" for unit in UNITS]
    done = machine.run("systemd-analyze", "verify", "--man=no", "--recursive-errors=no", *paths)
    assert done.stdout + done.stderr == ""


class TestBusPolicy:
    """Who reaches the daemon."""

    READERS = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <policy user="reader">
    <allow send_destination="com.vesko.networkingV2" send_interface="com.vesko.networkingV2"
           send_member="api_get"/>
  </policy>
</busconfig>
"""

    def test_a_member_of_group_quarn_reads_and_sets(self, machine: Container) -> None:
        """The group comes with the package."""
        machine.run("useradd", "--groups", "quarn", "member")
        assert get(machine, "[Hostname]Name", "member") == "porch"
        answer = api(machine, "api_set", {"[Hostname]Name": "porch"}, "member")
        assert answer == {"success": True, "errors": []}

    @pytest.mark.parametrize("method", ["api_get", "api_set"])
    def test_another_user_is_refused(self, machine: Container, method: str) -> None:
        """By the bus, before the daemon hears of it."""
        with pytest.raises(ContainerError, match="Access denied|rejected send"):
            api(machine, method, {"settings": []}, "nobody")

    def test_an_administrators_drop_in_tells_reading_from_setting(self, machine: Container) -> None:
        """The drop-in of README.Debian, for one user."""
        machine.run("useradd", "reader")
        drop_in = Path("/etc/dbus-1/system.d/quarn-readers.conf")
        machine.path(str(drop_in)).write_text(self.READERS, encoding="ascii")
        machine.run("systemctl", "reload", "dbus.service")
        assert get(machine, "[Hostname]Name", "reader") == "porch"
        with pytest.raises(ContainerError, match="Access denied|rejected send"):
            api(machine, "api_set", {"[Hostname]Name": "attic"}, "reader")
        assert get(machine, "[Hostname]Name") == "porch"
