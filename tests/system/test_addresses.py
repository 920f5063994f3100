"""The manual IPv4 addresses of eth0, in the real kernel."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest
from expectations import (
    APPLYING_IPV4,
    APPLY_ERROR,
    DECONFIGURE,
    MULTICAST_NETWORK,
    MULTICAST_ROUTE,
    NO_ALIAS,
    NO_ALIAS_LOG,
    SUCCESS,
    Outcome,
    answer,
    boot_commands,
    destinations,
    done,
    error,
    ifconfig,
    ifconfig_log,
    ipv4_of_kernel,
    labelled,
    probe,
    refusal,
    routes,
    set_settings,
    start,
    start_with_free_addresses,
)
from stored_settings import plant, stored

from camlab import Camera, Signal

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

MANUAL = {"vesko_ipv4_dhcp_enable": "0"}
NO_ADDRESS_LOG = "<4>get_netlink_info: no data returned"
DECONFIGURING = "<6>set_ipv4_addresses: Deconfiguring eth0"


@pytest.fixture
def manual_camera(make_camera: MakeCamera) -> Camera:
    """Return a camera without DHCP that has the address 10.0.0.5/24."""
    camera = make_camera(variables=MANUAL)
    camera.wait_until(lambda: camera.addresses(6), "eth0 has its link-local address")
    assert start(camera) == ["READY=1"]
    assert camera.api_set({"[IPv4/Manual]Address": "10.0.0.5"})["success"]
    return camera


# Manual addresses


def test_a_manual_address_is_set_with_its_netmask_and_broadcast_address(
    manual_camera: Camera,
) -> None:
    lengths: dict[int | str, int] = {
        "255.255.255.252": 30,
        8: 8,
        1: 1,
        31: 31,
        "128.0.0.0": 1,
        "255.255.255.254": 31,
    }
    for netmask, length in lengths.items():
        request = {"[IPv4/Manual]Address": "10.20.30.41", "[IPv4/Manual]Netmask": netmask}
        address = f"10.20.30.41/{length}"
        assert set_settings(manual_camera, request) == Outcome(
            SUCCESS,
            [NO_ALIAS, ifconfig(address), *done(MULTICAST_ROUTE)],
            [APPLYING_IPV4, NO_ALIAS_LOG, *ifconfig_log(address)],
        )
        assert ipv4_of_kernel(manual_camera) == [labelled(address)]
        assert manual_camera.get("[IPv4/Manual]Netmask") == length
        assert stored(manual_camera)["IPv4.Manual.Netmask"] == length


def test_a_manual_address_brings_its_network_and_the_multicast_route(manual_camera: Camera) -> None:
    assert destinations(manual_camera) == ["10.0.0.0/24", MULTICAST_NETWORK]
    assert set_settings(manual_camera, {"[IPv4/Manual]Address": "10.0.9.5"}).response == SUCCESS
    assert destinations(manual_camera) == ["10.0.9.0/24", MULTICAST_NETWORK]


def test_a_manual_address_is_announced_and_stands_again_after_a_reboot(
    manual_camera: Camera,
) -> None:
    assert manual_camera.wait_signal("IPv4AddressChange") == Signal(
        "IPv4AddressChange", ("10.0.0.5",)
    )
    manual_camera.reboot()
    assert start(manual_camera) == ["READY=1"]
    assert manual_camera.commands() == boot_commands(
        [NO_ALIAS, ifconfig("10.0.0.5/24"), *done(MULTICAST_ROUTE)], ipv4_routes=routes()
    )
    assert ipv4_of_kernel(manual_camera) == [labelled("10.0.0.5/24")]


def test_null_takes_the_manual_address_away(manual_camera: Camera) -> None:
    assert set_settings(manual_camera, {"[IPv4/Manual]Address": None}) == Outcome(
        SUCCESS,
        [NO_ALIAS, *done(DECONFIGURE)],
        [APPLYING_IPV4, DECONFIGURING, NO_ALIAS_LOG, NO_ADDRESS_LOG],
    )
    assert ipv4_of_kernel(manual_camera) == []
    assert destinations(manual_camera) == []


def test_a_stored_netmask_of_0_deconfigures_eth0(manual_camera: Camera) -> None:
    manual_camera.stop_daemon()
    plant(manual_camera, {"IPv4.Manual.Netmask": "0"})
    assert start(manual_camera) == ["READY=1"]
    assert manual_camera.commands() == boot_commands(
        [NO_ALIAS, *done(DECONFIGURE)], ipv4_routes=routes(), again=True
    )
    assert ipv4_of_kernel(manual_camera) == []


def test_a_prefix_length_outside_of_1_to_31_is_refused(manual_camera: Camera) -> None:
    fault = error(3, "Value wasn't a valid ipv4 netmask length", "[IPv4/Manual]Netmask")
    # A dotted netmask is printed as its length.
    lengths: dict[float | str, int] = {
        0: 0,
        32: 32,
        33: 33,
        -1: -1,
        1e10: 10**10,
        "0.0.0.0": 0,
        "255.255.255.255": 32,
    }
    for netmask, length in lengths.items():
        request = {"[IPv4/Manual]Address": "10.7.7.7", "[IPv4/Manual]Netmask": netmask}
        printed = {"[IPv4/Manual]Address": "10.7.7.7", "[IPv4/Manual]Netmask": length}
        assert set_settings(manual_camera, request) == refusal(printed, fault)
    assert ipv4_of_kernel(manual_camera) == [labelled("10.0.0.5/24")]


def test_what_is_no_netmask_is_refused(manual_camera: Camera) -> None:
    texts = ["255.0.255.0", "0.0.0.255", "24", "255.255.255.0\n", "255.255.255.00", ""]
    fault = error(
        3, "Value was neither an IPv4 netmask nor a length of such", "[IPv4/Manual]Netmask"
    )
    values: list[Any] = [*texts, None, True, [24], {}]
    for netmask in values:
        request = {"[IPv4/Manual]Netmask": netmask}
        assert set_settings(manual_camera, request) == refusal(request, fault)
    assert manual_camera.get("[IPv4/Manual]Netmask") == 24


def test_what_is_no_unicast_ipv4_address_is_refused(manual_camera: Camera) -> None:
    no_unicast = ["0.0.0.0", "0.1.2.3", "127.0.0.1", "240.0.0.1", "255.255.255.255"]
    for address in (*no_unicast, "1.2.3", "01.2.3.4", "::1"):
        request = {"[IPv4/Manual]Address": address}
        fault = error(3, f"String '{address}' wasn't a valid IPv4 address", "[IPv4/Manual]Address")
        assert set_settings(manual_camera, request) == refusal(request, fault)
    assert ipv4_of_kernel(manual_camera) == [labelled("10.0.0.5/24")]


def test_an_address_that_ifconfig_refuses_is_an_apply_error(manual_camera: Camera) -> None:
    manual_camera.rule("/sbin/ifconfig eth0 *", status=1)
    assert set_settings(manual_camera, {"[IPv4/Manual]Address": "10.0.0.6"}) == Outcome(
        answer(APPLY_ERROR, success=True),
        [NO_ALIAS, ifconfig("10.0.0.6/24", status=1), *done(MULTICAST_ROUTE)],
        [
            APPLYING_IPV4,
            NO_ALIAS_LOG,
            "<6>_do_ifconfig: Setting IPv4 address=10.0.0.6/24",
            "<3>_do_ifconfig: ifconfig returned 1",
            "<5>json_response_add_error: Adding error 1 to JSON response: "
            "There was an error in applying the settings",
        ],
    )
    assert stored(manual_camera)["IPv4.Manual.Address"] == "10.0.0.6"


def test_a_multicast_route_that_cannot_be_added_is_no_apply_error(manual_camera: Camera) -> None:
    manual_camera.rule("if ! /sbin/route *", status=7)
    outcome = set_settings(manual_camera, {"[IPv4/Manual]Address": "10.0.0.6"})
    assert outcome.response == SUCCESS
    assert outcome.log == [
        APPLYING_IPV4,
        NO_ALIAS_LOG,
        *ifconfig_log("10.0.0.6/24"),
        f"<5>add_multicast_route: System call '{MULTICAST_ROUTE}' returned 7",
    ]


# An NFS root


def test_an_nfs_root_gets_the_multicast_route_and_no_address(make_camera: MakeCamera) -> None:
    camera = make_camera(
        kernel_command_line="console=ttyS0 root=/dev/nfs ip=dhcp\n", variables=MANUAL
    )
    camera.run(["ip", "address", "add", "10.0.0.9/24", "dev", "eth0"], check=True)
    assert start(camera) == ["READY=1"]
    assert camera.commands() == boot_commands(done(MULTICAST_ROUTE), nfs=True)
    assert set_settings(camera, {"[IPv4/Manual]Address": "10.0.0.5"}) == Outcome(
        SUCCESS,
        done(MULTICAST_ROUTE),
        [
            APPLYING_IPV4,
            "<4>set_ipv4_addresses: Not changing ip config because of NFS mount",
        ],
    )
    assert ipv4_of_kernel(camera) == [("eth0", "10.0.0.9/24", "")]
    assert destinations(camera) == ["10.0.0.0/24", MULTICAST_NETWORK]


def test_an_nfs_root_without_a_lease_probes_addresses_and_leaves_them_unused(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(kernel_command_line="root=/dev/nfs\n")
    start_with_free_addresses(camera)
    link_local = stored(camera)["IPv4.LocalLink.Address"]
    assert camera.commands() == boot_commands(
        [probe(link_local), probe("192.168.0.20"), *done(MULTICAST_ROUTE)], nfs=True
    )
    assert ipv4_of_kernel(camera) == []


def test_only_the_first_255_bytes_of_the_kernel_command_line_count(make_camera: MakeCamera) -> None:
    cut_off = "x" * 242 + " root=/dev/nfs\n"
    camera = make_camera(kernel_command_line=cut_off, variables=MANUAL)
    assert start(camera) == ["READY=1"]
    assert set_settings(camera, {"[IPv4/Manual]Address": "10.0.0.5"}).response == SUCCESS
    assert ipv4_of_kernel(camera) == [labelled("10.0.0.5/24")]
    camera.set_kernel_command_line(cut_off[1:])
    assert set_settings(camera, {"[IPv4/Manual]Address": "10.0.0.6"}).commands == done(
        MULTICAST_ROUTE
    )
