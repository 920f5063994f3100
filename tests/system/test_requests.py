"""Get and set requests over the real bus: the answers byte for byte, and what they leave behind."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest
from expectations import (
    APPLYING_IPV4,
    SETTING_MTU,
    SUCCESS,
    Outcome,
    answer,
    compact,
    done,
    error,
    error_log,
    ipv4_of_kernel,
    labelled,
    masked,
    refusal,
    set_settings,
    start,
)
from stored_settings import STORED_BY_START, stored

from camlab import Camera

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

MTU = "[NIC/eth0]MTU"
ADDRESS = "[IPv4/Manual]Address"
APPLY = "[Settings]Apply"
NOT_APPLYING = "<5>api_set: By request, not applying settings. Anticipating reboot."
NO_REQUEST = "<3>api_set: Null request object on SET call"
NO_ADDRESS_LOG = "<4>get_netlink_info: no data returned"
UNKNOWN = "Could not set unknown setting"
APPLY_ERROR_TEXT = "There was an error in applying the settings"


@pytest.fixture
def served(make_camera: MakeCamera) -> Camera:
    """Return a camera that has the address 10.0.0.5/24, and its daemon at full log level."""
    camera = make_camera(variables={"vesko_ipv4_dhcp_enable": "0"})
    assert start(camera) == ["READY=1"]
    assert camera.api_set({ADDRESS: "10.0.0.5"}) == {"success": True, "errors": []}
    return camera


def get_whole(camera: Camera, request: str) -> tuple[str, list[str]]:
    """Get by a request text; return the response text and the log."""
    logged = len(camera.log_lines())
    response = camera.api_get_text(request)
    return response, masked(camera.log_lines()[logged:])


# Getting


def test_values_come_under_their_keys_in_the_order_of_the_request(served: Camera) -> None:
    request = '{"settings":["[NIC/eth0]MTU","[IPv4/Manual]Address","[IPv6]Enabled","[DNS]Enabled"]}'
    assert get_whole(served, request) == (
        '{"success":true,"errors":[],"[NIC/eth0]MTU":1500,"[IPv4/Manual]Address":"10.0.0.5",'
        '"[IPv6]Enabled":true,"[DNS]Enabled":true}',
        [],
    )


def test_a_request_for_no_settings_is_answered_with_success(served: Camera) -> None:
    assert get_whole(served, '{"settings":[]}') == ('{"success":true,"errors":[]}', [])


def test_a_setting_without_a_reader_is_null(served: Camera) -> None:
    request = '{"settings":["[TCP/Port]InUse"]}'
    response = '{"success":true,"errors":[],"[TCP/Port]InUse":null}'
    assert get_whole(served, request) == (response, [])


def test_a_repeated_key_is_answered_once_and_reported_once(served: Camera) -> None:
    request = compact({"settings": [MTU, ADDRESS, MTU, MTU]})
    message = "Ignoring repeated get request for key"
    assert get_whole(served, request) == (
        answer(error(8, message, MTU), success=True, **{MTU: 1500, ADDRESS: "10.0.0.5"}),
        [error_log(8, message, MTU)] * 2,
    )


def test_an_unknown_key_leaves_success_true_and_the_other_values(served: Camera) -> None:
    request = compact({"settings": ["[No]Such", MTU, "", "mtu", "[nic/eth0]mtu", "[No]Such"]})
    message = "Ignoring repeated get request for key"
    unknown = ["[No]Such", "", "mtu", "[nic/eth0]mtu"]
    assert get_whole(served, request) == (
        answer(
            *(error(7, "Unknown key", key) for key in unknown),
            error(8, message, "[No]Such"),
            success=True,
            **{MTU: 1500},
        ),
        [
            *(error_log(7, "Unknown key", key) for key in unknown),
            error_log(8, message, "[No]Such"),
        ],
    )


def test_a_value_that_cannot_be_read_fails_the_request_and_not_the_other_values(
    served: Camera,
) -> None:
    served.api_set({ADDRESS: None})
    response, log = get_whole(served, compact({"settings": ["[IPv4/Actual]Address", MTU]}))
    message = "Could not read value or default"
    assert response == answer(error(1, message, "[IPv4/Actual]Address"), **{MTU: 1500})
    assert log[-1] == error_log(1, message, "[IPv4/Actual]Address")


def test_every_documented_default_is_read(make_camera: MakeCamera) -> None:
    camera = make_camera(variables={"vesko_ipv4_dhcp_enable": "0"})
    assert start(camera) == ["READY=1"]
    defaults: dict[str, Any] = {
        APPLY: True,
        "[IPv4]Enabled": True,
        "[IPv4/DHCP]Address": None,
        "[IPv4/DHCP]Netmask": None,
        "[IPv4/DHCP]Gateways": [],
        "[IPv4/LocalLink]Enabled": True,
        ADDRESS: None,
        "[IPv4/Manual]Netmask": 24,
        "[IPv6]Enabled": True,
        "[IPv6/Manual]Addresses": [],
        "[IPv6/Stateful]UseAddress": True,
        MTU: 1500,
        "[TrafficShaping]AvgRateLimit": 80000,
        "[IPTables/Allow]UdpSourcePorts": [[6700, 8000]],
        "[Webserver/HTTPS]Certificate": None,
        "[NIC/eth0/AutoNegotiated]LinkSpeed": 100,
    }
    assert camera.api_get_text(compact({"settings": list(defaults)})) == answer(
        success=True, **defaults
    )


# Setting


def test_settings_of_one_request_are_saved_and_applied_together(served: Camera) -> None:
    outcome = set_settings(served, {MTU: 1400, ADDRESS: "10.0.0.6", "[IPv4/Manual]Netmask": 16})
    assert outcome.response == SUCCESS
    assert [line for line in outcome.log if line.startswith("<6>apply")] == [
        APPLYING_IPV4,
        SETTING_MTU,
    ]
    assert ipv4_of_kernel(served) == [labelled("10.0.0.6/16")]
    assert stored(served) == {
        **STORED_BY_START,
        "IPv4.Manual.Address": "10.0.0.6",
        "IPv4.Manual.Netmask": 16,
        "NIC.eth0.MTU": 1400,
    }


def test_a_set_request_without_settings_succeeds(served: Camera) -> None:
    assert set_settings(served, "{}") == Outcome(SUCCESS, [], [])


def test_unchanged_values_save_nothing_and_apply_flags_0(make_camera: MakeCamera) -> None:
    camera = make_camera(variables={"vesko_ipv4_dhcp_enable": "0"})
    assert start(camera, QUARN_LOG_LEVEL="debug") == ["READY=1"]
    camera.api_set({MTU: 1400, "[NTP]Enabled": False})
    before = stored(camera)
    outcome = set_settings(camera, {MTU: 1400, "[NTP]Enabled": False})
    assert outcome == Outcome(
        SUCCESS,
        [],
        [
            f"<7>api_set:LINE: Saving setting '{MTU}'",
            f"<7>save_or_hold_setting:LINE: The setting {MTU} is not being changed",
            f"<7>api_set:LINE: {MTU} was not changed.  Will not reapply.",
            "<7>api_set:LINE: Saving setting '[NTP]Enabled'",
            "<7>save_or_hold_setting:LINE: The setting [NTP]Enabled is not being changed",
            "<7>api_set:LINE: [NTP]Enabled was not changed.  Will not reapply.",
            "<7>apply_settings:LINE: Apply Flags: 0x00000000 (restart=1)",
            NO_ADDRESS_LOG,
            "<7>api_set:LINE: Finished with SET command",
        ],
    )
    assert stored(camera) == before


def test_one_invalid_value_saves_nothing_of_the_request(served: Camera) -> None:
    before = stored(served), served.bootenv.content()
    request = {
        MTU: 1400,
        ADDRESS: "10.0.0.6",
        "[IPv6/Stateful]UseAddress": 1,
        "[IPv6]Enabled": False,
    }
    fault = error(3, "Value wasn't a boolean", "[IPv6/Stateful]UseAddress")
    assert set_settings(served, request) == refusal(request, fault)
    assert (stored(served), served.bootenv.content()) == before
    assert served.get(MTU) == 1500


def test_all_faults_of_a_request_are_reported_at_once_in_its_order(served: Camera) -> None:
    request = {
        "[IPv6]Enabled": "yes",
        "[No]Such": 1,
        MTU: 9,
        ADDRESS: "x",
        "[TrafficShaping]Bulk/Rate": True,
        "[Webserver/HTTPS]Certificate": "/",
        "[Webserver/HTTPS]Authority": 7,
    }
    faults = [
        error(3, "Value wasn't a boolean", "[IPv6]Enabled"),
        error(7, UNKNOWN, "[No]Such"),
        error(4, "Invalid MTU (9) (must be 1200 to 1500)", MTU),
        error(3, "String 'x' wasn't a valid IPv4 address", ADDRESS),
        error(3, "Value wasn't a number", "[TrafficShaping]Bulk/Rate"),
        error(4, "Not a file", "[Webserver/HTTPS]Certificate"),
        error(3, "Value isn't a string", "[Webserver/HTTPS]Authority"),
    ]
    assert set_settings(served, request) == refusal(request, *faults)


def test_an_unknown_setting_is_reported_and_the_others_are_saved(served: Camera) -> None:
    request = {"[No]Such": 1, MTU: 1400, "": 2, "[nic/eth0]mtu": 3}
    unknown = ["[No]Such", "", "[nic/eth0]mtu"]
    assert set_settings(served, request) == Outcome(
        answer(*(error(7, UNKNOWN, key) for key in unknown), success=True),
        done("/sbin/ip link set eth0 mtu 1400"),
        [*(error_log(7, UNKNOWN, key) for key in unknown), SETTING_MTU],
    )
    assert served.get(MTU) == 1400


def test_an_unknown_setting_does_not_excuse_an_invalid_one(served: Camera) -> None:
    request = {"[No]Such": 1, "[NTP]Enabled": None}
    faults = [error(7, UNKNOWN, "[No]Such"), error(3, "Value wasn't a boolean", "[NTP]Enabled")]
    assert set_settings(served, request) == refusal(request, *faults)


def test_a_read_only_setting_refuses_the_request_with_its_log_lines(served: Camera) -> None:
    for key in ("[IPv4/Actual]Address", "[NIC/eth0]MAC", "[IPv4]Enabled"):
        request = {MTU: 1400, key: None}
        lines = [
            f"<4>verify_settings: No validate action performed for {key}",
            f"<4>verify_settings: No save function defined for {key}. Failing validation",
        ]
        assert set_settings(served, request) == refusal(request, log=lines)
    assert served.get(MTU) == 1500


def test_a_setting_without_a_verifier_refuses_the_request_though_it_has_a_saver(
    served: Camera,
) -> None:
    key = "[NIC/eth0]SupportedModes"
    before = served.get(key)
    request: dict[str, Any] = {MTU: 1400, key: {}}
    line = f"<4>verify_settings: No validate action performed for {key}"
    assert set_settings(served, request) == refusal(request, log=[line])
    assert (served.get(MTU), served.get(key)) == (1500, before)


def test_the_group_checks_run_although_a_row_has_failed(served: Camera) -> None:
    request = {
        "[NIC/eth0]MAC": "x",
        "[IPv6/Stateful]Enabled": True,
        "[IPv6/Stateless]AcceptRA": False,
    }
    faults = [
        error(13, "Stateless configuration requires accepting RA", "[IPv6/Stateful]Enabled"),
        error(
            13,
            "Accepting RA is required to support stateless configuration",
            "[IPv6/Stateless]AcceptRA",
        ),
    ]
    lines = [
        "<4>verify_settings: No validate action performed for [NIC/eth0]MAC",
        "<4>verify_settings: No save function defined for [NIC/eth0]MAC. Failing validation",
        *(error_log(13, fault["msg"], fault["key"]) for fault in faults),
    ]
    assert set_settings(served, request) == refusal(request, *faults, log=lines)


# Holding the settings back


def test_what_is_set_while_apply_is_false_is_saved_and_not_applied(served: Camera) -> None:
    request = {APPLY: False, MTU: 1400, ADDRESS: "10.0.0.6"}
    assert set_settings(served, request) == Outcome(SUCCESS, [], [NOT_APPLYING])
    assert set_settings(served, {MTU: 1300}) == Outcome(SUCCESS, [], [NOT_APPLYING])
    assert ipv4_of_kernel(served) == [labelled("10.0.0.5/24")]
    assert served.link()["mtu"] == 1500
    assert stored(served) == {
        **STORED_BY_START,
        "IPv4.Manual.Address": "10.0.0.6",
        "NIC.eth0.MTU": 1300,
    }
    assert served.get(APPLY) is False


def test_a_request_that_sets_apply_to_true_is_applied_with_its_own_flags_alone(
    served: Camera,
) -> None:
    set_settings(served, {APPLY: False, ADDRESS: "10.0.0.6"})
    assert set_settings(served, {MTU: 1400, APPLY: True}) == Outcome(
        SUCCESS, done("/sbin/ip link set eth0 mtu 1400"), [SETTING_MTU]
    )
    assert ipv4_of_kernel(served) == [labelled("10.0.0.5/24")]


def test_a_restart_ends_the_holding_back_and_applies_what_was_saved(served: Camera) -> None:
    set_settings(served, {APPLY: False, ADDRESS: "10.0.0.6"})
    assert served.stop_daemon() == 0
    assert start(served) == ["READY=1"]
    assert served.get(APPLY) is True
    assert ipv4_of_kernel(served) == [labelled("10.0.0.6/24")]


def test_refused_requests_too_say_that_nothing_is_applied(served: Camera) -> None:
    set_settings(served, {APPLY: False})
    outcome = set_settings(served, {MTU: 9})
    refused = refusal({MTU: 9}, error(4, "Invalid MTU (9) (must be 1200 to 1500)", MTU))
    assert outcome == refused._replace(log=[*refused.log, NOT_APPLYING])
    assert set_settings(served, "[]").log[1:] == [NO_REQUEST, NOT_APPLYING]


def test_a_value_that_holds_back_must_be_a_boolean(served: Camera) -> None:
    request = {APPLY: 0, MTU: 1400}
    assert set_settings(served, request) == refusal(
        request, error(3, "Value wasn't a boolean", APPLY)
    )
    assert served.get(APPLY) is True


def test_a_step_that_fails_is_an_error_and_the_values_stay_saved(served: Camera) -> None:
    served.rule("/sbin/ip link set eth0 mtu *", status=1)
    outcome = set_settings(served, {MTU: 1400})
    assert outcome.response == (
        '{"success":true,"errors":[{"code":1,"msg":"There was an error in applying the settings"}]}'
    )
    assert outcome.log[-1] == error_log(1, APPLY_ERROR_TEXT)
    assert served.get(MTU) == 1400
