"""The settings database of a camera, seen and changed behind the daemon's back."""

from __future__ import annotations

import json
import re
from typing import Any

from camlab import Camera

# Run inside: SQLite follows the links of a path itself, and /proc/PID/root leads it back to the host.
_PREAMBLE = """
import json, sqlite3, sys
database = sqlite3.connect("/var/lib/quarn/settings.db", isolation_level=None)
database.executescript('''
CREATE TABLE IF NOT EXISTS settings
(key TEXT PRIMARY KEY, value TEXT NOT NULL, checksum INTEGER NOT NULL) WITHOUT ROWID;
PRAGMA user_version = 1;
''')
"""
_PRINT = """
print(json.dumps(database.execute("SELECT key, value FROM settings ORDER BY key").fetchall()))
"""
_PLANT = """
for row in json.load(sys.stdin):
    database.execute("INSERT OR REPLACE INTO settings VALUES (?, ?, ?)", row)
"""
# What the first start of a camera stores, and puts into the boot environment. Where that has a host
# name, the link modes are all that is stored.
LINK_MODES: dict[str, Any] = {
    "NIC.eth0.SupportedModes": {"full_duplex": [10, 100, 1000], "half_duplex": [10, 100]}
}
STORED_BY_START: dict[str, Any] = {"Hostname.Name": "Corvy-0000000", **LINK_MODES}
VARIABLES_OF_START = {"vesko_hostname": "Corvy-0000000"}
_FNV_OFFSET, _FNV_PRIME = 0xCBF29CE484222325, 0x100000001B3


def stored_texts(camera: Camera) -> dict[str, str]:
    """Return all that is stored, as JSON texts by the names of the store (IPv4.Manual.Address)."""
    if not camera.files.exists("/var/lib/quarn/settings.db"):
        return {}
    return dict(json.loads(_run(camera, _PRINT)))


def stored(camera: Camera) -> dict[str, Any]:
    """Return all that is stored, parsed."""
    return {name: json.loads(text) for name, text in stored_texts(camera).items()}


def stored_link_local(camera: Camera) -> str:
    """The link-local address that the camera remembers."""
    address = stored(camera)["IPv4.LocalLink.Address"]
    assert re.fullmatch(r"169\.254\.\d{1,3}\.\d{1,3}", address)
    assert isinstance(address, str)
    return address


def plant(camera: Camera, texts: dict[str, str]) -> None:
    """Store JSON texts by hand; the daemon must not run."""
    assert not camera.daemon.running
    rows = [(name, text, _checksum(name, text)) for name, text in texts.items()]
    _run(camera, _PLANT, json.dumps(rows))


def _run(camera: Camera, script: str, text: str = "") -> str:
    command = ["/usr/bin/python3", "-I", "-c", _PREAMBLE + script]
    return camera.run(command, input=text, check=True).stdout


def _checksum(name: str, text: str) -> int:
    """64-bit FNV-1a over name, zero byte and text, as the signed number that SQLite keeps."""
    value = _FNV_OFFSET
    for byte in f"{name}\0{text}".encode():
        value = (value ^ byte) * _FNV_PRIME % 2**64
    return value - 2**64 if value >= 2**63 else value
