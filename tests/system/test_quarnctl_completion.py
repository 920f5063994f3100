"""What the shells offer while a quarnctl command is typed: each shell itself runs its own file."""

from __future__ import annotations

import shutil
from collections.abc import Callable, Sequence
from pathlib import Path

import pytest

from camlab import Camera

FILES = Path(__file__).resolve().parents[2] / "tools" / "quarnctl" / "completion"
INSIDE = "/tmp/completion"

# bash hands the words over in an array, and counts an equals sign as a word of its own.
BASH = f"""
source {INSIDE}/quarnctl.bash
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
_quarnctl
printf '%s\\n' "${{COMPREPLY[@]}}"
"""
# The places where zsh's own completion would take the words: nothing else of it is needed.
ZSH = f"""
compadd() {{
    [[ $1 == -S ]] && local suffix=$2 && shift 2
    shift
    print -rl -- "${{@/%/$suffix}}" | while read -r line; do [[ $line == $typed* ]] && print -r -- $line; done
}}
_files() {{ print files }}
words=("$@")
CURRENT=$#
typed=$words[CURRENT]
source {INSIDE}/_quarnctl
true
"""
FISH = f"""
source {INSIDE}/quarnctl.fish
complete --do-complete (string join -- ' ' $argv) | string replace -r '\\t.*' ''
true
"""


def in_bash(camera: Camera, words: Sequence[str]) -> list[str]:
    """Return what bash offers for the last word."""
    split = [piece for word in words for piece in _split_at_equals(word)]
    return camera.run(["bash", "-c", BASH, "bash", *split], check=True).stdout.split()


def _split_at_equals(word: str) -> list[str]:
    key, equals, value = word.partition("=")
    return [piece for piece in (key, equals, value) if piece] or [word]


def in_zsh(camera: Camera, words: Sequence[str]) -> list[str]:
    """Return what zsh offers for the last word."""
    return camera.run(["zsh", "-f", "-c", ZSH, "zsh", *words], check=True).stdout.split()


def in_fish(camera: Camera, words: Sequence[str]) -> list[str]:
    """Return what fish offers for the last word."""
    return camera.run(["fish", "-N", "-c", FISH, "--", *words], check=True).stdout.split()


@pytest.fixture(params=[in_bash, in_zsh, in_fish], ids=["bash", "zsh", "fish"])
def offered(
    request: pytest.FixtureRequest, make_camera: Callable[..., Camera]
) -> Callable[..., list[str]]:
    """Return a function that tells what a shell offers; the daemon does not run."""
    if shutil.which(request.node.callspec.id) is None:
        pytest.skip(f"{request.node.callspec.id} is not installed")
    camera = make_camera(install={f"{INSIDE}/{path.name}": str(path) for path in FILES.iterdir()})
    return lambda *words: sorted(request.param(camera, ["quarnctl", *words]))


def test_keys_are_offered(offered: Callable[..., list[str]]) -> None:
    assert offered("get", "[NIC/eth0]M") == ["[NIC/eth0]MAC", "[NIC/eth0]MTU"]


def test_only_keys_that_can_be_set_are_offered_for_setting(
    offered: Callable[..., list[str]],
) -> None:
    assert offered("set", "[NIC/eth0]M") == ["[NIC/eth0]MTU="]
    assert offered("reset", "[NIC/eth0]M") == ["[NIC/eth0]MTU"]


def test_the_values_of_booleans_are_offered(offered: Callable[..., list[str]]) -> None:
    values = offered("set", "[NTP]Enabled=")
    assert [value.rpartition("=")[2] for value in values] == ["false", "true"]
    assert [value for value in offered("set", "[NIC/eth0]MTU=") if "true" in value] == []


def test_commands_and_their_options_are_offered(offered: Callable[..., list[str]]) -> None:
    assert offered("mon") == ["monitor"]
    assert offered("reset", "--al") == ["--all"]
    assert offered("apply", "--sk") == ["--skip-unknown"]


def test_bash_completes_words_in_quotes_and_with_backslashes_too(
    make_camera: Callable[..., Camera],
) -> None:
    camera = make_camera(install={f"{INSIDE}/{path.name}": str(path) for path in FILES.iterdir()})

    def offered_for(*words: str) -> list[str]:
        # bash does not split what is in quotes.
        done = camera.run(["bash", "-c", BASH, "bash", "quarnctl", *words], check=True)
        return done.stdout.split()

    for word in ('"[NIC/eth0]MT', "'[NIC/eth0]MT", "\\[NIC/eth0]MT"):
        assert offered_for("get", word) == ["[NIC/eth0]MTU"]
    assert offered_for("set", '"[NTP]Enabled=t') == ["[NTP]Enabled=true"]
    assert offered_for("set", '"[NTP]Ena') == ["[NTP]Enabled="]
