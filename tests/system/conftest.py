"""Fixtures of the system tests: virtual cameras."""

from __future__ import annotations

import sys
from collections.abc import Callable, Generator, Iterator
from pathlib import Path
from typing import Any

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "camera"))

from camlab import Camera, CameraError  # noqa: E402
from expectations import silence_services  # noqa: E402

_CAMERAS = pytest.StashKey[list[Camera]]()


def pytest_configure(config: pytest.Config) -> None:
    """Name the tests' own marker."""
    config.addinivalue_line("markers", "quiet: the cameras of these tests have silent services")


@pytest.fixture
def make_camera(request: pytest.FixtureRequest) -> Iterator[Callable[..., Camera]]:
    """Boot cameras with the options of CameraOptions; they go down with the test."""
    cameras: list[Camera] = []
    request.node.stash[_CAMERAS] = cameras

    def make(**options: Any) -> Camera:
        cameras.append(Camera(**options))
        if request.node.get_closest_marker("quiet"):
            silence_services(cameras[-1])
        return cameras[-1]

    yield make
    for camera in cameras:
        camera.close()


@pytest.fixture
def camera(make_camera: Callable[..., Camera]) -> Camera:
    """Return a freshly booted camera in which the daemon is not started."""
    return make_camera()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item) -> Generator[None, Any, None]:
    """Show what the cameras of a failed test went through."""
    outcome = yield
    report = outcome.get_result()
    if report.when != "call" or not report.failed:
        return
    for camera in item.stash.get(_CAMERAS, []):
        try:
            commands = "\n".join(f"{status}\t{text}" for text, status in camera.commands())
            report.sections.append(("the daemon's commands", _printable(commands)))
            report.sections.append(("the daemon's log", _printable("\n".join(camera.log_lines()))))
        except (OSError, CameraError) as error:
            report.sections.append(("the camera", str(error)))


def _printable(text: str) -> str:
    """Bytes that are no UTF-8 would stop the report on its way between test processes."""
    return text.encode("utf-8", "backslashreplace").decode()
