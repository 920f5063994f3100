"""The documents' examples, called as printed, and their lists against the sources."""

from __future__ import annotations

import re
from collections.abc import Callable

import pytest
from expectations import MANUAL_ADDRESS, start_manual, start_with_free_addresses
from quarnctl_runs import make_state_folder

from camlab import Camera
from camlab.programs import CHECKOUT

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

DOCUMENT = (CHECKOUT / "docs" / "bus.md").read_text()
README = (CHECKOUT / "README.md").read_text()
# What a DHCP client reports for the README's camera.
LEASE = {
    "[IPv4/DHCP]Address": "192.168.0.100",
    "[IPv4/DHCP]Netmask": 24,
    "[IPv4/DHCP]Gateways": ["192.168.0.1"],
    "[DNS/IPv4/DHCP]Servers": ["192.168.0.53"],
    "[NTP/IPv4/DHCP]Servers": ["192.168.0.123"],
}


def examples() -> list[tuple[str, str, str]]:
    """Each example's call, request and answer."""
    found = re.findall(r"^ +(api_get|api_set) ([{\[].*)\n +(\{.*)$", DOCUMENT, re.MULTILINE)
    return [(call, request, answer) for call, request, answer in found]


def test_every_example_is_answered_as_printed(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    assert MANUAL_ADDRESS in DOCUMENT
    answered = []
    for call, request, _ in examples():
        ask = camera.api_get_text if call == "api_get" else camera.api_set_text
        answered.append((call, request, ask(request)))
    assert len(answered) == len(re.findall(r"^ +api_[gs]et [{\[]", DOCUMENT, re.MULTILINE)) == 10
    assert answered == examples()


def terminal_session(camera: Camera, text: str) -> str:
    """Run each line that begins with a dollar sign; return the lines as a terminal shows them."""
    shown = []
    for command in re.findall(r"^    \$ (.+)$", text, re.MULTILINE):
        done = camera.run(["sh", "-c", command])
        shown += ["", f"    $ {command}"]
        shown += [f"    {line}" for line in (done.stdout + done.stderr).splitlines()]
    return "\n".join(shown[1:])


def test_the_readmes_session_is_what_a_terminal_shows(camera: Camera) -> None:
    start_with_free_addresses(camera)
    assert camera.api_set(LEASE) == {"success": True, "errors": []}
    session = terminal_session(camera, README)
    assert session.startswith("    $ quarnctl status\n    link ")
    assert session in README


def test_the_manual_pages_examples_work(camera: Camera) -> None:
    text = (CHECKOUT / "docs" / "man" / "quarnctl.1.scd").read_text()
    blocks = re.findall(r"^```\n(.+?)^```", text, re.MULTILINE | re.DOTALL)
    commands = "".join(blocks).splitlines()
    assert len(commands) == 5
    make_state_folder(camera)
    start_with_free_addresses(camera)
    camera.start(["quarnctl", "guard", "--stay"])
    for command in commands:
        # There is no other camera here, nor a way to it: this one is asked in its place.
        here = command.replace("-H admin@porch ", "")
        done = camera.run(["sh", "-c", f"cd /tmp && {here}"], timeout=60)
        assert (command, done.returncode, done.stderr) == (command, 0, "")
    assert camera.addresses(4) == ["192.168.0.90/24"]
    assert 8080 in camera.get("[IPTables/Allow]TcpDestPorts")


def busctl_calls(text: str) -> list[str]:
    """The busctl calls of a document, their lines joined."""
    joined = text.replace("\\\n", " ")
    return re.findall(r"^    (busctl (?:call|monitor) .*)$", joined, re.MULTILINE)


@pytest.mark.parametrize("document, calls", [("README.md", 2), ("docs/bus.md", 1)])
def test_every_busctl_call_of_a_document_works(camera: Camera, document: str, calls: int) -> None:
    start_with_free_addresses(camera)
    commands = busctl_calls((CHECKOUT / document).read_text())
    for command in commands[:-1]:
        done = camera.run(["sh", "-c", command])
        assert (done.returncode, done.stderr) == (0, "")
        assert done.stdout.startswith('s "{\\"success\\":true,\\"errors\\":[]')
    assert len(commands) == calls + 1
    with camera.start(["sh", "-c", f"exec {commands[-1]}"]) as monitor:
        camera.wait_until(lambda: "Monitoring bus" in monitor.stderr, "busctl monitors")
        assert camera.api_set({"[NIC/eth0]MTU": 1404})["success"] is True
        camera.wait_until(lambda: "INT32 1404;" in monitor.stdout, "the change is heard")


def test_every_error_code_has_its_row() -> None:
    header = (CHECKOUT / "src" / "api" / "json_response.h").read_text()
    codes = [int(code) for code in re.findall(r"constexpr int ERROR_\w+ = (\d+);", header)]
    rows = [int(code) for code in re.findall(r"^\| (\d+) \|", DOCUMENT, re.MULTILINE)]
    assert rows == codes


def test_every_signal_has_its_row_and_its_introspection() -> None:
    rows = re.findall(r"^\| `(\w+)` \| (string|int32) \|", DOCUMENT, re.MULTILINE)
    description = (CHECKOUT / "packaging" / "com.vesko.networkingV2.xml").read_text()
    types = {"s": "string", "i": "int32"}
    found = re.findall(r'<signal name="(\w+)">\s*<arg type="(\w)"', description)
    assert rows == [(name, types[kind]) for name, kind in found]


def test_every_key_that_a_document_names_is_a_setting() -> None:
    table = (CHECKOUT / "src" / "settings" / "setting_table.cpp").read_text()
    settings = set(re.findall(r'^    \{"(\[[^"]+)"', table, re.MULTILINE))
    assert len(settings) == 98
    for document in (CHECKOUT / "docs").glob("*.md"):
        named = set(re.findall(r"`(\[[A-Z]\S+?\][A-Z]\S*?)`", document.read_text()))
        assert named - settings == set(), document.name
