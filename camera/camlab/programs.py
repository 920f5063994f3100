"""Where the programs of the checkout are."""

from __future__ import annotations

import os
from pathlib import Path

CHECKOUT = Path(__file__).resolve().parents[2]


def build_folder() -> Path:
    """QUARN_BUILD_DIR, or the release build of this checkout."""
    return Path(os.environ.get("QUARN_BUILD_DIR", CHECKOUT / "build" / "release")).absolute()


def helper(name: str) -> str:
    """Return the path of a compiled part of the camera."""
    path = build_folder() / name
    if not path.exists():
        raise FileNotFoundError(f"{path} is missing: build the checkout, or set QUARN_BUILD_DIR")
    return str(path)


def daemon_binary() -> str:
    """QUARN_BINARY, or the daemon of the build folder."""
    return os.path.abspath(os.environ.get("QUARN_BINARY", build_folder() / "quarn"))
