"""The addresses that a DHCP client reports, in the real kernel."""

from __future__ import annotations

from collections.abc import Callable

import pytest
from expectations import (
    ALIAS_DOWN,
    APPLYING_IPV4,
    APPLY_ERROR,
    DECONFIGURE,
    MULTICAST_NETWORK,
    MULTICAST_ROUTE,
    SUCCESS,
    Outcome,
    answer,
    destinations,
    done,
    error,
    ifconfig,
    ifconfig_log,
    ipv4_of_kernel,
    labelled,
    probe,
    refusal,
    set_settings,
    start,
    start_with_free_addresses,
)
from stored_settings import STORED_BY_START, stored

from camlab import Camera

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

NO_ADDRESS_LOG = "<4>get_netlink_info: no data returned"
DECONFIGURING = "<6>set_ipv4_addresses: Deconfiguring eth0"
NO_NETMASK_LOG = "<5>get_int: [IPv4/DHCP]Netmask value is JSON NULL, returning 0"


@pytest.fixture
def leased_camera(camera: Camera) -> Camera:
    """Return a camera with DHCP that came up without a lease and then got 10.1.2.3/24."""
    start_with_free_addresses(camera)
    lease = {"[IPv4/DHCP]Address": "10.1.2.3", "[IPv4/DHCP]Netmask": 24}
    assert camera.api_set(lease) == {"success": True, "errors": []}
    return camera


def test_a_reported_lease_replaces_link_local_and_fallback(camera: Camera) -> None:
    start_with_free_addresses(camera)
    lease = {"[IPv4/DHCP]Address": "10.1.2.3", "[IPv4/DHCP]Netmask": "255.255.0.0"}
    assert set_settings(camera, lease) == Outcome(
        SUCCESS,
        done(ALIAS_DOWN) + [ifconfig("10.1.2.3/16"), *done(MULTICAST_ROUTE)],
        [APPLYING_IPV4, *ifconfig_log("10.1.2.3/16")],
    )
    assert ipv4_of_kernel(camera) == [labelled("10.1.2.3/16")]
    assert destinations(camera) == ["10.1.0.0/16", MULTICAST_NETWORK]


def test_a_lease_is_forgotten_when_the_daemon_ends(leased_camera: Camera) -> None:
    link_local = stored(leased_camera)["IPv4.LocalLink.Address"]
    assert stored(leased_camera) == {
        **STORED_BY_START,
        "IPv4.LocalLink.Address": link_local,
        "IPv4.VeskoConf.Address": "192.168.0.20",
    }
    leased_camera.kill_daemon()
    assert start(leased_camera) == ["READY=1"]
    assert leased_camera.get("[IPv4/DHCP]Address") is None
    assert ipv4_of_kernel(leased_camera) == [
        labelled(f"{link_local}/16"),
        labelled("192.168.0.20/24", "eth0:1"),
    ]


def test_a_lease_without_a_netmask_deconfigures_eth0(camera: Camera) -> None:
    start_with_free_addresses(camera)
    assert set_settings(camera, {"[IPv4/DHCP]Address": "10.1.2.3"}) == Outcome(
        SUCCESS,
        done(ALIAS_DOWN, DECONFIGURE),
        [APPLYING_IPV4, NO_NETMASK_LOG, DECONFIGURING, NO_ADDRESS_LOG],
    )
    assert ipv4_of_kernel(camera) == []


def test_a_lost_lease_keeps_the_link_local_address(leased_camera: Camera) -> None:
    link_local = f"{stored(leased_camera)['IPv4.LocalLink.Address']}/16"
    assert set_settings(leased_camera, {"[IPv4/DHCP]Address": "0.0.0.0"}) == Outcome(
        SUCCESS,
        [ifconfig(link_local)],
        [APPLYING_IPV4, *ifconfig_log(link_local)],
    )
    assert ipv4_of_kernel(leased_camera) == [labelled(link_local)]
    assert destinations(leased_camera) == ["169.254.0.0/16"]


def test_a_lost_lease_leaves_the_fallback_alias_as_it_is(camera: Camera) -> None:
    start_with_free_addresses(camera)
    link_local = f"{stored(camera)['IPv4.LocalLink.Address']}/16"
    lost = {"[IPv4/DHCP]Address": "0.0.0.0", "[IPv4/DHCP]Netmask": 24}
    assert set_settings(camera, lost).commands == [ifconfig(link_local)]
    assert ipv4_of_kernel(camera) == [
        labelled(link_local),
        labelled("192.168.0.20/24", "eth0:1"),
    ]


def test_a_lost_lease_without_link_local_runs_nothing_and_is_an_apply_error(
    leased_camera: Camera,
) -> None:
    leased_camera.api_set({"[IPv4/LocalLink]Enabled": False})
    assert set_settings(leased_camera, {"[IPv4/DHCP]Address": "0.0.0.0"}) == Outcome(
        answer(APPLY_ERROR, success=True),
        [],
        [
            APPLYING_IPV4,
            "<5>json_response_add_error: Adding error 1 to JSON response: "
            "There was an error in applying the settings",
        ],
    )
    assert ipv4_of_kernel(leased_camera) == [labelled("10.1.2.3/24")]


def test_a_lost_lease_draws_an_address_when_none_was_put_beside_the_alias(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(variables={"vesko_ipv4_link_local_enable": "0"})
    start_with_free_addresses(camera)
    assert ipv4_of_kernel(camera) == [labelled("192.168.0.20/24")]
    lost = {
        "[IPv4/LocalLink]Enabled": True,
        "[IPv4/DHCP]Address": "0.0.0.0",
        "[IPv4/DHCP]Netmask": 24,
    }
    outcome = set_settings(camera, lost)
    link_local = stored(camera)["IPv4.LocalLink.Address"]
    assert outcome == Outcome(
        SUCCESS,
        [probe(link_local), ifconfig(f"{link_local}/16")],
        [APPLYING_IPV4, *ifconfig_log(f"{link_local}/16")],
    )
    assert ipv4_of_kernel(camera) == [labelled(f"{link_local}/16")]


def test_a_lease_taken_back_brings_the_remembered_addresses_again(leased_camera: Camera) -> None:
    link_local = stored(leased_camera)["IPv4.LocalLink.Address"]
    no_lease = {"[IPv4/DHCP]Address": None}
    assert set_settings(leased_camera, no_lease) == Outcome(
        SUCCESS,
        [
            probe(link_local),
            probe("192.168.0.20"),
            ifconfig(f"{link_local}/16"),
            ifconfig("192.168.0.20/24", "eth0:1"),
            *done(MULTICAST_ROUTE),
        ],
        [APPLYING_IPV4, *ifconfig_log(f"{link_local}/16"), *ifconfig_log("192.168.0.20/24")],
    )
    assert destinations(leased_camera) == ["169.254.0.0/16", "192.168.0.0/24", MULTICAST_NETWORK]


def test_of_the_addresses_that_are_not_unicast_only_0_0_0_0_is_a_lease(
    leased_camera: Camera,
) -> None:
    for address in ("0.0.0.00", "0.0.0.1", "127.0.0.1", ""):
        request = {"[IPv4/DHCP]Address": address}
        fault = error(3, f"String '{address}' wasn't a valid IPv4 address", "[IPv4/DHCP]Address")
        assert set_settings(leased_camera, request) == refusal(request, fault)
    assert ipv4_of_kernel(leased_camera) == [labelled("10.1.2.3/24")]
