"""The addresses of a camera without a lease: IPv4 link-local and the fallback in 192.168.0.0/24."""

from __future__ import annotations

from collections.abc import Callable

import pytest
from expectations import (
    DECONFIGURE,
    MULTICAST_NETWORK,
    MULTICAST_ROUTE,
    NO_ALIAS,
    SUCCESS,
    addresses_without_lease,
    answer,
    boot_commands,
    destinations,
    done,
    ifconfig,
    ifconfig_log,
    ipv4_of_kernel,
    ipv4_step,
    labelled,
    probe,
    set_settings,
    start,
    start_with_free_addresses,
)
from stored_settings import STORED_BY_START, stored, stored_link_local

from camlab import Camera, Command, Signal

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

LINK_LOCAL = "[IPv4/LocalLink]Address"
NO_LINK_LOCAL = {"vesko_ipv4_link_local_enable": "0"}
NO_LEASE = {"[IPv4/DHCP]Address": None}


def go_without_lease(camera: Camera) -> list[Command]:
    """Have the addresses chosen anew in the running daemon; return the commands."""
    lease = {"[IPv4/DHCP]Address": "10.1.2.3", "[IPv4/DHCP]Netmask": 24}
    assert camera.api_set(lease)["success"]
    outcome = set_settings(camera, NO_LEASE)
    assert outcome.response == SUCCESS
    return outcome.commands


# The first choice


def test_without_a_lease_eth0_gets_link_local_and_the_first_free_fallback(camera: Camera) -> None:
    camera.lan.own("192.168.0.20")
    assert start(camera) == ["READY=1"]
    link_local = stored_link_local(camera)
    assert camera.commands() == boot_commands(
        [
            probe(link_local),
            probe("192.168.0.20", taken=True),
            probe("192.168.0.21"),
            *addresses_without_lease(link_local, "192.168.0.21"),
        ]
    )
    assert ipv4_of_kernel(camera) == [
        labelled(f"{link_local}/16"),
        labelled("192.168.0.21/24", "eth0:1"),
    ]
    assert destinations(camera) == ["169.254.0.0/16", "192.168.0.0/24", MULTICAST_NETWORK]
    assert stored(camera) == {
        **STORED_BY_START,
        "IPv4.LocalLink.Address": link_local,
        "IPv4.VeskoConf.Address": "192.168.0.21",
    }
    assert camera.get("[IPv4/VeskoConf]Address") == "192.168.0.21"
    assert camera.wait_signal("IPv4AddressChange") == Signal("IPv4AddressChange", (link_local,))


def test_both_addresses_are_logged_and_printed_on_the_console(camera: Camera) -> None:
    start_with_free_addresses(camera)
    assert ipv4_step(camera) == [
        "<5>get_int: [IPv4/DHCP]Netmask value is JSON NULL, returning 0",
        *ifconfig_log(f"{stored_link_local(camera)}/16"),
        *ifconfig_log("192.168.0.20/24"),
    ]


def test_without_link_local_the_fallback_stands_on_eth0_itself(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=NO_LINK_LOCAL)
    start_with_free_addresses(camera)
    assert camera.commands() == boot_commands(
        [probe("192.168.0.20"), NO_ALIAS, ifconfig("192.168.0.20/24"), *done(MULTICAST_ROUTE)]
    )
    assert ipv4_of_kernel(camera) == [labelled("192.168.0.20/24")]
    assert stored(camera) == {**STORED_BY_START, "IPv4.VeskoConf.Address": "192.168.0.20"}


def test_a_drawn_link_local_address_that_is_taken_is_drawn_again(camera: Camera) -> None:
    camera.rule("/usr/sbin/arping *", status=0)
    camera.rule("/usr/sbin/arping -D -c2 169.254.*", status=1, times=2)
    assert start(camera) == ["READY=1"]
    probes = [command for command in camera.commands() if "169.254." in command.text][:3]
    assert [command.status for command in probes] == [1, 1, 0]
    assert len({command.text for command in probes}) == 3
    assert probes[2] == probe(stored_link_local(camera))


def test_a_prober_that_fails_counts_as_an_answer(camera: Camera) -> None:
    camera.rule("/usr/sbin/arping *", status=0)
    camera.rule("/usr/sbin/arping -D -c2 169.254.*", status=2, times=1)
    camera.rule("/usr/sbin/arping -D -c2 192.168.0.20", status=2)
    assert start(camera) == ["READY=1"]
    assert [command.status for command in camera.commands() if "arping" in command.text] == [
        2,
        0,
        2,
        0,
    ]
    assert stored(camera)["IPv4.VeskoConf.Address"] == "192.168.0.21"


def test_with_every_fallback_taken_and_no_link_local_eth0_is_deconfigured(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(variables=NO_LINK_LOCAL)
    camera.rule("/usr/sbin/arping *", status=1)
    assert start(camera) == ["READY=1"]
    assert camera.commands() == boot_commands(
        [
            *(probe(f"192.168.0.{host}", taken=True) for host in range(20, 255)),
            NO_ALIAS,
            *done(DECONFIGURE),
        ]
    )
    assert ipv4_of_kernel(camera) == []
    assert camera.get("[IPv4/VeskoConf]Address") is None


def test_a_fallback_that_was_taken_by_all_is_stored_as_null(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=NO_LINK_LOCAL)
    start_with_free_addresses(camera)
    camera.rule("/usr/sbin/arping *", status=1)
    assert go_without_lease(camera) == [
        probe("192.168.0.20", taken=True),
        *(probe(f"192.168.0.{host}", taken=True) for host in range(20, 255)),
        NO_ALIAS,
        *done(DECONFIGURE),
    ]
    assert stored(camera) == {**STORED_BY_START, "IPv4.VeskoConf.Address": None}


def test_with_every_fallback_taken_the_link_local_address_stands_alone(camera: Camera) -> None:
    camera.rule("/usr/sbin/arping *", status=0)
    camera.rule("/usr/sbin/arping -D -c2 192.168.0.*", status=1)
    assert start(camera) == ["READY=1"]
    link_local = stored_link_local(camera)
    assert camera.commands() == boot_commands(
        [
            probe(link_local),
            *(probe(f"192.168.0.{host}", taken=True) for host in range(20, 255)),
            NO_ALIAS,
            ifconfig(f"{link_local}/16"),
            *done(MULTICAST_ROUTE),
        ]
    )
    assert ipv4_of_kernel(camera) == [labelled(f"{link_local}/16")]


def test_the_alias_is_left_out_when_the_link_local_address_cannot_be_set(camera: Camera) -> None:
    camera.rule("/usr/sbin/arping *", status=0)
    camera.rule("/sbin/ifconfig eth0 169.254.*", status=1)
    assert start(camera) == ["ERRNO=5", "READY=1"]
    link_local = stored_link_local(camera)
    assert camera.commands() == boot_commands(
        [
            probe(link_local),
            probe("192.168.0.20"),
            ifconfig(f"{link_local}/16", status=1),
            *done(MULTICAST_ROUTE),
        ]
    )


def test_an_alias_that_cannot_be_set_fails_the_step(camera: Camera) -> None:
    camera.rule("/usr/sbin/arping *", status=0)
    camera.rule("/sbin/ifconfig eth0:1 192.168.*", status=1)
    assert start(camera) == ["ERRNO=5", "READY=1"]
    assert ipv4_step(camera)[-2:] == [
        "<6>_do_ifconfig: Setting IPv4 address=192.168.0.20/24",
        "<3>_do_ifconfig: ifconfig returned 1",
    ]
    assert ipv4_of_kernel(camera) == [labelled(f"{stored_link_local(camera)}/16")]


# What is remembered


def test_remembered_addresses_are_taken_again_while_they_are_free(camera: Camera) -> None:
    camera.rule("/usr/sbin/arping *", status=0)
    taken = camera.rule("/usr/sbin/arping -D -c2 192.168.0.20", status=1)
    assert start(camera) == ["READY=1"]
    link_local = stored_link_local(camera)
    taken.release()
    camera.stop_daemon()
    camera.reboot()
    assert start(camera) == ["READY=1"]
    assert camera.commands() == boot_commands(
        [
            probe(link_local),
            probe("192.168.0.21"),
            *addresses_without_lease(link_local, "192.168.0.21"),
        ]
    )


def test_remembered_addresses_that_others_have_taken_are_replaced(camera: Camera) -> None:
    start_with_free_addresses(camera)
    old = stored_link_local(camera)
    camera.kill_daemon()
    camera.rule(f"/usr/sbin/arping -D -c2 {old}", status=1)
    camera.rule("/usr/sbin/arping -D -c2 192.168.0.20", status=1)
    assert start(camera) == ["READY=1"]
    new = stored_link_local(camera)
    assert new != old
    assert camera.commands() == boot_commands(
        [
            probe(old, taken=True),
            probe(new),
            probe("192.168.0.20", taken=True),
            probe("192.168.0.20", taken=True),
            probe("192.168.0.21"),
            *addresses_without_lease(new, "192.168.0.21"),
        ],
        again=True,
    )
    assert stored(camera)["IPv4.VeskoConf.Address"] == "192.168.0.21"


def test_a_remembered_address_that_is_taken_meanwhile_is_replaced_without_a_restart(
    camera: Camera,
) -> None:
    start_with_free_addresses(camera)
    old = stored_link_local(camera)
    camera.rule(f"/usr/sbin/arping -D -c2 {old}", status=1)
    ran = go_without_lease(camera)
    new = stored_link_local(camera)
    assert ran == [
        probe(old, taken=True),
        probe(new),
        probe("192.168.0.20"),
        *addresses_without_lease(new, "192.168.0.20"),
    ]
    # What was put beside the alias first is what a lost lease and a reader get.
    assert camera.get(LINK_LOCAL) == old


# Reading


def test_the_link_local_address_beside_the_alias_is_read_without_a_probe(camera: Camera) -> None:
    start_with_free_addresses(camera)
    camera.clear_commands()
    assert camera.get(LINK_LOCAL) == stored_link_local(camera)
    assert camera.commands() == []


def test_a_link_local_address_that_is_not_in_use_is_probed_when_it_is_read(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(variables={"vesko_ipv4_dhcp_enable": "0"})
    start_with_free_addresses(camera)
    camera.clear_commands()
    first = camera.get(LINK_LOCAL)
    assert first == stored_link_local(camera)
    assert camera.get(LINK_LOCAL) == first
    assert camera.commands() == [probe(first), probe(first)]
    assert ipv4_of_kernel(camera) == []


def test_without_link_local_its_address_is_null(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=NO_LINK_LOCAL)
    start_with_free_addresses(camera)
    camera.clear_commands()
    assert camera.api_get_text(f'{{"settings":["{LINK_LOCAL}"]}}') == answer(
        success=True, **{LINK_LOCAL: None}
    )
    assert camera.commands() == []
