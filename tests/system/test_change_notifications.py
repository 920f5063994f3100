"""The four signals with which the daemon announces changes."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest
from expectations import (
    APPLY_ERROR,
    LINK_LOCAL_IPV6,
    MANUAL_IPV4,
    SUCCESS,
    all_signals,
    answer,
    compact,
    masked,
    start,
    start_manual,
)

from camlab import Camera, Signal

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet


def ipv4(address: str) -> Signal:
    return Signal("IPv4AddressChange", (address,))


def added(address: str) -> Signal:
    return Signal("IPv6AddressAdded", (address,))


def removed(address: str) -> Signal:
    return Signal("IPv6AddressRemoved", (address,))


def mtu(value: int) -> Signal:
    return Signal("MTUChange", (value,))


def change(camera: Camera, **settings: Any) -> None:
    """Set settings, named without brackets: the request must succeed.

    Of a new MTU the signal is waited for: the next change would take its place.
    """
    keys = {"address": "[IPv4/Manual]Address", "ipv6": "[IPv6/Manual]Addresses"}
    keys |= {"mtu": "[NIC/eth0]MTU", "ipv6_enabled": "[IPv6]Enabled"}
    request = {keys[name]: value for name, value in settings.items()}
    is_new_mtu = settings.get("mtu") not in (None, camera.get("[NIC/eth0]MTU"))
    assert camera.api_set_text(compact(request)) == SUCCESS
    if is_new_mtu:
        assert camera.wait_signal("MTUChange") == mtu(settings["mtu"])


def started(make_camera: MakeCamera) -> Camera:
    """A camera whose link-local address has been announced, with two addresses of IPv6."""
    camera = start_manual(make_camera)
    change(camera, ipv6=["2001:db8::1/64", "2001:db8::2/64"])
    all_signals(camera)
    return camera


# At the start


def test_a_start_announces_the_ipv4_address_alone(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    assert all_signals(camera) == [ipv4("192.0.2.10")]


def test_ipv6_addresses_of_the_start_are_announced_with_the_next_one_that_is_added(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    camera.wait_until(lambda: camera.addresses(6), "eth0 has its link-local address")
    address = "2001:db8::9/64 dev eth0 valid_lft 1000 preferred_lft 1000"
    camera.run(["ip", "address", "add", *address.split()], check=True)
    start(camera)
    assert all_signals(camera) == [ipv4("192.0.2.10")]
    change(camera, ipv6=["2001:db8::1/64"])
    assert all_signals(camera) == [
        added(LINK_LOCAL_IPV6),
        added("2001:db8::9"),
        added("2001:db8::1"),
    ]


def test_an_address_that_the_start_takes_away_is_announced_as_removed(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    camera.wait_until(lambda: camera.addresses(6), "eth0 has its link-local address")
    camera.run("ip address add 2001:db8::9/64 dev eth0".split(), check=True)
    start(camera)
    assert all_signals(camera) == [ipv4("192.0.2.10"), removed("2001:db8::9")]


def test_an_ipv4_address_that_the_start_finds_and_keeps_is_not_announced(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    camera.run("ip address add 192.0.2.10/24 dev eth0".split(), check=True)
    start(camera)
    assert all_signals(camera) == []


# After a request


def test_another_ipv4_address_is_announced(make_camera: MakeCamera) -> None:
    camera = started(make_camera)
    change(camera, address="192.0.2.11")
    assert all_signals(camera) == [ipv4("192.0.2.11")]


def test_another_prefix_length_of_the_same_ipv4_address_is_not_announced(
    make_camera: MakeCamera,
) -> None:
    camera = started(make_camera)
    assert camera.api_set_text('{"[IPv4/Manual]Netmask": 16}') == SUCCESS
    assert camera.addresses(4) == ["192.0.2.10/16"]
    assert all_signals(camera) == []


def test_an_ipv4_address_that_goes_is_not_announced_but_its_return_is(
    make_camera: MakeCamera,
) -> None:
    camera = started(make_camera)
    change(camera, address=None)
    assert camera.addresses(4) == []
    assert all_signals(camera) == []
    change(camera, address="192.0.2.10")
    assert all_signals(camera) == [ipv4("192.0.2.10")]


def test_three_ipv6_addresses_that_are_added_at_once_give_three_signals(
    make_camera: MakeCamera,
) -> None:
    camera = started(make_camera)
    change(camera, ipv6=[f"2001:db8::{number}/64" for number in range(1, 6)])
    assert all_signals(camera) == [added(f"2001:db8::{number}") for number in (3, 4, 5)]


def test_removed_addresses_are_announced_after_added_ones(make_camera: MakeCamera) -> None:
    camera = started(make_camera)
    change(camera, ipv6=["2001:db8::a/64", "2001:db8::b/64"])
    assert all_signals(camera) == [
        added("2001:db8::a"),
        added("2001:db8::b"),
        removed("2001:db8::1"),
        removed("2001:db8::2"),
    ]


def test_all_four_signals_of_one_request_come_in_their_order(make_camera: MakeCamera) -> None:
    camera = started(make_camera)
    change(camera, mtu=1400, ipv6=["2001:db8::a/64", "2001:db8::1/64"], address="192.0.2.11")
    assert all_signals(camera) == [
        ipv4("192.0.2.11"),
        added("2001:db8::a"),
        removed("2001:db8::2"),
        mtu(1400),
    ]


def test_without_ipv6_every_address_of_it_is_announced_as_removed(make_camera: MakeCamera) -> None:
    camera = started(make_camera)
    change(camera, ipv6_enabled=False)
    assert camera.addresses(6) == []
    assert sorted(all_signals(camera)) == [
        removed("2001:db8::1"),
        removed("2001:db8::2"),
        removed(LINK_LOCAL_IPV6),
    ]


def test_each_change_of_the_mtu_is_announced(make_camera: MakeCamera) -> None:
    camera = started(make_camera)
    change(camera, mtu=1400)
    change(camera, mtu=1300)
    assert all_signals(camera) == [mtu(1400), mtu(1300)]


def test_an_mtu_that_could_not_be_set_is_announced_too(make_camera: MakeCamera) -> None:
    camera = started(make_camera)
    rule = camera.rule("/sbin/ip link set eth0 mtu 1400", status=2)
    response = camera.api_set_text('{"[NIC/eth0]MTU": 1400}')
    camera.wait_signal("MTUChange")
    rule.release()
    assert response == answer(APPLY_ERROR, success=True)
    assert all_signals(camera) == [mtu(1400)]


def test_a_request_that_changes_nothing_is_followed_by_no_signal(make_camera: MakeCamera) -> None:
    camera = started(make_camera)
    change(camera, mtu=camera.get("[NIC/eth0]MTU"), address="192.0.2.10")
    change(camera, ipv6=["2001:db8::1/64", "2001:db8::2/64"])
    assert camera.api_set_text("{}") == SUCCESS
    assert all_signals(camera) == []


def test_a_refused_request_is_followed_by_no_signal(make_camera: MakeCamera) -> None:
    camera = started(make_camera)
    assert camera.api_set({"[NIC/eth0]MTU": 1199, "[IPv4/Manual]Address": "192.0.2.11"})["errors"]
    assert all_signals(camera) == []


def test_a_get_request_announces_nothing_even_where_the_kernel_has_changed(
    make_camera: MakeCamera,
) -> None:
    camera = started(make_camera)
    camera.clear_signals()
    camera.run("ip address add 2001:db8::9/64 dev eth0".split(), check=True)
    assert "2001:db8::9/64" in camera.get("[IPv6/Actual]Addresses")
    assert camera.signals() == []
    assert all_signals(camera) == [added("2001:db8::9")]


def test_a_change_that_others_made_is_announced_with_the_next_request(
    make_camera: MakeCamera,
) -> None:
    camera = started(make_camera)
    camera.run("ip address delete 2001:db8::2/64 dev eth0".split(), check=True)
    camera.run("ip address add 2001:db8::9/64 dev eth0".split(), check=True)
    assert camera.api_set_text("{}") == SUCCESS
    assert all_signals(camera) == [added("2001:db8::9"), removed("2001:db8::2")]


# What the log tells of it


def test_one_signal_is_sent_a_turn_of_the_main_loop(make_camera: MakeCamera) -> None:
    camera = started(make_camera)
    camera.wait_log("Sending DBUS Signal MTUChange=1471")
    logged = len(camera.log_lines())
    change(camera, mtu=1400, ipv6=["2001:db8::a/64", "2001:db8::b/64"], address="192.0.2.11")
    camera.wait_log("Sending DBUS Signal MTUChange=1400")
    functions = ("<7>mark_signal_flag", "<7>send_signals")
    lines = masked(camera.log_lines()[logged:])
    assert [line for line in lines if line.startswith(functions)] == [
        "<7>mark_signal_flag:LINE: Adding signal flag 0X8",
        "<7>mark_signal_flag:LINE: Adding signal flag 0X1",
        "<7>mark_signal_flag:LINE: Adding signal flag 0X2",
        "<7>mark_signal_flag:LINE: Adding signal flag 0X4",
        "<7>send_signals:LINE: Sending signals.  Flags=0X   F",
        "<7>send_signals:LINE: Sending DBUS Signal IPv4AddressChange=192.0.2.11",
        "<7>send_signals:LINE: Sending signals.  Flags=0X   E",
        "<7>send_signals:LINE: Sending DBUS Signal IPv6AddressAdded=2001:db8::a",
        "<7>send_signals:LINE: Sending signals.  Flags=0X   E",
        "<7>send_signals:LINE: Sending DBUS Signal IPv6AddressAdded=2001:db8::b",
        "<7>send_signals:LINE: Sending signals.  Flags=0X   C",
        "<7>send_signals:LINE: Sending DBUS Signal IPv6AddressRemoved=2001:db8::1",
        "<7>send_signals:LINE: Sending signals.  Flags=0X   C",
        "<7>send_signals:LINE: Sending DBUS Signal IPv6AddressRemoved=2001:db8::2",
        "<7>send_signals:LINE: Sending signals.  Flags=0X   8",
        "<7>send_signals:LINE: Sending DBUS Signal MTUChange=1400",
    ]
