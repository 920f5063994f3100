"""The events that change eth0's address as they really come: by real clients, servers and probes."""

from __future__ import annotations

from collections.abc import Callable

from expectations import (
    SUCCESS,
    compact,
    ifconfig,
    ipv4_of_kernel,
    labelled,
    probe,
    start,
)
from leases import (
    LOST_LEASE,
    default_gateways,
    has_leased_network,
    has_no_lease,
    lease_request,
    lease_server,
    prepare_lan,
    reports,
    settings,
    wait_for_link,
    wait_reports,
)
from stored_settings import stored, stored_link_local

from camlab import Camera, Command, Signal

MakeCamera = Callable[..., Camera]

ACTUAL = ["[IPv4/Actual]Address", "[IPv4/Actual]Netmask"]


def probes(camera: Camera) -> list[Command]:
    """The probes of addresses among the commands up to now."""
    return [command for command in camera.commands() if "arping" in command.text]


# Takes 15 s: udhcpc asks again ten seconds after it was not heard.
def test_a_cable_that_is_joined_late_brings_the_lease(camera: Camera) -> None:
    prepare_lan(camera)
    lease_server(camera)
    camera.cable.cut()
    assert start(camera) == ["READY=1"]
    link_local = stored_link_local(camera)
    assert probes(camera) == [probe(link_local), probe("192.168.0.20")]
    has_no_lease(camera, netmask=None)
    assert camera.wait_signal("IPv4AddressChange") == Signal("IPv4AddressChange", (link_local,))
    camera.cable.join()
    assert wait_reports(camera, 1) == [lease_request()]
    has_leased_network(camera)
    assert settings(camera, ACTUAL) == ["10.1.2.50", 24]
    assert camera.wait_signal("IPv4AddressChange") == Signal("IPv4AddressChange", ("10.1.2.50",))


def test_a_power_cut_within_a_lease_ends_in_the_same_lease(camera: Camera) -> None:
    prepare_lan(camera)
    lease_server(camera)
    camera.rule("/usr/sbin/arping *", status=0)
    assert start(camera) == ["READY=1"]
    assert wait_reports(camera, 1) == [lease_request()]
    camera.reboot()
    wait_for_link(camera)
    assert start(camera) == ["READY=1"]
    assert wait_reports(camera, 1) == [lease_request()]
    has_leased_network(camera)


def test_the_very_address_of_the_lease_set_by_hand_stays_after_its_server_is_gone(
    camera: Camera,
) -> None:
    prepare_lan(camera)
    server = lease_server(camera)
    camera.rule("/usr/sbin/arping *", status=0)
    assert start(camera) == ["READY=1"]
    assert wait_reports(camera, 1) == [lease_request()]
    by_hand = {
        "[IPv4/DHCP]Enabled": False,
        "[IPv4/Manual]Address": "10.1.2.50",
        "[IPv4/Manual]Gateways": ["10.1.2.1"],
    }
    assert camera.api_set_text(compact(by_hand)) == SUCCESS
    server.stop()
    assert ipv4_of_kernel(camera) == [labelled("10.1.2.50/24")]
    assert default_gateways(camera) == ["10.1.2.1"]
    assert camera.run(["pidof", "udhcpc"]).stdout == ""
    # The client that was ended has not taken the address with it.
    assert reports(camera) == [lease_request(), compact(by_hand)]
    camera.reboot()
    wait_for_link(camera)
    assert start(camera) == ["READY=1"]
    assert ipv4_of_kernel(camera) == [labelled("10.1.2.50/24")]
    assert default_gateways(camera) == ["10.1.2.1"]


def test_hosts_that_have_taken_both_addresses_meanwhile_keep_them(camera: Camera) -> None:
    prepare_lan(camera)
    free = camera.rule("/usr/sbin/arping *", status=0)
    assert start(camera) == ["READY=1"]
    old = stored_link_local(camera)
    free.release()
    for address in (old, "192.168.0.20"):
        camera.lan.own(address)
    camera.kill_daemon()
    assert start(camera) == ["READY=1"]
    new = stored_link_local(camera)
    assert new != old
    tools = ("/usr/sbin/arping", "/sbin/ifconfig")
    assert [command for command in camera.commands() if command.text.startswith(tools)] == [
        *(probe(old, taken=True), probe(new)),
        *(probe("192.168.0.20", taken=True), probe("192.168.0.20", taken=True)),
        *(probe("192.168.0.21"), ifconfig(f"{new}/16"), ifconfig("192.168.0.21/24", "eth0:1")),
    ]
    assert ipv4_of_kernel(camera) == [
        labelled(f"{new}/16"),
        labelled("192.168.0.21/24", "eth0:1"),
    ]
    assert stored(camera)["IPv4.VeskoConf.Address"] == "192.168.0.21"
    assert settings(camera, ACTUAL) == [new, 16]


def test_a_lease_given_back_falls_back_with_real_probes_and_comes_again(camera: Camera) -> None:
    prepare_lan(camera)
    lease_server(camera)
    assert start(camera) == ["READY=1"]
    link_local = stored_link_local(camera)
    assert wait_reports(camera, 1) == [lease_request()]
    camera.clear_commands()
    [client] = camera.run(["pidof", "udhcpc"]).stdout.split()
    camera.run(["kill", "-USR2", client], check=True)
    assert wait_reports(camera, 2)[1:] == [LOST_LEASE]
    has_no_lease(camera)
    assert probes(camera) == [probe(link_local), probe("192.168.0.20")]
    camera.run(["kill", "-USR1", client], check=True)
    assert wait_reports(camera, 3)[2:] == [lease_request()]
    has_leased_network(camera)
