"""A web server in a camera: the real nginx, its certificates, and a browser on the LAN."""

from __future__ import annotations

import subprocess
import tempfile
from dataclasses import dataclass
from pathlib import Path

from camlab import Camera
from camlab.web_server import (  # noqa: F401 what the tests of the web server share
    FRAGMENT,
    MAIN_FILE,
    PAGE,
    PLAIN_MAIN_FILE,
    install_web_server,
    start_nginx,
)


def fetch(camera: Camera, url: str, *options: str) -> str:
    """Fetch a page from the LAN; return it, or curl's exit status where there is none."""
    command = ["curl", "--silent", "--max-time", "5", "--insecure", *options, url]
    done = camera.lan.run(command)
    return done.stdout if done.returncode == 0 else f"curl: {done.returncode}"


def wait_page(camera: Camera, url: str) -> None:
    """Wait until the page comes from an address."""
    camera.wait_until(lambda: fetch(camera, url) == PAGE, f"{url} serves the page")


def listeners(camera: Camera) -> set[str]:
    """Where the camera listens for TCP connections, as ss writes it (0.0.0.0:80, [::]:80)."""
    lines = camera.run(["ss", "-Htln"], check=True).stdout.splitlines()
    return {line.split()[3] for line in lines}


def wait_listeners(camera: Camera, *sockets: str) -> None:
    """Wait until the camera listens there and nowhere else: nginx takes a moment to reload."""
    camera.wait_until(lambda: listeners(camera) == set(sockets), f"listeners are {sockets}")


@dataclass(frozen=True)
class Certificate:
    """A certificate with its private key, as PEM texts."""

    subject: str
    certificate: str
    key: str

    @property
    def both(self) -> str:
        """What the camera's certificate file holds."""
        return self.certificate + self.key


def make_certificate(subject: str, issuer: Certificate | None = None) -> Certificate:
    """Make a certificate, by itself or signed by another."""
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        command = ["openssl", "req", "-x509", "-newkey", "ec", "-nodes", "-days", "2"]
        command += ["-pkeyopt", "ec_paramgen_curve:prime256v1", "-subj", f"/CN={subject}"]
        if issuer is not None:
            (folder / "issuer.pem").write_text(issuer.both)
            command += ["-CA", "issuer.pem", "-CAkey", "issuer.pem"]
            command += ["-addext", "basicConstraints=critical,CA:FALSE"]
        command += ["-keyout", "key.pem", "-out", "certificate.pem"]
        subprocess.run(command, cwd=folder, check=True, capture_output=True)
        return Certificate(
            subject, (folder / "certificate.pem").read_text(), (folder / "key.pem").read_text()
        )
