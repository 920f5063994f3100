"""Files of a machine, seen from the host."""

from __future__ import annotations

import contextlib
import ctypes
import os
import struct

_libc = ctypes.CDLL(None, use_errno=True)
_OPENAT2 = 437
_RESOLVE_IN_ROOT = 0x10


class FileTree:
    """The files below a root folder in which even an absolute link leads nowhere else.

    Without that care a link of the camera such as /etc/resolv.conf -> /tmp/... would lead into
    the host's own /tmp.
    """

    def __init__(self, root: str) -> None:
        self._root = os.open(root, os.O_PATH | os.O_DIRECTORY | os.O_CLOEXEC)

    def close(self) -> None:
        """Let go of the root folder."""
        if self._root >= 0:
            os.close(self._root)
            self._root = -1

    def open(self, path: str, flags: int, mode: int = 0) -> int:
        """Open a file, and return its descriptor."""
        how = struct.pack("QQQ", flags | os.O_CLOEXEC, mode, _RESOLVE_IN_ROOT)
        descriptor = _libc.syscall(_OPENAT2, self._root, path.encode(), how, len(how))
        if descriptor < 0:
            error = ctypes.get_errno()
            raise OSError(error, os.strerror(error), path)
        return int(descriptor)

    def read_bytes(self, path: str) -> bytes:
        """Return the whole content of a file."""
        with open(self.open(path, os.O_RDONLY), "rb") as file:
            return file.read()

    def read(self, path: str) -> str:
        """Return the whole content of a text file."""
        return self.read_bytes(path).decode(errors="surrogateescape")

    def write(self, path: str, content: str | bytes, mode: int = 0o644) -> None:
        """Write a file over what stood there, its folders included."""
        if isinstance(content, str):
            content = content.encode(errors="surrogateescape")
        self.make_folder(os.path.dirname(path))
        descriptor = self.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, mode)
        with open(descriptor, "wb") as file:
            os.fchmod(file.fileno(), mode)
            file.write(content)

    def replace(self, path: str, content: bytes, mode: int = 0o644) -> None:
        """Put a file in place of another in one step, as a reader sees it."""
        self.write(path + ".new", content, mode)
        with self.folder(os.path.dirname(path)) as folder:
            name = os.path.basename(path)
            os.rename(f"{name}.new", name, src_dir_fd=folder, dst_dir_fd=folder)

    def make_folder(self, path: str, mode: int = 0o755) -> None:
        """Make a folder and those above it, as far as they are missing."""
        if path in ("", "/") or self.exists(path):
            return
        self.make_folder(os.path.dirname(path))
        with self.folder(os.path.dirname(path)) as folder:
            os.mkdir(os.path.basename(path), dir_fd=folder)
            os.chmod(os.path.basename(path), mode, dir_fd=folder)

    def link(self, path: str, target: str) -> None:
        """Put a symbolic link at path, in place of a file that may be there."""
        self.make_folder(os.path.dirname(path))
        self.remove(path)
        with self.folder(os.path.dirname(path)) as folder:
            os.symlink(target, os.path.basename(path), dir_fd=folder)

    def remove(self, path: str) -> None:
        """Remove a file or link; a missing one is no error."""
        with contextlib.suppress(FileNotFoundError), self.folder(os.path.dirname(path)) as folder:
            os.unlink(os.path.basename(path), dir_fd=folder)

    def make_device(self, path: str, major: int, minor: int) -> None:
        """Make a character device that everyone may use."""
        with self.folder(os.path.dirname(path)) as folder:
            name = os.path.basename(path)
            os.mknod(name, 0o020666, os.makedev(major, minor), dir_fd=folder)
            os.chmod(name, 0o666, dir_fd=folder)

    def exists(self, path: str) -> bool:
        """Whether path, links followed, is there."""
        try:
            os.close(self.open(path, os.O_PATH))
        except (FileNotFoundError, NotADirectoryError):
            return False
        return True

    def names(self, path: str) -> list[str]:
        """Return the sorted names in a folder."""
        with self.folder(path) as folder:
            return sorted(os.listdir(f"/proc/self/fd/{folder}"))

    def stat(self, path: str) -> os.stat_result:
        """Return the state of a file, of a link itself."""
        with self.folder(os.path.dirname(path)) as folder:
            return os.stat(os.path.basename(path), dir_fd=folder, follow_symlinks=False)

    def folder(self, path: str) -> _Descriptor:
        """Return a folder's descriptor, for a with statement."""
        return _Descriptor(self.open(path or "/", os.O_PATH | os.O_DIRECTORY))


class _Descriptor:
    def __init__(self, descriptor: int) -> None:
        self._descriptor = descriptor

    def __enter__(self) -> int:
        return self._descriptor

    def __exit__(self, *_: object) -> None:
        os.close(self._descriptor)
