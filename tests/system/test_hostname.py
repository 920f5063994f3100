"""The camera's host name: where it comes from, and where it goes to."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest
from expectations import (
    APPLY_ERROR,
    HOSTNAME,
    MANUAL_IPV4,
    SUCCESS,
    Outcome,
    answer,
    compact,
    console,
    error,
    error_log,
    masked,
    refusal,
    set_settings,
    start,
)
from service_cameras import link_at, started
from stored_settings import plant, stored

from camlab import Camera, Command

MakeCamera = Callable[..., Camera]

NAME, DOMAIN = "[Hostname]Name", "[Hostname]Domain"
DEVICE_INFORMATION = "/etc/quarn/device-information.conf"
APPLYING = "<6>apply_settings: Setting hostname"
COMMAND = HOSTNAME[0].text


def writing(name: str) -> list[str]:
    return [
        f"<6>quarn_write_hostname: Writing hostname '{name}' to /etc/hostname",
        *console(f"Hostname set to {name}", "quarn_write_hostname"),
    ]


def names(camera: Camera) -> dict[str, Any]:
    """The name at every place where it stands."""
    assert link_at(camera, "/etc/hostname") == "/tmp/.quarn/hostname"
    return {
        "setting": camera.get(NAME),
        "store": stored(camera).get("Hostname.Name"),
        "boot environment": camera.bootenv.get("vesko_hostname"),
        "file": camera.read_file("/etc/hostname"),
        "kernel": camera.run(["uname", "-n"], check=True).stdout,
    }


def everywhere(name: str) -> dict[str, Any]:
    return {
        "setting": name,
        "store": name,
        "boot environment": name,
        "file": f"{name}\n# hostname set by quarn\n",
        "kernel": f"{name}\n",
    }


# The tool does not take every name: that is told, and nothing more.
REFUSED = ["ERRNO=5", "READY=1"]


def start_logged(camera: Camera, messages: list[str] | None = None) -> list[str]:
    """Start the daemon; return what it logged of its default name."""
    assert start(camera) == (messages or ["READY=1"])
    lines = masked(camera.log_lines())
    return [line for line in lines if line.startswith("<4>construct_default_hostname: ")]


# The default

NO_TARGETS = "<4>construct_default_hostname: Couldn't get device_information targets"
NO_MODEL = "<4>construct_default_hostname: no ModelName available; using Corvy"
NO_SERIAL = "<4>construct_default_hostname: no SerialNumber available; using 0000000"
NO_INFORMATION = "<4>construct_default_hostname: Couldn't get device_information static information"


@pytest.mark.quiet
@pytest.mark.parametrize(
    ("text", "name", "log"),
    [
        (None, "Corvy-0000000", [NO_TARGETS, NO_MODEL, NO_SERIAL]),
        ("", "Corvy-0000000", [NO_MODEL, NO_SERIAL]),
        ("[device_information]\nModelName=V70\nSerialNumber=0012345\n", "V70-0012345", []),
        ("[device_information]\nModelName=V70\n", "V70-0000000", [NO_SERIAL]),
        ("[device_information]\nSerialNumber=0012345\n", "Corvy-0012345", [NO_MODEL]),
        ("[device_information]\nModelName=\nSerialNumber=1\n", "Corvy-1", [NO_MODEL]),
        ("[device_information]\nModelName=V\\n70\nSerialNumber=1\n", "Corvy-1", [NO_MODEL]),
        ("[device_information]\nModelName=\x1b[2J\nSerialNumber=1\n", "Corvy-1", [NO_MODEL]),
        ("[other]\nModelName=V70\nSerialNumber=1\n", "Corvy-0000000", [NO_MODEL, NO_SERIAL]),
        ("ModelName=V70\nnothing\n", "Corvy-0000000", [NO_MODEL, NO_SERIAL]),
    ],
)
def test_the_default_name_is_made_of_what_the_device_tells(
    make_camera: MakeCamera, text: str | None, name: str, log: list[str]
) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    camera.files.remove(DEVICE_INFORMATION)
    if text is not None:
        camera.write_file(DEVICE_INFORMATION, text)
    assert start_logged(camera) == log
    assert names(camera) == everywhere(name)


@pytest.mark.quiet
def test_device_information_that_cannot_be_read_leaves_the_fallbacks(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    camera.files.make_folder(DEVICE_INFORMATION)
    assert start_logged(camera) == [NO_INFORMATION, NO_MODEL, NO_SERIAL]
    assert names(camera) == everywhere("Corvy-0000000")


@pytest.mark.quiet
def test_a_model_name_that_is_no_host_name_is_used_unchanged_and_the_kernel_keeps_its_own(
    make_camera: MakeCamera,
) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    text = "[device_information]\nModelName=Dome 4K_$(reboot)\nSerialNumber=0012345\n"
    camera.write_file(DEVICE_INFORMATION, text)
    assert start_logged(camera, REFUSED) == []
    assert names(camera) == {
        **everywhere("Dome 4K_$(reboot)-0012345"),
        "kernel": "camera\n",
    }
    [command] = [each for each in camera.commands() if each.text == COMMAND]
    assert command.status == 1
    assert f"<3>run_hostname_command: Call to '{COMMAND}' had rc=1" in camera.log_lines()


@pytest.mark.quiet
@pytest.mark.parametrize("name", ["cam01", ""])
def test_a_stored_name_is_not_overwritten_by_the_default(
    make_camera: MakeCamera, name: str
) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    plant(camera, {"Hostname.Name": compact(name)})
    assert start_logged(camera, None if name else REFUSED) == []
    assert (camera.get(NAME), stored(camera)["Hostname.Name"]) == (name, name)
    assert camera.read_file("/etc/hostname") == f"{name}\n# hostname set by quarn\n"


@pytest.mark.quiet
def test_a_stored_null_makes_way_for_the_default(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    plant(camera, {"Hostname.Name": "null"})
    assert start_logged(camera) == [NO_TARGETS, NO_MODEL, NO_SERIAL]
    assert names(camera) == everywhere("Corvy-0000000")


@pytest.mark.quiet
def test_a_new_store_takes_the_name_of_the_boot_environment(make_camera: MakeCamera) -> None:
    camera = make_camera(variables={**MANUAL_IPV4, "vesko_hostname": "cam02"})
    assert start_logged(camera) == []
    assert names(camera) == {**everywhere("cam02"), "store": None}


# A name that is set


@pytest.mark.quiet
def test_a_name_that_is_set_reaches_store_boot_environment_file_and_kernel(
    make_camera: MakeCamera,
) -> None:
    camera = started(make_camera)
    assert set_settings(camera, {NAME: "cam01"}) == Outcome(
        SUCCESS, HOSTNAME, [APPLYING, *writing("cam01")]
    )
    assert names(camera) == everywhere("cam01")
    camera.reboot()
    assert start_logged(camera) == []
    assert names(camera) == everywhere("cam01")


@pytest.mark.quiet
def test_a_domain_is_not_part_of_the_host_name_file(make_camera: MakeCamera) -> None:
    camera = started(make_camera)
    assert set_settings(camera, {DOMAIN: "lab.example.net"}).commands == []
    assert names(camera) == everywhere("Corvy-0000000")


@pytest.mark.quiet
@pytest.mark.parametrize("key", [NAME, DOMAIN])
@pytest.mark.parametrize(
    ("value", "message"),
    [
        (None, "Hostname value was NULL"),
        (7, "Value wasn't a string"),
        (["cam01"], "Value wasn't a string"),
        ("", "Value wasn't a valid hostname"),
        ("cam 01", "Value wasn't a valid hostname"),
        ("cam01\nreboot", "Value wasn't a valid hostname"),
        ("cam01\n", "Value wasn't a valid hostname"),
        ("$(reboot)", "Value wasn't a valid hostname"),
        ("192.0.2.1", "Value wasn't a valid hostname"),
        ("h" * 64, "Value wasn't a valid hostname"),
    ],
)
def test_what_is_no_name_is_refused(
    make_camera: MakeCamera, key: str, value: Any, message: str
) -> None:
    camera = started(make_camera)
    outcome = set_settings(camera, {key: value})
    assert outcome == refusal({key: value}, error(3, message, key))
    assert names(camera) == everywhere("Corvy-0000000")


@pytest.mark.quiet
def test_a_name_that_the_tool_refuses_is_an_error_of_a_request_that_succeeds(
    make_camera: MakeCamera,
) -> None:
    camera = started(make_camera)
    outcome = set_settings(camera, {NAME: "cam_01"})
    own_log = [line for line in outcome.log if line.startswith(("<", "QUARN"))]
    assert outcome.response == answer(APPLY_ERROR, success=True)
    assert outcome.commands == [Command(COMMAND, 1)]
    assert own_log == [
        APPLYING,
        *writing("cam_01"),
        f"<3>run_hostname_command: Call to '{COMMAND}' had rc=1",
        error_log(1, "There was an error in applying the settings"),
    ]
    assert names(camera) == {**everywhere("cam_01"), "kernel": "Corvy-0000000\n"}


@pytest.mark.quiet
def test_a_missing_tool_costs_the_kernels_name_only(make_camera: MakeCamera) -> None:
    camera = started(make_camera)
    camera.files.remove("/bin/hostname")
    outcome = set_settings(camera, {NAME: "cam01"})
    assert outcome.response == answer(APPLY_ERROR, success=True)
    assert outcome.commands == [Command(COMMAND, 127)]
    assert f"<3>run_hostname_command: Call to '{COMMAND}' had rc=127" in outcome.log
    assert names(camera) == {**everywhere("cam01"), "kernel": "Corvy-0000000\n"}


# What a store that went bad holds


@pytest.mark.quiet
@pytest.mark.parametrize(
    ("value", "more_log"),
    [
        ('"cam01\\nreboot"', []),
        ('"\\u001b[2J"', []),
        ("7", ["<3>get_string: [Hostname]Name value is not a JSON string or NULL"]),
        ('["cam01"]', ["<3>get_string: [Hostname]Name value is not a JSON string or NULL"]),
    ],
)
def test_a_stored_name_that_is_none_leaves_file_and_kernel_as_they_are(
    make_camera: MakeCamera, value: str, more_log: list[str]
) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    plant(camera, {"Hostname.Name": value})
    assert start_logged(camera) == []
    log = masked(camera.log_lines())
    first = log.index(APPLYING)
    no_name = "<2>quarn_write_hostname:LINE: Could not create or get hostname"
    assert log[first + 1 : first + 2 + len(more_log)] == [*more_log, no_name]
    assert camera.read_file("/etc/hostname") == "camera\n"
    assert camera.run(["uname", "-n"], check=True).stdout == "camera\n"


# From the LAN


def test_the_name_goes_out_with_the_request_for_a_lease(make_camera: MakeCamera) -> None:
    camera = make_camera(variables={"vesko_hostname": "cam01"})
    camera.lan.own("10.1.2.1")
    server = camera.lan.start(
        [
            *("dnsmasq", "--keep-in-foreground", "--log-facility=-", "--conf-file=/dev/null"),
            *("--no-resolv", "--no-hosts", "--user=root", "--pid-file=", "--port=0"),
            *("--dhcp-range=10.1.2.50,10.1.2.50", "--dhcp-leasefile=/tmp/leases"),
        ]
    )
    camera.wait_until(lambda: "started, version" in server.stderr, "the DHCP server runs")
    camera.rule("/usr/sbin/arping *", status=0)
    assert start(camera) == ["READY=1"]
    camera.wait_until(lambda: "DHCPACK(lan0)" in server.stderr, "the camera has its lease")
    assert "DHCPACK(lan0) 10.1.2.50 00:00:5e:00:53:01 cam01\n" in server.stderr
