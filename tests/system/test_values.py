"""The generic value checks over the real bus: what is refused, and how the rest is stored."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest
from expectations import (
    MANUAL_IPV4,
    SUCCESS,
    Outcome,
    answer,
    compact,
    error,
    error_log,
    lines_of_level,
    refusal,
    set_settings,
    start,
)
from stored_settings import plant, stored

from camlab import Camera

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

STATEFUL = "[IPv6/Stateful]Enabled"
ACCEPT_RA = "[IPv6/Stateless]AcceptRA"
STATEFUL_FAULT = error(13, "Stateless configuration requires accepting RA", STATEFUL)
ACCEPT_RA_FAULT = error(
    13, "Accepting RA is required to support stateless configuration", ACCEPT_RA
)
PERCENT = "[TrafficShaping]Bulk/CeilPercent"
IPV4_GATEWAYS = "[IPv4/DHCP]Gateways"
IPV6_GATEWAYS = "[IPv6/Manual]Gateways"


@pytest.fixture
def served(make_camera: MakeCamera) -> Camera:
    """Return a camera without DHCP whose settings are saved and not applied."""
    camera = make_camera(variables={"vesko_ipv4_dhcp_enable": "0"})
    assert start(camera) == ["READY=1"]
    assert camera.api_set({"[Settings]Apply": False})["success"]
    return camera


def set_without_apply(camera: Camera, request: dict[str, Any]) -> Outcome:
    """Set settings, and leave out of the log that they are not applied."""
    outcome = set_settings(camera, request)
    held_back = "<5>api_set: By request, not applying settings. Anticipating reboot."
    assert outcome.log[-1] == held_back
    return outcome._replace(log=outcome.log[:-1])


# Router advertisements


def test_dhcpv6_alone_is_refused_while_router_advertisements_are_off(served: Camera) -> None:
    served.api_set({STATEFUL: False, ACCEPT_RA: False})
    request = {STATEFUL: True}
    assert set_without_apply(served, request) == refusal(request, STATEFUL_FAULT)
    assert served.get(STATEFUL) is False


def test_router_advertisements_alone_are_not_switched_off_under_dhcpv6(served: Camera) -> None:
    request = {ACCEPT_RA: False}
    assert set_without_apply(served, request) == refusal(request, ACCEPT_RA_FAULT)


def test_both_in_one_request_are_both_named(served: Camera) -> None:
    request = {ACCEPT_RA: False, STATEFUL: True}
    assert set_without_apply(served, request) == refusal(request, STATEFUL_FAULT, ACCEPT_RA_FAULT)


def test_dhcpv6_and_router_advertisements_that_agree_are_saved(served: Camera) -> None:
    for value in (False, True):
        request = {STATEFUL: value, ACCEPT_RA: value}
        assert set_without_apply(served, request) == Outcome(SUCCESS, [], [])
        assert served.api_get(list(request)) == {"success": True, "errors": [], **request}


def test_a_value_of_another_type_counts_as_false_in_the_comparison(served: Camera) -> None:
    request = {STATEFUL: True, ACCEPT_RA: "true"}
    type_fault = error(3, "Value wasn't a boolean", ACCEPT_RA)
    assert set_without_apply(served, request) == refusal(
        request, type_fault, STATEFUL_FAULT, ACCEPT_RA_FAULT
    )


# Percentages and numbers


def test_a_percentage_is_stored_as_it_is(served: Camera) -> None:
    for value in (0, 100, 85, 100.7, 0.5):
        assert set_without_apply(served, {PERCENT: value}) == Outcome(SUCCESS, [], [])
        assert served.api_get_text(compact({"settings": [PERCENT]})) == answer(
            success=True, **{PERCENT: value}
        )


def test_a_percentage_out_of_range_is_reported_and_saved_all_the_same(served: Camera) -> None:
    message = "Not a valid percentage value"
    for value in (101, -1, 2147483648):
        assert set_without_apply(served, {PERCENT: value}) == Outcome(
            answer(error(4, message, PERCENT), success=True), [], [error_log(4, message, PERCENT)]
        )
        assert stored(served)["TrafficShaping.Bulk.CeilPercent"] == value


def test_what_is_no_number_is_refused(served: Camera) -> None:
    fault = error(3, "Value wasn't a number", PERCENT)
    for text in ('"85"', "null", "true", "[85]", "{}", "1e999", "-1e999"):
        outcome = set_settings(served, f'{{"{PERCENT}":{text}}}')
        assert (outcome.response, outcome.commands) == (answer(fault), [])
    assert served.get(PERCENT) == 100


def test_what_is_no_boolean_is_refused(served: Camera) -> None:
    fault = error(3, "Value wasn't a boolean", "[NTP]Enabled")
    values: list[Any] = [1, 0, "true", None, [], [True]]
    for value in values:
        request = {"[NTP]Enabled": value}
        assert set_without_apply(served, request) == refusal(request, fault)
    assert served.get("[NTP]Enabled") is True


# Texts, files and null


def test_an_address_that_is_no_text_is_refused(served: Camera) -> None:
    fault = error(3, "Value wasn't a string", "[IPv4/Manual]DefaultGateway")
    values: list[Any] = [7, False, [], {"address": "10.0.0.5"}]
    for value in values:
        request = {"[IPv4/Manual]DefaultGateway": value}
        assert set_without_apply(served, request) == refusal(request, fault)


def test_null_takes_a_manual_address_and_a_default_gateway_away(served: Camera) -> None:
    values = {"[IPv4/Manual]Address": "10.0.0.5", "[IPv4/Manual]DefaultGateway": "10.0.0.1"}
    assert set_without_apply(served, values) == Outcome(SUCCESS, [], [])
    assert served.bootenv.get("netdev0") == "0000000000000a000005000000000a000001"
    assert set_without_apply(served, dict.fromkeys(values)) == Outcome(SUCCESS, [], [])
    assert served.bootenv.get("netdev0") == "000000000000000000000000000000000000"
    assert served.api_get(list(values)) == {"success": True, "errors": []} | dict.fromkeys(values)


def test_only_a_regular_file_is_a_certificate(served: Camera) -> None:
    key = "[Webserver/HTTPS]Authority"
    for path in ("/etc", "/dev/null", "/no/such", ""):
        assert set_without_apply(served, {key: path}) == refusal(
            {key: path}, error(4, "Not a file", key)
        )
    assert served.get(key) is None
    assert set_without_apply(served, {key: "/etc/hostname"}) == Outcome(SUCCESS, [], [])
    assert served.get(key) == "/etc/hostname"


def test_null_takes_a_certificate_away(served: Camera) -> None:
    key = "[Webserver/HTTPS]Authority"
    assert set_without_apply(served, {key: "/etc/hostname"}).response == SUCCESS
    assert set_without_apply(served, {key: None}) == Outcome(SUCCESS, [], [])
    assert stored(served)["Webserver.HTTPS.Authority"] is None


def test_a_damaged_port_is_told_while_its_server_is_off(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    plant(camera, {"Webserver.HTTPS.Port": '"443"', "Webserver.HTTPS.Enabled": "null"})
    assert start(camera) == ["READY=1"]
    log = set_settings(camera, {"[Webserver/HTTPS]Authority": "/etc/hostname"}).log
    switch = "<3>get_bool: [Webserver/HTTPS]Enabled value is not a JSON boolean; returning FALSE"
    # Once where the certificate is looked for, once with all that nginx is to be told.
    assert lines_of_level(log, 3) == [
        switch,
        switch,
        "<3>get_int: [Webserver/HTTPS]Port value is not a JSON number; returning 0",
    ]


# Lists of servers


def test_prefixes_that_name_the_kind_are_stripped_before_a_list_is_stored(served: Camera) -> None:
    request = {
        IPV6_GATEWAYS: ["ipv6:fe80::1", "host:gate.example", "2001:db8::1", "router-1"],
        IPV4_GATEWAYS: ["ipv4:10.1.2.3", "host:a1", "1.2.3.4", "gate.example"],
    }
    assert set_without_apply(served, request) == Outcome(SUCCESS, [], [])
    assert served.get(IPV4_GATEWAYS) == ["10.1.2.3", "a1", "1.2.3.4", "gate.example"]
    assert stored(served)["IPv6.Manual.Gateways"] == [
        "fe80::1",
        "gate.example",
        "2001:db8::1",
        "router-1",
    ]


WRONG_SERVERS = [
    (IPV4_GATEWAYS, "ipv4:127.0.0.1", 5, "'127.0.0.1' isn't a valid ipv4 address"),
    (IPV4_GATEWAYS, "ipv4:", 5, "'' isn't a valid ipv4 address"),
    (IPV4_GATEWAYS, "host:1.2.3.4", 3, "'1.2.3.4' isn't a valid server name"),
    (IPV4_GATEWAYS, "999.1.1.1", 3, "'999.1.1.1' isn't a valid server name or ip"),
    (IPV4_GATEWAYS, "ipv6:fe80::1", 3, "'ipv6:fe80::1' isn't a valid server name or ip"),
    (IPV4_GATEWAYS, "IPV4:10.0.0.1", 3, "'IPV4:10.0.0.1' isn't a valid server name or ip"),
    (IPV4_GATEWAYS, "fe80::1", 3, "'fe80::1' isn't a valid server name or ip"),
    (IPV6_GATEWAYS, "ipv6:10.0.0.1", 6, "'10.0.0.1' isn't a valid ipv6 address"),
    (IPV6_GATEWAYS, "ipv4:10.0.0.1", 3, "'ipv4:10.0.0.1' isn't a valid server name or ip"),
    (IPV6_GATEWAYS, "10.0.0.1", 3, "'10.0.0.1' isn't a valid server name or ip"),
    (IPV6_GATEWAYS, "a" * 64, 3, f"'{'a' * 64}' isn't a valid server name or ip"),
]


def test_a_server_of_the_wrong_kind_refuses_the_list(served: Camera) -> None:
    for key, element, code, message in WRONG_SERVERS:
        outcome = set_without_apply(served, {key: ["gate.example", element]})
        assert (outcome.response, outcome.commands) == (answer(error(code, message, key)), [])
        assert outcome.log[0] == error_log(code, message, key)
        assert served.get(key) == []


def test_an_empty_list_and_a_name_of_63_characters_are_taken(served: Camera) -> None:
    longest = "a" * 63
    assert set_without_apply(served, {IPV6_GATEWAYS: [longest]}).response == SUCCESS
    assert served.get(IPV6_GATEWAYS) == [longest]
    assert set_without_apply(served, {IPV6_GATEWAYS: []}).response == SUCCESS
    assert served.get(IPV6_GATEWAYS) == []


def test_a_list_of_servers_holds_texts_only(served: Camera) -> None:
    no_array, no_text = "Value wasn't a JSON array", "Found unexpected non-string in JSON array"
    values: list[tuple[Any, str]] = [
        *(("gate.example", no_array), (None, no_array), ({}, no_array)),
        (["gate.example", 7, None], no_text),
    ]
    for value, message in values:
        request = {IPV6_GATEWAYS: value}
        fault = error(3, message, IPV6_GATEWAYS)
        assert set_without_apply(served, request) == refusal(request, fault)
