"""The U-Boot environment of the camera: real files, as fw_printenv and libubootenv read them."""

from __future__ import annotations

import zlib
from collections.abc import Mapping

from .files import FileTree

CONFIGURATION = "/etc/fw_env.config"
INITIAL = "/etc/u-boot-initial-env"
SIZE = 0x4000
_COPIES = ("/boot/uboot.env", "/boot/uboot-redundant.env")
_CHECKSUM_BYTES = 4


class BootEnvironment:
    """One copy of the environment, or a redundant pair; every damage can be done to it."""

    def __init__(self, files: FileTree, redundant: bool = False) -> None:
        self._files = files
        self._redundant = redundant
        self.paths = _COPIES if redundant else _COPIES[:1]

    def create(self, variables: Mapping[str, str]) -> None:
        """Write the configuration and a valid environment."""
        lines = "".join(f"{path} 0x0 {SIZE:#x}\n" for path in self.paths)
        self._files.write(CONFIGURATION, lines)
        self._files.write(INITIAL, "bootdelay=2\n")
        for copy in range(len(self.paths)):
            self._write(copy, variables, flag=len(self.paths) - copy)

    def remove_configuration(self) -> None:
        """Make it a camera without a U-Boot environment."""
        self._files.remove(CONFIGURATION)
        self._files.remove(INITIAL)

    def variables(self) -> dict[str, str]:
        """Return all variables of the newest valid copy; ValueError when there is none."""
        valid = [content for path in self.paths if (content := self._content(path)) is not None]
        if not valid:
            raise ValueError("no valid copy of the boot environment")
        newest = max(valid, key=self._flag)
        data = newest[self._header_bytes :].split(b"\0\0")[0]
        pairs = (entry.split(b"=", 1) for entry in data.split(b"\0") if b"=" in entry)
        return {
            name.decode(errors="surrogateescape"): value.decode(errors="surrogateescape")
            for name, value in pairs
        }

    def get(self, name: str) -> str | None:
        """Return a variable, or None."""
        return self.variables().get(name)

    def set(self, name: str, value: str | None) -> None:
        """Set a variable in every copy; None removes it."""
        variables = self.variables()
        variables.pop(name, None)
        if value is not None:
            variables[name] = value
        for copy in range(len(self.paths)):
            self._write(copy, variables, flag=len(self.paths) - copy)

    def corrupt(self, copy: int = 0) -> None:
        """Flip a bit that the checksum covers."""
        content = bytearray(self._files.read_bytes(self.paths[copy]))
        content[self._header_bytes] ^= 1
        self._files.write(self.paths[copy], bytes(content))

    def truncate(self, size: int = 0, copy: int = 0) -> None:
        """Cut the file off."""
        content = self._files.read_bytes(self.paths[copy])
        self._files.write(self.paths[copy], content[:size])

    def remove(self, copy: int = 0) -> None:
        """Delete the file."""
        self._files.remove(self.paths[copy])

    def content(self, copy: int = 0) -> bytes:
        """Return the bytes of the file, to see whether something wrote it."""
        return self._files.read_bytes(self.paths[copy])

    @property
    def _header_bytes(self) -> int:
        return _CHECKSUM_BYTES + (1 if self._redundant else 0)

    def _flag(self, content: bytes) -> int:
        return content[_CHECKSUM_BYTES] if self._redundant else 0

    def _content(self, path: str) -> bytes | None:
        try:
            content = self._files.read_bytes(path)
        except FileNotFoundError:
            return None
        checksum = zlib.crc32(content[self._header_bytes :]).to_bytes(_CHECKSUM_BYTES, "little")
        return content if content[:_CHECKSUM_BYTES] == checksum else None

    def _write(self, copy: int, variables: Mapping[str, str], flag: int) -> None:
        text = "".join(f"{name}={value}\0" for name, value in variables.items()) + "\0"
        data = text.encode(errors="surrogateescape")
        room = SIZE - self._header_bytes
        if len(data) > room:
            raise ValueError(f"the boot environment has room for {room} bytes")
        data = data.ljust(room, b"\0")
        header = zlib.crc32(data).to_bytes(_CHECKSUM_BYTES, "little")
        self._files.write(self.paths[copy], header + bytes([flag] * self._redundant) + data)
