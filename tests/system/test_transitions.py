"""Every way from one kind of address to another, seen whole, and the document that lists them."""

from __future__ import annotations

import re
from itertools import permutations
from pathlib import Path

import ipv4_states as ipv4
import ipv4_transitions
import ipv6_states as ipv6
import ipv6_transitions
import pytest
from transitions import MakeCamera, Transition, enter, expected, seen, signals_up_to_now, take

pytestmark = pytest.mark.quiet

TESTS = Path(__file__).parent
DOCUMENT = TESTS.parents[1] / "docs" / "addressing.md"
OF_IPV4, OF_IPV6 = "test_a_way_of_ipv4", "test_a_way_of_ipv6"


def name_of(transition: Transition) -> str:
    """The name of a transition's case."""
    return ": ".join(transition.row[:2])


@pytest.mark.parametrize("transition", ipv4_transitions.TRANSITIONS, ids=name_of)
def test_a_way_of_ipv4(make_camera: MakeCamera, transition: Transition) -> None:
    camera = enter(make_camera, transition.before)
    assert ipv4.network(camera) == transition.before.network
    course = seen(camera, transition.steps, ipv4.network, ipv4.LEARNED_KEYS)
    assert course == expected(transition)


@pytest.mark.parametrize("transition", ipv6_transitions.TRANSITIONS, ids=name_of)
def test_a_way_of_ipv6(make_camera: MakeCamera, transition: Transition) -> None:
    camera = enter(make_camera, transition.before)
    assert ipv6.network(camera) == transition.before.network
    course = seen(camera, transition.steps, ipv6.network, ipv6.LEARNED_KEYS)
    assert course == expected(transition)


def test_ipv4_dhcp_off_leaves_the_dhcpv6_lease_alone(make_camera: MakeCamera) -> None:
    camera = enter(make_camera, ipv4.LEASED)
    take(camera, ipv6.LEASE)
    signals_up_to_now(camera)
    course = seen(camera, (ipv4.DHCP_OFF,), ipv6.network, ipv6.LEARNED_KEYS)
    assert course.commands == ipv4.NO_DHCP_ANY_MORE
    assert course.signals == []
    assert course.network == ipv6.STATEFUL_NETWORK
    assert course.learned == ipv6.LEARNED_LEASE
    assert course.servers == ipv6.LEASED_SERVERS
    assert ipv4.network(camera) == ipv4.NOTHING
    assert camera.get("[IPv4/DHCP]Address") is None


# The document


def rows_of_document() -> list[tuple[str, str, str, str]]:
    """The rows of the document's tables of transitions: from, event, to, test."""
    rows = re.findall(
        r"^\| (.+?) \| (.+?) \| (.+?) \| `(\w+)` \|$", DOCUMENT.read_text(encoding="utf-8"), re.M
    )
    return [(before, event, after, test) for before, event, after, test in rows]


def names_of_tests(*files: Path) -> list[str]:
    """The names of the test functions in some files."""
    return [
        name for file in files for name in re.findall(r"^def (test_\w+)", file.read_text(), re.M)
    ]


def test_every_kind_of_address_is_left_for_every_other() -> None:
    for states, transitions in (
        (ipv4.STATES, ipv4_transitions.TRANSITIONS),
        (ipv6.STATES, ipv6_transitions.TRANSITIONS),
    ):
        ways = {(transition.before.name, transition.after.name) for transition in transitions}
        assert ways >= set(permutations([state.name for state in states], 2))


def test_the_document_lists_every_tested_transition_and_no_other() -> None:
    listed = [row for row in rows_of_document() if row[3] in (OF_IPV4, OF_IPV6)]
    assert listed == [
        *((*transition.row, OF_IPV4) for transition in ipv4_transitions.TRANSITIONS),
        *((*transition.row, OF_IPV6) for transition in ipv6_transitions.TRANSITIONS),
    ]


def test_the_tests_that_the_document_names_are_there_and_those_of_transitions_are_named() -> None:
    named = {row[3] for row in rows_of_document()}
    assert named <= set(names_of_tests(*TESTS.glob("test_*.py")))
    own = names_of_tests(TESTS / "test_transitions.py", TESTS / "test_transitions_on_a_lan.py")
    about_document = {name for name in own if "document" in name or "every_kind" in name}
    assert named >= set(own) - about_document


def test_the_document_knows_no_state_that_is_not_tested() -> None:
    names = {state.name for state in (*ipv4.STATES, *ipv6.STATES)}
    assert {name for row in rows_of_document() for name in (row[0], row[2])} == names
