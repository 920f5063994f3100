"""The IPv6 addresses of eth0, in the real kernel."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest
from expectations import (
    APPLYING_IPV6,
    APPLY_ERROR,
    DECONFIGURE,
    FLUSH_IPV6,
    NO_ALIAS,
    SUCCESS,
    Outcome,
    add_ipv6,
    add_ipv6_log,
    answer,
    boot_commands,
    done,
    error,
    error_log,
    refusal,
    set_settings,
    start,
)
from stored_settings import plant

from camlab import Camera, Command

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

MANUAL = "[IPv6/Manual]Addresses"
STATEFUL = "[IPv6/Stateful]Addresses"
# Without DHCP, and so without probes and IPv4 addresses.
NO_DHCP = {"vesko_ipv4_dhcp_enable": "0"}
NO_IPV4_ADDRESS_LOG = "<4>get_netlink_info: no data returned"
FAILED = "<6>set_ipv6_addresses: Failure setting IPv6 addresses"
APPLY_ERROR_LOG = error_log(1, "There was an error in applying the settings")

# What ip says, by its version and the kernel's.
ADDRESS_EXISTS = ("RTNETLINK answers: File exists", "Error: ipv6: address already assigned.")


@pytest.fixture
def ipv6_camera(make_camera: MakeCamera) -> Camera:
    """Return a camera that has no addresses but its IPv6 link-local one."""
    camera = make_camera(variables=NO_DHCP)
    camera.wait_until(lambda: camera.addresses(6), "eth0 has its link-local address")
    assert start(camera) == ["READY=1"]
    return camera


def add_by_hand(camera: Camera, address: str, *more: str) -> None:
    """Give eth0 an address of which the daemon knows nothing."""
    command = ["ip", "-6", "address", "add", address, "dev", "eth0", "nodad", *more]
    camera.run(command, check=True)


def test_manual_addresses_are_added_in_their_order(ipv6_camera: Camera) -> None:
    addresses = ["2001:db8::1/64", "2001:db8:1::2/48", "fd00::3/128", "2001:DB8::FFFF/1"]
    assert set_settings(ipv6_camera, {MANUAL: addresses}) == Outcome(
        SUCCESS,
        [*done(FLUSH_IPV6), *map(add_ipv6, addresses)],
        [
            APPLYING_IPV6,
            *[line for address in addresses for line in add_ipv6_log(address)],
            NO_IPV4_ADDRESS_LOG,
        ],
    )
    assert sorted(ipv6_camera.addresses(6, "global")) == [
        "2001:db8:1::2/48",
        "2001:db8::1/64",
        "2001:db8::ffff/1",
        "fd00::3/128",
    ]


def test_manual_addresses_stand_again_after_a_reboot(ipv6_camera: Camera) -> None:
    ipv6_camera.api_set({MANUAL: ["2001:db8::1/64"]})
    ipv6_camera.reboot()
    assert start(ipv6_camera) == ["READY=1"]
    assert ipv6_camera.addresses(6, "global") == ["2001:db8::1/64"]
    assert add_ipv6("2001:db8::1/64") in ipv6_camera.commands()


def test_a_new_list_replaces_permanent_addresses_and_spares_dynamic_ones(
    ipv6_camera: Camera,
) -> None:
    ipv6_camera.api_set({MANUAL: ["2001:db8::1/64"]})
    add_by_hand(ipv6_camera, "2001:db8::aaaa/64")
    add_by_hand(ipv6_camera, "2001:db8::d/64", "valid_lft", "9000", "preferred_lft", "9000")
    link_local = ipv6_camera.addresses(6, "link")
    assert set_settings(ipv6_camera, {MANUAL: ["2001:db8::2/64"]}) == Outcome(
        SUCCESS,
        [*done(FLUSH_IPV6), add_ipv6("2001:db8::2/64")],
        [APPLYING_IPV6, *add_ipv6_log("2001:db8::2/64"), NO_IPV4_ADDRESS_LOG],
    )
    assert sorted(ipv6_camera.addresses(6, "global")) == ["2001:db8::2/64", "2001:db8::d/64"]
    assert ipv6_camera.addresses(6, "link") == link_local


def test_an_empty_list_takes_the_manual_addresses_away(ipv6_camera: Camera) -> None:
    ipv6_camera.api_set({MANUAL: ["2001:db8::1/64"]})
    assert set_settings(ipv6_camera, {MANUAL: []}) == Outcome(
        SUCCESS, done(FLUSH_IPV6), [APPLYING_IPV6, NO_IPV4_ADDRESS_LOG]
    )
    assert ipv6_camera.addresses(6, "global") == []


def test_an_address_that_cannot_be_added_does_not_stop_the_others(ipv6_camera: Camera) -> None:
    addresses = ["2001:db8::1/64", "2001:db8::1/64", "2001:db8::2/64"]
    outcome = set_settings(ipv6_camera, {MANUAL: addresses})
    assert outcome.log.pop(3) in ADDRESS_EXISTS
    assert outcome == Outcome(
        answer(APPLY_ERROR, success=True),
        [
            *done(FLUSH_IPV6),
            add_ipv6(addresses[0]),
            add_ipv6(addresses[1], status=2),
            add_ipv6(addresses[2]),
        ],
        [
            APPLYING_IPV6,
            *add_ipv6_log(addresses[0]),
            "<3>add_ipv6_address: Couldn't add manual address 2001:db8::1/64",
            *add_ipv6_log(addresses[2]),
            FAILED,
            NO_IPV4_ADDRESS_LOG,
            APPLY_ERROR_LOG,
        ],
    )
    assert sorted(ipv6_camera.addresses(6, "global")) == ["2001:db8::1/64", "2001:db8::2/64"]


def test_a_stored_address_without_a_prefix_length_is_added_with_64(ipv6_camera: Camera) -> None:
    ipv6_camera.stop_daemon()
    plant(ipv6_camera, {"IPv6.Manual.Addresses": '["2001:db8::5"]'})
    assert start(ipv6_camera) == ["READY=1"]
    assert ipv6_camera.addresses(6, "global") == ["2001:db8::5/64"]
    assert add_ipv6("2001:db8::5/64") in ipv6_camera.commands()
    log = ipv6_camera.log_lines()
    warning = "<4>add_ipv6_address: Manual address missing netmask. Using 2001:db8::5/64"
    first = log.index(warning)
    assert log[first + 1 : first + 3] == add_ipv6_log("2001:db8::5")


def test_a_failed_flush_is_logged_and_the_addresses_are_still_added(ipv6_camera: Camera) -> None:
    ipv6_camera.rule("for A in *", status=2)
    assert set_settings(ipv6_camera, {MANUAL: ["2001:db8::1/64"]}) == Outcome(
        SUCCESS,
        [Command(FLUSH_IPV6, 2), add_ipv6("2001:db8::1/64")],
        [
            APPLYING_IPV6,
            "<3>set_ipv6_addresses: Error flushing global permanent ipv6 addresses on eth0",
            *add_ipv6_log("2001:db8::1/64"),
            NO_IPV4_ADDRESS_LOG,
        ],
    )


# Stateful addresses


def test_stateful_addresses_are_added_after_the_manual_ones(ipv6_camera: Camera) -> None:
    ipv6_camera.api_set({MANUAL: ["2001:db8::1/64"]})
    assert set_settings(ipv6_camera, {STATEFUL: ["2001:db8::5/128"]}) == Outcome(
        SUCCESS,
        [*done(FLUSH_IPV6), add_ipv6("2001:db8::1/64"), add_ipv6("2001:db8::5/128")],
        [
            APPLYING_IPV6,
            *add_ipv6_log("2001:db8::1/64"),
            *add_ipv6_log("2001:db8::5/128"),
            NO_IPV4_ADDRESS_LOG,
        ],
    )
    assert sorted(ipv6_camera.addresses(6, "global")) == ["2001:db8::1/64", "2001:db8::5/128"]


def test_stateful_addresses_are_left_out_while_they_are_not_to_be_used(
    ipv6_camera: Camera,
) -> None:
    ipv6_camera.api_set({STATEFUL: ["2001:db8::5/128"]})
    switch = "[IPv6/Stateful]UseAddress"
    nothing_added = Outcome(SUCCESS, done(FLUSH_IPV6), [APPLYING_IPV6, NO_IPV4_ADDRESS_LOG])
    assert set_settings(ipv6_camera, {switch: False}) == nothing_added
    assert ipv6_camera.addresses(6, "global") == []
    assert ipv6_camera.get(STATEFUL) == ["2001:db8::5/128"]
    assert set_settings(ipv6_camera, {switch: True}).commands == [
        *done(FLUSH_IPV6),
        add_ipv6("2001:db8::5/128"),
    ]


def test_stateful_addresses_are_left_out_while_dhcpv6_is_off(ipv6_camera: Camera) -> None:
    request = {STATEFUL: ["2001:db8::5/128"], "[IPv6/Stateful]Enabled": False}
    assert ipv6_camera.api_set(request) == {"success": True, "errors": []}
    assert ipv6_camera.addresses(6, "global") == []
    assert add_ipv6("2001:db8::5/128") not in ipv6_camera.commands()


# IPv6 switched off


def test_with_ipv6_off_addresses_are_flushed_and_none_is_added(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=NO_DHCP | {"vesko_ipv6_enable": "0"})
    assert start(camera) == ["READY=1"]
    switch = "/proc/sys/net/ipv6/conf/all/disable_ipv6"
    assert camera.run(["cat", switch]).stdout == "1\n"
    assert camera.commands() == boot_commands([NO_ALIAS, *done(DECONFIGURE)], ipv6_enabled=False)
    assert set_settings(camera, {MANUAL: ["2001:db8::1/64"]}) == Outcome(
        SUCCESS, done(FLUSH_IPV6), [APPLYING_IPV6, NO_IPV4_ADDRESS_LOG]
    )
    assert camera.addresses(6) == []


def test_switching_ipv6_off_and_on_takes_the_addresses_and_brings_them_back(
    ipv6_camera: Camera,
) -> None:
    ipv6_camera.api_set({MANUAL: ["2001:db8::1/64"]})
    before = sorted(ipv6_camera.addresses(6))
    assert set_settings(ipv6_camera, {"[IPv6]Enabled": False}).response == SUCCESS
    assert ipv6_camera.addresses(6) == []
    assert set_settings(ipv6_camera, {"[IPv6]Enabled": True}).response == SUCCESS
    assert sorted(ipv6_camera.addresses(6)) == before


# What is refused


UNFIT = {
    "fe80::1": "'fe80::1' doesn't include a prefix length",
    "fe80::1/0": "'fe80::1/0' doesn't contain a valid prefix length",
    "fe80::1/129": "'fe80::1/129' doesn't contain a valid prefix length",
    "fe80::1/064": "'fe80::1/064' doesn't contain a valid prefix length",
    "fe80::1/6.4e1": "'fe80::1/6.4e1' doesn't contain a valid prefix length",
    "fe80::1/64/64": "'fe80::1/64/64' doesn't contain a valid prefix length",
    "zz/64": "'zz/64' doesn't contain a valid ipv6 address",
    "10.0.0.1/24": "'10.0.0.1/24' doesn't contain a valid ipv6 address",
    "fe80::1%eth0/64": "'fe80::1%eth0/64' doesn't contain a valid ipv6 address",
    "::1/128": "Cannot use localhost address ::1 for eth0",
    "0::0/64": "Cannot use undefined address ::0 for eth0",
    "ff02::1/64": "Cannot use multicast addresses for eth0",
}


@pytest.mark.parametrize("key", [MANUAL, STATEFUL])
def test_an_address_that_eth0_cannot_have_is_refused(ipv6_camera: Camera, key: str) -> None:
    for address, message in UNFIT.items():
        request = {key: ["2001:db8::1/64", address]}
        assert set_settings(ipv6_camera, request) == refusal(request, error(6, message, key))
    assert ipv6_camera.get(key) == []


def test_the_faults_of_all_elements_are_logged_and_the_first_is_answered(
    ipv6_camera: Camera,
) -> None:
    request = {MANUAL: ["::1/128", "2001:db8::1/64", "ff02::1/64"]}
    first = error(6, "Cannot use localhost address ::1 for eth0", MANUAL)
    lines = [
        error_log(6, "Cannot use localhost address ::1 for eth0", MANUAL),
        error_log(6, "Cannot use multicast addresses for eth0", MANUAL),
    ]
    assert set_settings(ipv6_camera, request) == refusal(request, first, log=lines)


def test_16_addresses_are_taken_and_17_are_not(ipv6_camera: Camera) -> None:
    addresses = [f"2001:db8::{number:x}/64" for number in range(1, 18)]
    assert set_settings(ipv6_camera, {MANUAL: addresses[:16]}).response == SUCCESS
    assert len(ipv6_camera.addresses(6, "global")) == 16
    fault = error(14, "There are too many elements in the provided array.", MANUAL)
    assert set_settings(ipv6_camera, {MANUAL: addresses}) == refusal({MANUAL: addresses}, fault)
    assert len(ipv6_camera.get(MANUAL)) == 16


def test_what_is_no_list_of_texts_is_refused(ipv6_camera: Camera) -> None:
    no_array, no_text = "Value wasn't a JSON array", "Found unexpected non-string in JSON array"
    values: list[tuple[Any, str]] = [
        *(("2001:db8::1/64", no_array), (None, no_array), (64, no_array)),
        *((["2001:db8::1/64", 64], no_text), ([None], no_text), ([["2001:db8::1/64"]], no_text)),
    ]
    for value, message in values:
        request = {MANUAL: value}
        assert set_settings(ipv6_camera, request) == refusal(request, error(3, message, MANUAL))
