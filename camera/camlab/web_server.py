"""A web server in a camera: the real nginx, and what stands in for the camera image's part of it."""

from __future__ import annotations

from .camera import Camera
from .namespaces import Process

MAIN_FILE = "/etc/nginx/nginx.conf"
FRAGMENT = "/tmp/.quarn/nginx.conf"
PAGE = "this is the camera\n"

# The main file that the daemon makes needs the camera maker's own nginx module, which is not to be
# had here. This one takes its place: it includes the fragment and names no socket itself, which is
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
# A stand-in for systemctl in a virtual camera.
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
