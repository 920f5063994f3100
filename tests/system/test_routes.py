"""The default gateways of eth0, in the real kernel."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest
from expectations import (
    MULTICAST_NETWORK,
    MULTICAST_ROUTE,
    NO_ALIAS,
    SUCCESS,
    Outcome,
    console,
    destinations,
    done,
    ifconfig,
    set_settings,
    start,
)
from stored_settings import plant, stored

from camlab import Camera, Command

MakeCamera = Callable[..., Camera]

GATEWAYS = "[IPv4/Manual]Gateways"
IPV6_GATEWAYS = "[IPv6/Manual]Gateways"
REMOVE = "while /sbin/route del default gw 0.0.0.0 dev eth0 2>/dev/null ; do : ; done"
RELOAD_NTP = "kill -USR2 $(pidof -s ntp-keeper)"
APPLYING_ROUTES = "<6>apply_settings: Applying IPv4 routes"
APPLYING_IPV6_ROUTES = "<6>apply_settings: If IPv6 enabled, applying IPv6 routes"
TIME_SERVICE_LOG = [
    "<6>apply_settings: Writing ntp.conf",
    *console("Wrote /etc/ntp.conf", "quarn_write_ntpconf"),
    "<6>apply_settings: Reloading NTPd",
]
NO_DATA = "<4>get_netlink_info: no data returned"


def boot(make_camera: MakeCamera, **variables: str) -> Camera:
    """Return a camera whose daemon runs; the time service is there to be told."""
    camera = make_camera(variables=variables)
    camera.rule("/usr/sbin/arping *", status=0)
    camera.rule(RELOAD_NTP, status=0)
    camera.wait_until(lambda: camera.addresses(6), "eth0 has its link-local address")
    assert start(camera) == ["READY=1"]
    return camera


@pytest.fixture
def manual_camera(make_camera: MakeCamera) -> Camera:
    """Return a camera without DHCP that has the address 10.0.0.5/24 and 2001:db8::5/64."""
    camera = boot(make_camera, vesko_ipv4_dhcp_enable="0")
    request = {
        "[IPv4/Manual]Address": "10.0.0.5",
        "[IPv6/Manual]Addresses": ["2001:db8::5/64"],
        "[IPv6/Stateful]Enabled": False,
    }
    assert camera.api_set(request)["success"]
    return camera


def add(gateway: str, status: int = 0) -> Command:
    """The command that adds an IPv4 default gateway."""
    return Command(f"/sbin/route add default gw {gateway} eth0 2>/dev/null", status)


def add_log(gateway: str) -> list[str]:
    """What adding an IPv4 default gateway says."""
    return [
        f"<6>add_ipv4_gateway: Added {gateway} as a gateway with '{add(gateway).text}'",
        *console(f"Added {gateway} as IPv4 default gateway", "add_ipv4_gateway"),
    ]


def ipv6(action: str, gateway: str, status: int = 0) -> Command:
    """The command that adds or removes an IPv6 default gateway."""
    return Command(
        f"/sbin/route -A inet6 {action} default gw {gateway} eth0 2>/dev/null", status
    )


def ipv6_log(gateway: str, added: bool = True) -> list[str]:
    """What adding or removing an IPv6 default gateway says."""
    function = "single_ipv6_default_gateway"
    if not added:
        return [f"<6>{function}: Removed {gateway} as an IPv6 default gateway"]
    return [
        f"<6>{function}: Added {gateway} as an IPv6 default gateway",
        *console(f"Added {gateway} as IPv6 default gateway", function),
    ]


def gateways(camera: Camera) -> list[str]:
    """The kernel's IPv4 default gateways, the one that is used first."""
    return [route["gateway"] for route in camera.routes() if route["dst"] == "default"]


def ipv6_gateways(camera: Camera) -> list[str]:
    """The kernel's IPv6 default gateways, those of a multipath route one by one, sorted."""
    return sorted(
        hop["gateway"]
        for route in camera.ip("-6", "route", "show", "default")
        for hop in route.get("nexthops", [route])
    )


# IPv4


def test_manual_gateways_are_added_in_order_and_the_last_one_is_used(manual_camera: Camera) -> None:
    assert set_settings(manual_camera, {GATEWAYS: ["10.0.0.1", "10.0.0.2"]}) == Outcome(
        SUCCESS,
        [*done(REMOVE, MULTICAST_ROUTE), add("10.0.0.1"), add("10.0.0.2"), *done(RELOAD_NTP)],
        [APPLYING_ROUTES, *add_log("10.0.0.1"), *add_log("10.0.0.2"), *TIME_SERVICE_LOG],
    )
    assert gateways(manual_camera) == ["10.0.0.2", "10.0.0.1"]
    assert manual_camera.get(GATEWAYS) == ["10.0.0.1", "10.0.0.2"]
    values = stored(manual_camera)
    assert values["IPv4.Manual.DefaultGateway"] == "10.0.0.1"
    assert values["IPv4.Manual.Gateways"] == ["10.0.0.2"]


def test_of_three_gateways_the_second_cannot_be_added_and_the_others_are(
    manual_camera: Camera,
) -> None:
    request = {GATEWAYS: ["10.0.0.1", "172.16.0.1", "10.0.0.3"]}
    assert set_settings(manual_camera, request) == Outcome(
        SUCCESS,
        [
            *done(REMOVE, MULTICAST_ROUTE),
            add("10.0.0.1"),
            add("172.16.0.1", status=7),
            add("10.0.0.3"),
            *done(RELOAD_NTP),
        ],
        [
            APPLYING_ROUTES,
            *add_log("10.0.0.1"),
            "<4>add_ipv4_gateway: System call to add 172.16.0.1 gateway failed",
            "<5>set_ipv4_routes: Failed at adding 1-th gateway 172.16.0.1 set manually",
            *add_log("10.0.0.3"),
            *TIME_SERVICE_LOG,
        ],
    )
    assert gateways(manual_camera) == ["10.0.0.3", "10.0.0.1"]


def test_a_gateway_given_twice_is_added_once(manual_camera: Camera) -> None:
    outcome = set_settings(manual_camera, {GATEWAYS: ["10.0.0.1", "10.0.0.1"]})
    assert outcome.commands[2:4] == [add("10.0.0.1"), add("10.0.0.1", status=7)]
    assert gateways(manual_camera) == ["10.0.0.1"]
    assert manual_camera.get(GATEWAYS) == ["10.0.0.1", "10.0.0.1"]


def test_a_new_list_replaces_every_gateway_whoever_added_it(manual_camera: Camera) -> None:
    assert set_settings(manual_camera, {GATEWAYS: ["10.0.0.1", "10.0.0.2"]}).response == SUCCESS
    manual_camera.run(["/sbin/route", "add", "default", "gw", "10.0.0.77", "eth0"], check=True)
    assert set_settings(manual_camera, {GATEWAYS: ["10.0.0.9"]}).response == SUCCESS
    assert gateways(manual_camera) == ["10.0.0.9"]


def test_an_empty_list_is_not_saved_and_leaves_gateways_and_routes(manual_camera: Camera) -> None:
    assert set_settings(manual_camera, {GATEWAYS: ["10.0.0.1", "10.0.0.2"]}).response == SUCCESS
    assert set_settings(manual_camera, {GATEWAYS: []}) == Outcome(
        SUCCESS, [], ["<6>save_manual_v4_gws: No manual IPv4 gateways were provided"]
    )
    assert manual_camera.get(GATEWAYS) == ["10.0.0.1", "10.0.0.2"]
    assert gateways(manual_camera) == ["10.0.0.2", "10.0.0.1"]


def test_gateways_outside_of_the_network_are_not_refused(manual_camera: Camera) -> None:
    request: dict[str, Any] = {
        "[IPv4/Manual]Address": "10.0.0.6",
        "[IPv4/Manual]Netmask": 24,
        GATEWAYS: ["10.0.1.1"],
    }
    outcome = set_settings(manual_camera, request)
    assert (outcome.response, outcome.commands) == (
        SUCCESS,
        [
            NO_ALIAS,
            ifconfig("10.0.0.6/24"),
            *done(MULTICAST_ROUTE, REMOVE, MULTICAST_ROUTE),
            add("10.0.1.1", status=7),
            *done(RELOAD_NTP),
        ],
    )
    assert gateways(manual_camera) == []


def test_the_gateways_stand_again_after_a_reboot(manual_camera: Camera) -> None:
    assert set_settings(manual_camera, {GATEWAYS: ["10.0.0.1", "10.0.0.2"]}).response == SUCCESS
    manual_camera.reboot()
    assert start(manual_camera) == ["READY=1"]
    assert gateways(manual_camera) == ["10.0.0.2", "10.0.0.1"]
    assert destinations(manual_camera) == ["default", "default", "10.0.0.0/24", MULTICAST_NETWORK]


def test_without_an_address_no_route_command_runs(make_camera: MakeCamera) -> None:
    camera = boot(make_camera, vesko_ipv4_dhcp_enable="0")
    assert set_settings(camera, {GATEWAYS: ["10.0.0.1"]}) == Outcome(
        SUCCESS, done(RELOAD_NTP), [APPLYING_ROUTES, *TIME_SERVICE_LOG, NO_DATA]
    )
    assert camera.get(GATEWAYS) == ["10.0.0.1"]


def test_with_dhcp_and_no_lease_no_route_command_runs(make_camera: MakeCamera) -> None:
    camera = boot(make_camera)
    request = {"[IPv4/DHCP]Gateways": ["10.1.0.1"]}
    assert set_settings(camera, request).commands == done(RELOAD_NTP)
    assert gateways(camera) == []


def test_a_lease_brings_its_gateways_and_takes_the_manual_ones_away(
    make_camera: MakeCamera,
) -> None:
    camera = boot(make_camera)
    assert camera.api_set({GATEWAYS: ["10.0.0.1"]})["success"]
    lease = {
        "[IPv4/DHCP]Address": "10.1.2.3",
        "[IPv4/DHCP]Netmask": 16,
        "[IPv4/DHCP]Gateways": ["10.1.0.1", "10.2.0.1"],
    }
    outcome = set_settings(camera, lease)
    assert outcome.response == SUCCESS
    assert outcome.commands[-5:] == [
        *done(REMOVE, MULTICAST_ROUTE),
        add("10.1.0.1"),
        add("10.2.0.1", status=7),
        *done(RELOAD_NTP),
    ]
    failure = "<5>set_ipv4_routes: Failed at adding 1-th gateway 10.2.0.1 from dhcp"
    assert [line for line in outcome.log if "set_ipv4_routes" in line] == [failure]
    assert gateways(camera) == ["10.1.0.1"]


def test_a_missing_route_tool_costs_the_routes_only(manual_camera: Camera) -> None:
    manual_camera.files.remove("/sbin/route")
    assert set_settings(manual_camera, {GATEWAYS: ["10.0.0.1"]}) == Outcome(
        SUCCESS,
        [
            *done(REMOVE),
            Command(MULTICAST_ROUTE, 127),
            add("10.0.0.1", status=127),
            *done(RELOAD_NTP),
        ],
        [
            APPLYING_ROUTES,
            "sh: 1: /sbin/route: not found",
            "sh: 1: /sbin/route: not found",
            f"<5>add_multicast_route: System call '{MULTICAST_ROUTE}' returned 127",
            "<4>add_ipv4_gateway: System call to add 10.0.0.1 gateway failed",
            "<5>set_ipv4_routes: Failed at adding 0-th gateway 10.0.0.1 set manually",
            *TIME_SERVICE_LOG,
        ],
    )


def test_a_planted_gateway_never_becomes_a_second_command(manual_camera: Camera) -> None:
    manual_camera.stop_daemon()
    evil = "10.0.0.2 eth0; touch /tmp/owned"
    plant(manual_camera, {"IPv4.Manual.Gateways": f'["{evil}", "10.0.0.3"]'})
    assert start(manual_camera) == ["READY=1"]
    assert gateways(manual_camera) == ["10.0.0.3"]
    refusal = (
        "<3>ShellCommand: Refused to run '/sbin/route add default gw %s eth0 2>/dev/null' "
        f"with the value '{evil}'"
    )
    assert refusal in manual_camera.log_lines()
    assert not manual_camera.files.exists("/tmp/owned")


# IPv6


def test_ipv6_gateways_are_added(manual_camera: Camera) -> None:
    request = {IPV6_GATEWAYS: ["2001:db8::1", "fe80::1"]}
    assert set_settings(manual_camera, request) == Outcome(
        SUCCESS,
        [ipv6("add", "2001:db8::1"), ipv6("add", "fe80::1"), *done(RELOAD_NTP)],
        [
            APPLYING_IPV6_ROUTES,
            NO_DATA,
            *ipv6_log("2001:db8::1"),
            *ipv6_log("fe80::1"),
            *TIME_SERVICE_LOG,
        ],
    )
    assert ipv6_gateways(manual_camera) == ["2001:db8::1", "fe80::1"]
    assert sorted(manual_camera.get("[IPv6/Actual]Gateways")) == ["2001:db8::1", "fe80::1"]
    assert manual_camera.get("[IPv6/Stateless]Gateways") == []


def test_new_ipv6_gateways_replace_the_old_ones_though_the_kernel_has_joined_them(
    manual_camera: Camera,
) -> None:
    old = ["2001:db8::1", "2001:db8::2"]
    assert set_settings(manual_camera, {IPV6_GATEWAYS: old}).response == SUCCESS
    outcome = set_settings(manual_camera, {IPV6_GATEWAYS: ["2001:db8::3"]})
    assert outcome.response == SUCCESS
    assert sorted(outcome.commands[:2]) == [ipv6("del", gateway) for gateway in old]
    assert outcome.commands[2:] == [ipv6("add", "2001:db8::3"), *done(RELOAD_NTP)]
    assert ipv6_gateways(manual_camera) == ["2001:db8::3"]


def test_an_empty_list_takes_the_ipv6_gateways_away(manual_camera: Camera) -> None:
    assert set_settings(manual_camera, {IPV6_GATEWAYS: ["2001:db8::1"]}).response == SUCCESS
    assert set_settings(manual_camera, {IPV6_GATEWAYS: []}) == Outcome(
        SUCCESS,
        [ipv6("del", "2001:db8::1"), *done(RELOAD_NTP)],
        [APPLYING_IPV6_ROUTES, *ipv6_log("2001:db8::1", added=False), *TIME_SERVICE_LOG],
    )
    assert ipv6_gateways(manual_camera) == []


def test_a_learned_ipv6_gateway_stays_and_is_told_apart(manual_camera: Camera) -> None:
    learned = ["default", "via", "fe80::99", "dev", "eth0", "proto", "ra", "metric", "1024"]
    manual_camera.run(["ip", "-6", "route", "add", *learned], check=True)
    by_hand = ["default", "via", "2001:db8::77", "dev", "eth0", "proto", "static", "metric", "1"]
    manual_camera.run(["ip", "-6", "route", "add", *by_hand], check=True)
    outcome = set_settings(manual_camera, {IPV6_GATEWAYS: ["2001:db8::1"]})
    assert outcome.commands == [
        ipv6("del", "2001:db8::77"),
        ipv6("add", "2001:db8::1"),
        *done(RELOAD_NTP),
    ]
    assert ipv6_gateways(manual_camera) == ["2001:db8::1", "fe80::99"]
    assert sorted(manual_camera.get("[IPv6/Actual]Gateways")) == ["2001:db8::1", "fe80::99"]
    assert manual_camera.get("[IPv6/Stateless]Gateways") == ["fe80::99"]


def test_an_ipv6_gateway_that_cannot_be_removed_is_no_apply_error(manual_camera: Camera) -> None:
    # The tool removes routes of its own metric only.
    by_hand = ["default", "via", "2001:db8::77", "dev", "eth0", "proto", "static", "metric", "7"]
    manual_camera.run(["ip", "-6", "route", "add", *by_hand], check=True)
    assert set_settings(manual_camera, {IPV6_GATEWAYS: ["2001:db8::1"]}) == Outcome(
        SUCCESS,
        [ipv6("del", "2001:db8::77", status=7), ipv6("add", "2001:db8::1"), *done(RELOAD_NTP)],
        [
            APPLYING_IPV6_ROUTES,
            "<4>single_ipv6_default_gateway: System call to remove ipv6 gateway 2001:db8::77 "
            "failed. 7",
            *ipv6_log("2001:db8::1"),
            *TIME_SERVICE_LOG,
        ],
    )
    assert ipv6_gateways(manual_camera) == ["2001:db8::1", "2001:db8::77"]


def test_an_ipv6_gateway_that_cannot_be_added_is_an_apply_error_and_the_next_one_is_added(
    manual_camera: Camera,
) -> None:
    request = {IPV6_GATEWAYS: ["2001:db8:9::1", "2001:db8::1"]}
    outcome = set_settings(manual_camera, request)
    assert outcome.response == (
        '{"success":true,"errors":[{"code":1,"msg":"There was an error in applying the settings"}]}'
    )
    [refused, added, _] = outcome.commands
    assert refused.text == ipv6("add", "2001:db8:9::1").text
    assert refused.status
    assert added == ipv6("add", "2001:db8::1")
    assert (
        "<4>single_ipv6_default_gateway: System call to add ipv6 gateway 2001:db8:9::1 failed. "
        f"{refused.status}"
    ) in outcome.log
    assert ipv6_gateways(manual_camera) == ["2001:db8::1"]
