"""Request texts that are wrong, huge or hostile: each is answered, and nothing comes of it."""

from __future__ import annotations

import json
from collections.abc import Callable

import pytest
from expectations import (
    SETTING_MTU,
    SUCCESS,
    Outcome,
    answer,
    compact,
    done,
    error,
    error_log,
    set_settings,
    start,
)
from stored_settings import STORED_BY_START, stored

from camlab import BusError, Camera
from camlab.bus import NAME, PATH

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

MTU = "[NIC/eth0]MTU"
NO_REQUEST = "<3>api_set: Null request object on SET call"
DID_NOT_PARSE = "The provided JSON didn't parse"
NO_OBJECT = "The provided JSON was not an object"
NO_ARRAY = "The provided JSON did not have a setting array"
NO_TEXT_KEY = "One of the setting keys was not a string"
UNKNOWN = "Could not set unknown setting"

NOT_JSON = {
    "nothing": "",
    "blanks": "  \n",
    "a word": "settings",
    "an open object": '{"[NIC/eth0]MTU":1400',
    "an open text": '{"[NIC/eth0]MTU":"1400}',
    "a missing value": '{"[NIC/eth0]MTU":}',
    "a closing comma": '{"[NIC/eth0]MTU":1400,}',
    "a key without quotes": "{MTU:1400}",
    "single quotes": "{'[NIC/eth0]MTU':1400}",
    "two objects": '{"[NIC/eth0]MTU":1400}{"[NIC/eth0]MTU":1300}',
    "an object and a word": '{"[NIC/eth0]MTU":1400} reboot',
    "half of a surrogate pair": r'{"\ud83d":1}',
    "a NUL escape in a value": r'{"[NIC/eth0]MTU":"\u0000"}',
    "a NUL escape in a key": r'{"[NIC/eth0]MTU\u0000x":1400}',
    "1,001 levels": "[" * 1001 + "]" * 1001,
    "100,000 open levels": '{"a":' * 100000,
}
NO_OBJECTS = ["[]", '"text"', "7", "true", "null", '[{"[NIC/eth0]MTU":1400}]']
MEGABYTE = 1 << 20

SEND_NO_UTF_8 = f"""
from jeepney import DBusAddress, new_method_call
from jeepney.io.blocking import open_dbus_connection
bus = open_dbus_connection("SYSTEM")
daemon = DBusAddress({PATH!r}, {NAME!r}, {NAME!r})
text = '{{"[NIC/eth0]MTU":"XX"}}'
call = new_method_call(daemon, "api_set", "s", (text,)).serialise(7)
bus.sock.sendall(call.replace(b"XX", bytes([0xFF, 0xFE])))
while bus.sock.recv(4096):
    pass
print("the end")
"""


@pytest.fixture
def served(make_camera: MakeCamera) -> Camera:
    """Return a camera with something stored and nothing to probe."""
    camera = make_camera(variables={"vesko_ipv4_dhcp_enable": "0"})
    assert start(camera) == ["READY=1"]
    assert camera.api_set({"[IPv4/Manual]Address": "10.0.0.5"})["success"]
    return camera


def assert_unharmed(camera: Camera) -> None:
    """Nothing was saved, no command ran, and the next caller is served."""
    assert camera.commands() == []
    assert stored(camera) == {**STORED_BY_START, "IPv4.Manual.Address": "10.0.0.5"}
    assert camera.api_get_text(compact({"settings": [MTU]})) == answer(success=True, **{MTU: 1500})
    assert set_settings(camera, {MTU: 1400}) == Outcome(
        SUCCESS, done("/sbin/ip link set eth0 mtu 1400"), [SETTING_MTU]
    )


# Texts that are no request


def get_refused(camera: Camera, text: str, message: str) -> None:
    """A get request is refused for its form, with nothing but one line in the log."""
    logged = len(camera.log_lines())
    camera.clear_commands()
    assert camera.api_get_text(text) == answer(error(2, message))
    assert camera.log_lines()[logged:] == [error_log(2, message)]
    assert camera.commands() == []


def test_a_set_request_that_is_not_json_is_refused(served: Camera) -> None:
    refused = Outcome(
        answer(error(2, DID_NOT_PARSE)), [], [error_log(2, DID_NOT_PARSE), NO_REQUEST]
    )
    outcomes = {name: set_settings(served, text) for name, text in NOT_JSON.items()}
    assert outcomes == dict.fromkeys(NOT_JSON, refused)
    assert_unharmed(served)


def test_a_get_request_that_is_not_json_is_refused(served: Camera) -> None:
    for text in NOT_JSON.values():
        get_refused(served, text, DID_NOT_PARSE)
    assert_unharmed(served)


def test_a_request_that_is_not_an_object_is_refused(served: Camera) -> None:
    for text in NO_OBJECTS:
        assert set_settings(served, text) == Outcome(
            answer(error(2, NO_OBJECT)), [], [error_log(2, NO_OBJECT), NO_REQUEST]
        )
        get_refused(served, text, NO_OBJECT)
    assert_unharmed(served)


def test_a_get_request_needs_a_list_of_texts(served: Camera) -> None:
    for text, message in {
        "{}": NO_ARRAY,
        '{"Settings":["[NIC/eth0]MTU"]}': NO_ARRAY,
        '{"settings":"[NIC/eth0]MTU"}': NO_ARRAY,
        '{"settings":{"0":"[NIC/eth0]MTU"}}': NO_ARRAY,
        '{"settings":null}': NO_ARRAY,
        '{"settings":["[NIC/eth0]MTU",7]}': NO_TEXT_KEY,
        '{"settings":[null]}': NO_TEXT_KEY,
        '{"settings":[["[NIC/eth0]MTU"]]}': NO_TEXT_KEY,
    }.items():
        get_refused(served, text, message)
    assert_unharmed(served)


def test_a_text_that_is_not_utf_8_does_not_pass_the_bus(served: Camera) -> None:
    served.clear_commands()
    with pytest.raises(UnicodeEncodeError):
        served.api_set_text("\udcff")
    # The bus itself ends the connection of whoever sends such a text.
    done_ = served.run(["/usr/bin/python3", "-c", SEND_NO_UTF_8], timeout=30)
    assert (done_.returncode, done_.stdout, done_.stderr) == (0, "the end\n", "")
    assert_unharmed(served)


# Odd requests


def test_members_that_stand_twice_are_saved_in_their_order(served: Camera) -> None:
    text = '{"[NIC/eth0]MTU":1300,"[NIC/eth0]MTU":1400}'
    assert set_settings(served, text).response == SUCCESS
    assert served.get(MTU) == 1400
    assert served.link()["mtu"] == 1400


def test_of_members_that_stand_twice_an_invalid_one_refuses_both(served: Camera) -> None:
    for text in (
        '{"[NIC/eth0]MTU":9,"[NIC/eth0]MTU":1400}',
        '{"[NIC/eth0]MTU":1400,"[NIC/eth0]MTU":9}',
    ):
        fault = error(4, "Invalid MTU (9) (must be 1200 to 1500)", MTU)
        outcome = set_settings(served, text)
        assert (outcome.response, outcome.commands) == (answer(fault), [])
    assert_unharmed(served)


def test_the_last_of_a_repeated_member_counts_in_the_comparison(served: Camera) -> None:
    text = (
        '{"[IPv6/Stateless]AcceptRA":true,"[IPv6/Stateful]Enabled":true,'
        '"[IPv6/Stateless]AcceptRA":false}'
    )
    faults = [
        error(13, "Stateless configuration requires accepting RA", "[IPv6/Stateful]Enabled"),
        error(
            13,
            "Accepting RA is required to support stateless configuration",
            "[IPv6/Stateless]AcceptRA",
        ),
    ]
    assert set_settings(served, text).response == answer(*faults)
    assert_unharmed(served)


def test_an_empty_name_is_an_unknown_setting(served: Camera) -> None:
    assert set_settings(served, '{"":null,"":1}') == Outcome(
        answer(error(7, UNKNOWN, ""), success=True), [], [error_log(7, UNKNOWN, "")] * 2
    )
    assert_unharmed(served)


def test_a_character_that_the_bus_refuses_is_answered_as_an_escape(served: Camera) -> None:
    for escape in (r"\uffff", r"\ufffe", r"\ufdd0", r"\ud83f\udfff"):
        text = f'{{"[No]{escape}":1,"[IPv4/Manual]Address":"{escape}"}}'
        response = set_settings(served, text).response
        assert response == (
            '{"success":false,"errors":['
            f'{{"key":"[No]{escape}","code":7,"msg":"Could not set unknown setting"}},'
            '{"key":"[IPv4/Manual]Address","code":3,'
            f'"msg":"String \'{escape}\' wasn\'t a valid IPv4 address"}}]}}'
        )
        key = json.loads(f'"[No]{escape}"')
        get = served.api_get([key])
        assert get == {"success": True, "errors": [error(7, "Unknown key", key)]}
    assert_unharmed(served)


def test_text_in_any_script_comes_back_as_it_was(served: Camera) -> None:
    name = 'カメラ "é" 🎥 \\ /'
    response = set_settings(served, compact({name: 1})).response
    assert response == answer(error(7, UNKNOWN, name), success=True)
    assert_unharmed(served)


def test_control_bytes_of_a_request_forge_no_log_line(served: Camera) -> None:
    logged = len(served.log_lines())
    served.clear_commands()
    served.api_set_text('{"[No]a\\n<2>forged":1,\r\n"[No]\\u001b[2J":2}')
    assert served.log_lines()[logged:] == [
        '<5>api_set: API call: SET.  Data: {"[No]a\\n<2>forged":1,\\x0d\\x0a"[No]\\u001b[2J":2}',
        "<5>json_response_add_error: For setting '[No]a\\x0a<2>forged', "
        "adding error 7 to JSON response Could not set unknown setting",
        "<5>json_response_add_error: For setting '[No]\\x1b[2J', "
        "adding error 7 to JSON response Could not set unknown setting",
    ]
    assert_unharmed(served)


# Huge requests


def test_a_megabyte_of_text_is_refused_where_an_address_belongs(served: Camera) -> None:
    address = "1" * MEGABYTE
    fault = error(3, f"String '{address}' wasn't a valid IPv4 address", "[IPv4/Manual]Address")
    assert set_settings(served, {"[IPv4/Manual]Address": address}).response == answer(fault)
    assert_unharmed(served)


def test_a_megabyte_of_key_is_an_unknown_setting(served: Camera) -> None:
    key = "[" + "k" * MEGABYTE
    response = set_settings(served, {key: 1}).response
    assert response == answer(error(7, UNKNOWN, key), success=True)
    assert_unharmed(served)


def test_a_megabyte_that_is_not_json_is_refused(served: Camera) -> None:
    assert set_settings(served, "x" * MEGABYTE).response == answer(error(2, DID_NOT_PARSE))
    assert_unharmed(served)


def test_a_thousand_levels_are_no_value_of_a_setting(served: Camera) -> None:
    text = '{"[NTP]Enabled":' + "[" * 999 + "]" * 999 + "}"
    fault = error(3, "Value wasn't a boolean", "[NTP]Enabled")
    assert set_settings(served, text).response == answer(fault)
    assert_unharmed(served)


def test_ten_thousand_unknown_settings_are_all_reported(served: Camera) -> None:
    keys = [f"[No]Key{number}" for number in range(10000)]
    expected = answer(*(error(7, UNKNOWN, key) for key in keys), success=True)
    assert set_settings(served, dict.fromkeys(keys, 1)).response == expected
    assert_unharmed(served)


# Calls that are none


def test_a_call_without_a_text_is_an_error_of_the_bus(served: Camera) -> None:
    served.clear_commands()
    wrong: list[list[str]] = [[], ["u", "7"], ["as", "1", "x"]]
    for arguments in wrong:
        call = ["busctl", "call", NAME, PATH, NAME, "api_set", *arguments]
        assert served.run(call).returncode == 1
    with pytest.raises(BusError) as refusal:
        served.client.call_text("api_reset", "{}")
    assert refusal.value.name == "org.freedesktop.DBus.Error.UnknownMethod"
    assert_unharmed(served)
