"""A web server in a camera: the real nginx, its certificates, and a browser on the LAN."""

from __future__ import annotations

import subprocess
import tempfile
from dataclasses import dataclass
from pathlib import Path

from camlab import Camera, Process

MAIN_FILE = "/etc/nginx/nginx.conf"
FRAGMENT = "/tmp/.quarn/nginx.conf"
PAGE = "this is the camera\n"

# The main file that the daemon makes needs the camera maker's own nginx module, which a test does
# not have. This one takes its place: it includes the fragment and names no socket itself, which is
# all that the daemon asks of a main file.
PLAIN_MAIN_FILE = f"""\
pid /var/run/nginx.pid;
error_log stderr error;
events {{
}}
http {{
    access_log off;
    server {{
        include {FRAGMENT};
        root /srv/www;
    }}
}}
"""

# No systemd runs in the camera. What stands in for it can do one thing: reload the real nginx.
SYSTEMCTL = """\
#!/bin/sh
# A stand-in for systemctl in a test's camera.
if [ "$*" = "reload nginx.service" ]; then
    exec /usr/sbin/nginx -s reload
fi
echo "the stand-in for systemctl cannot: $*" >&2
exit 1
"""


def install_web_server(camera: Camera) -> None:
    """Give the camera a page, a main file for nginx and a systemctl."""
    camera.write_file(MAIN_FILE, PLAIN_MAIN_FILE)
    camera.write_file("/srv/www/index.html", PAGE)
    camera.write_file("/usr/bin/systemctl", SYSTEMCTL, 0o755)


def start_nginx(camera: Camera) -> Process:
    """Start nginx with the configuration that stands; return once it has its pid file."""
    process = camera.start(["/usr/sbin/nginx", "-g", "daemon off;"])
    camera.wait_until(
        lambda: process.poll() is not None or camera.files.exists("/var/run/nginx.pid"),
        "nginx has started",
    )
    assert process.poll() is None, process.stderr
    return process


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
