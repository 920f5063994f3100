"""Cameras for the tests of the files that services read."""

from __future__ import annotations

from collections.abc import Callable, Iterator, Mapping, Sequence
from typing import Any

from expectations import MANUAL_IPV4, SUCCESS, compact, start
from stored_settings import plant

from camlab import Camera

ADDRESS_SWITCHES = ("[IPv6]Enabled", "[IPv4/DHCP]Enabled", "[IPv6/Stateful]Enabled")


def started(make_camera: Callable[..., Camera]) -> Camera:
    """Return a camera with the address 192.0.2.10/24 whose daemon is ready."""
    camera = make_camera(variables=MANUAL_IPV4)
    assert start(camera) == ["READY=1"]
    return camera


def start_with_ipv4(camera: Camera, enabled: bool) -> None:
    """Start the daemon with or without IPv4, which only the store can say, and without its tools.

    Each switch changes addresses and routes too; here only the files count.
    """
    camera.rule("*", status=0)
    plant(camera, {"IPv4.Enabled": compact(enabled), "IPv4.LocalLink.Enabled": "false"})
    assert start(camera) == ["READY=1"]


def combinations(
    camera: Camera, switches: Sequence[str], lists: Mapping[str, Any]
) -> Iterator[dict[str, bool]]:
    """Set the switches to each of their combinations in turn; the lists are the same in each.

    One switch changes at a time, and the first ones, which cost most, change least often. A DHCP
    client that starts or stops forgets what its lease has told, so the lists come again.
    """
    state = dict.fromkeys(switches, False)
    assert camera.api_set_text(compact(state)) == SUCCESS
    assert camera.api_set_text(compact(lists)) == SUCCESS
    yield dict(state)
    for step in range(1, 2 ** len(switches)):
        lowest_bit = (step & -step).bit_length() - 1
        changed = switches[-1 - lowest_bit]
        state[changed] = not state[changed]
        assert camera.api_set_text(compact({changed: state[changed]})) == SUCCESS
        assert camera.api_set_text(compact(lists)) == SUCCESS
        yield dict(state)


def link_at(camera: Camera, path: str) -> str:
    """What a link holds."""
    return camera.run(["readlink", "-n", path], check=True).stdout
