"""nginx's configuration, and what the LAN then gets on which port.

The pages come from the real nginx. The camera maker's nginx module is not to be had: the tests that
start nginx give the camera a main file of their own (see web.py).
"""

from __future__ import annotations

import socket
from collections.abc import Callable
from typing import Any

import pytest
from expectations import (
    FILTERS,
    MANUAL_ADDRESS,
    MANUAL_BOOT,
    MANUAL_IPV4,
    RELOAD_WEB_SERVER,
    SUCCESS,
    answer,
    done,
    error,
    lines_of_level,
    refusal,
    set_settings,
    shaping_ports,
    start,
)
from stored_settings import plant, stored
from web import (
    FRAGMENT,
    MAIN_FILE,
    PAGE,
    PLAIN_MAIN_FILE,
    fetch,
    install_web_server,
    listeners,
    make_certificate,
    start_nginx,
    wait_listeners,
    wait_page,
)

from camlab import Camera, Command
from camlab.namespaces import MS_RDONLY

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

HTTP_ENABLED, HTTP_PORT = "[Webserver/HTTP]Enabled", "[Webserver/HTTP]Port"
HTTPS_ENABLED, HTTPS_PORT = "[Webserver/HTTPS]Enabled", "[Webserver/HTTPS]Port"
CERTIFICATE = "[Webserver/HTTPS]Certificate"
RTSP_PORT = "[RTSP]Port"
IN_USE = "[TCP/Port]InUse"
PEM = "/etc/camera.pem"
CAMERA_IPV6 = "2001:db8::10"

WRITING = "<6>apply_settings: Writting Nginx port configuration"
RELOADING = "<6>apply_settings: Reloading Nginx webserver configuration"

# The spacing, the misspelling and the directives inside comment lines belong to it.
TEMPLATE = """\
# written by quarn
pid /var/run/nginx.pid;
user root root;
worker_processes auto;
load_module lib/modules/vesko_gardo_module.so;

events {
    worker_connections 64;
}

http {
    # include upstream server definitions
    include /etc/nginx/upstream.d/*.upstream;

    include proxy.conf;
    include fastcgi.conf;

    auth-backend gardo;
    access_log   off;    error_log    stderr error;

    add_header   X-Content-Type-Options nosniff; # disable browser sniffing of content-type

    #Cache headers    add_header Pragma no-cache;    add_header Cache-Control no-cache;    \
include      mime.types;
    default_type application/octet-stream;
    sendfile     on;

    keepalive_timeout  60s;
    limit_rate 1750000; # (1750000 bytes = 14 megabits) max out per second

    server {
        # quarn generated config contains the address and port settins
        include /tmp/.quarn/nginx.conf;

        # include all the configuration fragments for the other components
        include /etc/nginx/conf.d/*.conf;
    }
}
"""


def fragment(*lines: str) -> str:
    """The generated file with these directives."""
    return "".join(f"{line}\n" for line in ("# written by quarn", *lines))


DEFAULT_FRAGMENT = fragment("listen [::]:80 ipv6only=on;", "listen 80;")


@pytest.fixture
def camera(make_camera: MakeCamera) -> Camera:
    """Return a camera at 192.0.2.10 with a main file for nginx; the daemon is ready."""
    camera = make_camera(variables=MANUAL_IPV4)
    install_web_server(camera)
    assert start(camera) == ["READY=1"]
    return camera


@pytest.fixture
def serving(camera: Camera) -> Camera:
    """Return a camera whose nginx runs and is reloaded, and a host on its LAN."""
    command = ["ip", "address", "add", f"{CAMERA_IPV6}/64", "dev", "eth0", "nodad"]
    camera.run(command, check=True)
    camera.lan.own("192.0.2.1")
    camera.lan.own("2001:db8::1")
    camera.recorder.run(RELOAD_WEB_SERVER)
    camera.write_file(PEM, make_certificate("camera").both, 0o600)
    start_nginx(camera)
    wait_listeners(camera, "0.0.0.0:80", "[::]:80")
    return camera


def main_file_lines(camera: Camera) -> list[str]:
    """What the log says about nginx's files."""
    return [line for line in lines_of_level(camera.log_lines(), 2, 3, 4) if "nginx" in line]


# The main file


def test_a_missing_main_file_is_made(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    camera.files.remove(MAIN_FILE)
    assert start(camera) == ["READY=1"]
    assert camera.read_file(MAIN_FILE) == TEMPLATE
    assert main_file_lines(camera) == ["<4>quarn_write_nginxconf: Missing nginx.conf; creating it"]
    assert camera.read_file(FRAGMENT) == DEFAULT_FRAGMENT


@pytest.mark.parametrize(
    "content",
    [
        f"# this one does not listen\ninclude {FRAGMENT};\n",
        f"listen 80;\ninclude {FRAGMENT};\n",
        f"include {FRAGMENT};\n\0listen",
        "include /tmp/.quarn/nginx.con;\n",
        "",
    ],
)
def test_a_main_file_that_listens_or_lacks_the_fragment_is_rewritten(
    make_camera: MakeCamera, content: str
) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    camera.write_file(MAIN_FILE, content)
    assert start(camera) == ["READY=1"]
    assert camera.read_file(MAIN_FILE) == TEMPLATE
    assert main_file_lines(camera) == [
        "<4>quarn_write_nginxconf: Incorrect nginx.conf; rewriting it"
    ]
    assert camera.read_file(FRAGMENT) == DEFAULT_FRAGMENT


@pytest.mark.parametrize(
    "content",
    [TEMPLATE, PLAIN_MAIN_FILE, f"{'x' * 100000}{FRAGMENT}"],
    ids=["the template", "a plain one", "a large one"],
)
def test_a_correct_main_file_stays_as_it_is(make_camera: MakeCamera, content: str) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    camera.write_file(MAIN_FILE, content)
    written = camera.files.stat(MAIN_FILE).st_mtime_ns
    assert start(camera) == ["READY=1"]
    assert camera.read_file(MAIN_FILE) == content
    assert camera.files.stat(MAIN_FILE).st_mtime_ns == written
    assert main_file_lines(camera) == []


def put_folder(camera: Camera) -> None:
    camera.files.make_folder(MAIN_FILE)


def put_endless_link(camera: Camera) -> None:
    camera.run(["ln", "-s", MAIN_FILE, MAIN_FILE], check=True)


def put_huge_file(camera: Camera) -> None:
    camera.run(["truncate", "-s", "1T", MAIN_FILE], check=True)


@pytest.mark.parametrize(
    ("put", "fault"),
    [
        pytest.param(put_folder, "Can't read", id="a folder"),
        pytest.param(put_huge_file, "Can't read", id="a file larger than memory"),
        pytest.param(put_endless_link, "Can't stat", id="a link to itself"),
    ],
)
def test_a_main_file_that_cannot_be_read_ends_the_writing(
    make_camera: MakeCamera, put: Callable[[Camera], None], fault: str
) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    camera.files.remove(MAIN_FILE)
    # One that a disk can hold as a hole.
    camera.mount("tmpfs", "/etc/nginx", "tmpfs", 0)
    put(camera)
    assert start(camera) == ["READY=1"]
    assert main_file_lines(camera) == [f"<2>quarn_write_nginxconf:LINE: {fault} nginx.conf"]
    assert not camera.files.exists(FRAGMENT)
    assert camera.commands() == MANUAL_BOOT


def test_a_main_file_that_cannot_be_written_ends_the_writing(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    camera.mount("tmpfs", "/etc/nginx", "tmpfs", MS_RDONLY)
    assert start(camera) == ["READY=1"]
    assert main_file_lines(camera) == [
        "<4>quarn_write_nginxconf: Missing nginx.conf; creating it",
        "<2>quarn_write_nginxconf:LINE: Can't write nginx.conf",
    ]
    assert not camera.files.exists(FRAGMENT)
    assert camera.commands() == MANUAL_BOOT


def test_a_main_file_for_which_there_is_no_room_is_told(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    camera.mount("tmpfs", "/etc/nginx", "tmpfs", 0, "size=4096")
    camera.write_file("/etc/nginx/filler", bytes(4096))
    assert start(camera) == ["READY=1"]
    assert main_file_lines(camera)[-1] == "<2>quarn_write_nginxconf:LINE: Can't write nginx.conf"


def test_a_fragment_that_cannot_be_made_is_told(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    install_web_server(camera)
    camera.files.make_folder(FRAGMENT)
    assert start(camera) == ["READY=1"]
    assert main_file_lines(camera) == [f"<2>quarn_write_nginxconf:LINE: Cannot create {FRAGMENT}"]


def test_a_fragment_for_which_there_is_no_room_is_told(camera: Camera) -> None:
    camera.mount("tmpfs", "/tmp/.quarn", "tmpfs", 0, "mode=755,size=4096")
    camera.write_file("/tmp/.quarn/filler", bytes(4096))
    assert set_settings(camera, {HTTP_PORT: 8080}).response != SUCCESS
    assert main_file_lines(camera) == [f"<2>quarn_write_nginxconf:LINE: Cannot write {FRAGMENT}"]


# The fragment


def test_http_on_8080_with_ipv4_only_is_one_line(camera: Camera) -> None:
    assert set_settings(camera, {"[IPv6]Enabled": False, HTTP_PORT: 8080}).response == SUCCESS
    assert camera.read_file(FRAGMENT) == fragment("listen 8080;")


def test_with_ipv6_only_there_is_no_ipv4_line(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    plant(camera, {"IPv4.Enabled": "false", "Webserver.HTTPS.Enabled": "true"})
    assert start(camera) == ["READY=1"]
    assert camera.read_file(FRAGMENT) == fragment(
        "listen [::]:80 ipv6only=on;", "listen [::]:443 ipv6only=on ssl;"
    )


def test_https_without_any_certificate_path_has_listen_lines_only(camera: Camera) -> None:
    assert set_settings(camera, {HTTPS_ENABLED: True, HTTP_ENABLED: False}).response == SUCCESS
    assert camera.read_file(FRAGMENT) == fragment(
        "listen [::]:443 ipv6only=on ssl;", "listen 443 ssl;"
    )
    assert camera.get(HTTPS_ENABLED) is True


def test_a_change_of_port_reloads_nginx_and_follows_in_filter_and_shaping(camera: Camera) -> None:
    outcome = set_settings(camera, {HTTP_PORT: 8080})
    assert (outcome.response, outcome.commands) == (
        SUCCESS,
        [*done(RELOAD_WEB_SERVER), *FILTERS, *shaping_ports(again=True, http=8080)],
    )
    assert outcome.log[:2] == [WRITING, RELOADING]


def test_no_reload_at_the_start(camera: Camera) -> None:
    assert camera.commands() == MANUAL_BOOT
    assert WRITING in camera.log_lines()
    assert RELOADING not in camera.log_lines()


# Pages on the LAN


def test_the_page_comes_over_ipv4_and_ipv6_on_the_set_port(serving: Camera) -> None:
    assert fetch(serving, f"http://{MANUAL_ADDRESS}/") == PAGE
    assert fetch(serving, f"http://[{CAMERA_IPV6}]/") == PAGE
    assert set_settings(serving, {HTTP_PORT: 8080}).response == SUCCESS
    wait_listeners(serving, "0.0.0.0:8080", "[::]:8080")
    assert fetch(serving, f"http://{MANUAL_ADDRESS}:8080/") == PAGE
    assert fetch(serving, f"http://[{CAMERA_IPV6}]:8080/") == PAGE
    # The old port is closed in the packet filter too: silence, not a refusal.
    assert fetch(serving, f"http://{MANUAL_ADDRESS}/", "--max-time", "0.5") == "curl: 28"


def test_the_page_comes_over_https_on_the_set_port(serving: Camera) -> None:
    request = {HTTPS_ENABLED: True, HTTPS_PORT: 8443, CERTIFICATE: PEM}
    assert set_settings(serving, request).response == SUCCESS
    wait_listeners(serving, "0.0.0.0:80", "[::]:80", "0.0.0.0:8443", "[::]:8443")
    assert fetch(serving, f"https://{MANUAL_ADDRESS}:8443/") == PAGE
    assert fetch(serving, f"https://[{CAMERA_IPV6}]:8443/") == PAGE
    assert fetch(serving, f"http://{MANUAL_ADDRESS}/") == PAGE
    assert set_settings(serving, {HTTP_ENABLED: False}).response == SUCCESS
    wait_listeners(serving, "0.0.0.0:8443", "[::]:8443")


def test_http_and_https_exchange_their_ports_in_one_request(serving: Camera) -> None:
    assert set_settings(serving, {HTTPS_ENABLED: True, CERTIFICATE: PEM}).response == SUCCESS
    wait_listeners(serving, "0.0.0.0:80", "[::]:80", "0.0.0.0:443", "[::]:443")
    assert set_settings(serving, {HTTP_PORT: 443, HTTPS_PORT: 80}).response == SUCCESS
    wait_page(serving, f"https://{MANUAL_ADDRESS}:80/")
    wait_page(serving, f"http://{MANUAL_ADDRESS}:443/")
    wait_page(serving, f"https://[{CAMERA_IPV6}]:80/")
    wait_page(serving, f"http://[{CAMERA_IPV6}]:443/")


def test_http_on_the_port_of_https_is_refused_while_https_stays(serving: Camera) -> None:
    assert set_settings(serving, {HTTPS_ENABLED: True, CERTIFICATE: PEM}).response == SUCCESS
    wait_listeners(serving, "0.0.0.0:80", "[::]:80", "0.0.0.0:443", "[::]:443")
    fault = error(11, "Proposed port is in use", HTTP_PORT)
    assert set_settings(serving, {HTTP_PORT: 443}) == refusal({HTTP_PORT: 443}, fault)
    # Named again, it still stays.
    request = {HTTP_PORT: 443, HTTPS_PORT: 443}
    clash = "HTTP and HTTPS cannot share a port"
    assert set_settings(serving, request) == refusal(
        request, error(4, clash, HTTP_PORT), error(4, clash, HTTPS_PORT)
    )
    assert fetch(serving, f"http://{MANUAL_ADDRESS}/") == PAGE


def test_nginx_that_refuses_its_configuration_keeps_serving_the_old(serving: Camera) -> None:
    # A socket for TLS without a certificate.
    outcome = set_settings(serving, {HTTPS_ENABLED: True, HTTP_PORT: 8080})
    assert outcome.response == SUCCESS
    assert Command(RELOAD_WEB_SERVER, 1) in outcome.commands
    assert lines_of_level(outcome.log, 2, 3) == [
        "<3>reload_webserver: While reloading webserver, received code 1 on "
        f"'{RELOAD_WEB_SERVER}'"
    ]
    assert listeners(serving) == {"0.0.0.0:80", "[::]:80"}
    assert serving.run(["curl", "-s", "http://127.0.0.1/"]).stdout == PAGE
    assert set_settings(serving, {CERTIFICATE: PEM}).response == SUCCESS
    wait_page(serving, f"http://{MANUAL_ADDRESS}:8080/")
    wait_page(serving, f"https://{MANUAL_ADDRESS}/")


@pytest.mark.parametrize("program", ["/usr/sbin/nginx", "/usr/bin/systemctl"])
def test_without_nginx_or_systemctl_all_else_is_done(camera: Camera, program: str) -> None:
    camera.recorder.run(RELOAD_WEB_SERVER)
    camera.files.remove(program)
    outcome = set_settings(camera, {HTTP_PORT: 8080})
    assert (outcome.response, outcome.commands) == (
        SUCCESS,
        [
            Command(RELOAD_WEB_SERVER, 127),
            *FILTERS,
            *shaping_ports(again=True, http=8080),
        ],
    )
    assert lines_of_level(outcome.log, 2, 3) == [
        f"<3>reload_webserver: While reloading webserver, received code 127 on "
        f"'{RELOAD_WEB_SERVER}'"
    ]


# Ports that cannot be had


def listening_socket(camera: Camera, family: int, address: str, port: int) -> socket.socket:
    """Another program of the camera that listens on a port."""
    listener = camera.socket(family, socket.SOCK_STREAM)
    listener.bind((address, port))
    listener.listen()
    return listener


@pytest.mark.parametrize("key", [HTTP_PORT, HTTPS_PORT, RTSP_PORT])
@pytest.mark.parametrize(
    ("family", "address"),
    [(socket.AF_INET, "127.0.0.1"), (socket.AF_INET6, "::"), (socket.AF_INET, "0.0.0.0")],
)
def test_a_port_taken_by_another_process_is_refused(
    camera: Camera, key: str, family: int, address: str
) -> None:
    with listening_socket(camera, family, address, 9000):
        assert set_settings(camera, {key: 9000}) == refusal(
            {key: 9000}, error(11, "Proposed port is in use", key)
        )
    assert set_settings(camera, {key: 9000}).response == SUCCESS


def test_asking_for_the_port_of_the_rtsp_server_fails(camera: Camera) -> None:
    with listening_socket(camera, socket.AF_INET, "0.0.0.0", 554):
        assert set_settings(camera, {IN_USE: 554}) == refusal(
            {IN_USE: 554}, error(4, "Port is in use", IN_USE)
        )


def test_asking_for_a_free_port_succeeds_and_changes_nothing(camera: Camera) -> None:
    before = stored(camera)
    outcome = set_settings(camera, {IN_USE: 554})
    assert (outcome.response, outcome.commands) == (SUCCESS, [])
    assert stored(camera) == before
    assert camera.get(IN_USE) is None


@pytest.mark.parametrize("port", [0, 65536, -1])
def test_a_port_out_of_range_is_refused(camera: Camera, port: int) -> None:
    for key in (HTTP_PORT, HTTPS_PORT, RTSP_PORT):
        assert set_settings(camera, {key: port}) == refusal(
            {key: port}, error(4, "Port out of range", key)
        )


def test_a_port_that_is_no_number_is_refused(camera: Camera) -> None:
    for key in (HTTP_PORT, HTTPS_PORT, RTSP_PORT, IN_USE):
        assert set_settings(camera, {key: "80; reboot"}) == refusal(
            {key: "80; reboot"}, error(3, "Value wasn't a number", key)
        )


@pytest.mark.parametrize(
    ("keys", "text"),
    [
        ((HTTP_PORT, HTTPS_PORT), "HTTP and HTTPS cannot share a port"),
        ((HTTP_PORT, RTSP_PORT), "HTTP and RTSP cannot share a port"),
        ((HTTPS_PORT, RTSP_PORT), "HTTPS and RTSP cannot share a port"),
    ],
)
def test_two_services_on_port_8000_are_refused_on_both_keys(
    camera: Camera, keys: tuple[str, str], text: str
) -> None:
    request = {key: 8000 for key in keys}
    assert set_settings(camera, request) == refusal(request, *(error(4, text, key) for key in keys))


def test_disabling_http_while_https_is_off_is_refused_on_both_keys(camera: Camera) -> None:
    text = "HTTP and HTTPS cannot both be disabled"
    request = {HTTP_ENABLED: False}
    assert set_settings(camera, request) == refusal(
        request, error(10, text, HTTP_ENABLED), error(10, text, HTTPS_ENABLED)
    )
    assert camera.get(HTTP_ENABLED) is True


def test_while_the_kernel_does_not_tell_every_port_counts_as_taken(camera: Camera) -> None:
    # An empty folder over the process's view of the network.
    camera.mount("tmpfs", f"/proc/{camera.daemon.process.pid_inside}/net", "tmpfs")
    outcome = set_settings(camera, {IN_USE: 9000})
    assert outcome.response == answer(error(4, "Port is in use", IN_USE))
    assert lines_of_level(outcome.log, 2) == [
        "<2>is_tcp_port_in_use:LINE: unable to retrieve network ports"
    ]
    assert set_settings(camera, {HTTP_PORT: 9000}).response == answer(
        error(11, "Proposed port is in use", HTTP_PORT)
    )


def test_a_stored_port_gone_bad_can_be_replaced(camera: Camera) -> None:
    camera.stop_daemon()
    plant(camera, {"Webserver.HTTP.Port": '"80;\\nlisten 9999"'})
    start(camera)
    assert camera.read_file(FRAGMENT) == fragment("listen [::]:0 ipv6only=on;", "listen 0;")
    assert set_settings(camera, {HTTP_PORT: 8080}).response == SUCCESS
    assert camera.read_file(FRAGMENT) == fragment("listen [::]:8080 ipv6only=on;", "listen 8080;")


def test_a_switch_that_is_no_boolean_is_refused(camera: Camera) -> None:
    request: dict[str, Any] = {HTTPS_ENABLED: "true"}
    assert set_settings(camera, request) == refusal(
        request, error(3, "Value wasn't a boolean", HTTPS_ENABLED)
    )
