"""The certificate of the web server: its file, its authority, and what a browser is shown."""

from __future__ import annotations

import re
import stat
from collections.abc import Callable
from typing import Any

import pytest
from expectations import (
    MANUAL_ADDRESS,
    MANUAL_IPV4,
    RELOAD_WEB_SERVER,
    SUCCESS,
    error,
    lines_of_level,
    refusal,
    set_settings,
    start,
)
from stored_settings import plant, stored
from web import (
    FRAGMENT,
    PAGE,
    Certificate,
    fetch,
    install_web_server,
    listeners,
    make_certificate,
    start_nginx,
    wait_listeners,
    wait_page,
)

from camlab import Camera, Command

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

HTTP_ENABLED = "[Webserver/HTTP]Enabled"
HTTPS_ENABLED = "[Webserver/HTTPS]Enabled"
CERTIFICATE = "[Webserver/HTTPS]Certificate"
AUTHORITY = "[Webserver/HTTPS]Authority"
PEM, AUTHORITY_PEM = "/etc/camera.pem", "/etc/authority.pem"
CHAIN = "/tmp/.quarn/chained_cert.pem"
HTTP_LISTENERS = ("0.0.0.0:80", "[::]:80")
BOTH_LISTENERS = (*HTTP_LISTENERS, "0.0.0.0:443", "[::]:443")
LISTEN = "# written by quarn\nlisten [::]:80 ipv6only=on;\nlisten 80;\n"
LISTEN_BOTH = f"{LISTEN}listen [::]:443 ipv6only=on ssl;\nlisten 443 ssl;\n"


def fragment_with(path: str) -> str:
    """The generated file of a camera that serves HTTP, and HTTPS with this certificate."""
    return (
        f"{LISTEN_BOTH}ssl_certificate {path};\nssl_certificate_key {path};\n"
        "ssl_protocols TLSv1.2;\n"
    )


@pytest.fixture(scope="module")
def authority() -> Certificate:
    """Return an authority that signs for cameras."""
    return make_certificate("authority")


@pytest.fixture(scope="module")
def certificate(authority: Certificate) -> Certificate:
    """Return the camera's certificate, signed by the authority."""
    return make_certificate("camera", issuer=authority)


@pytest.fixture
def camera(make_camera: MakeCamera, authority: Certificate, certificate: Certificate) -> Camera:
    """Return a camera whose nginx serves HTTP and can be reloaded, and a host on its LAN."""
    camera = make_camera(variables=MANUAL_IPV4)
    install_web_server(camera)
    camera.write_file(PEM, certificate.both, 0o600)
    camera.write_file(AUTHORITY_PEM, authority.certificate)
    assert start(camera) == ["READY=1"]
    camera.lan.own("192.0.2.1")
    camera.recorder.run(RELOAD_WEB_SERVER)
    start_nginx(camera)
    wait_listeners(camera, *HTTP_LISTENERS)
    return camera


def shown_by(camera: Camera, *options: str) -> str:
    """What openssl on the LAN says about the camera's HTTPS."""
    command = ["openssl", "s_client", "-connect", f"{MANUAL_ADDRESS}:443", "-showcerts", *options]
    done = camera.lan.run(command, input="")
    return done.stdout + done.stderr


def shown_chain(camera: Camera) -> list[str]:
    """The certificates that the camera presents, as PEM texts in their order."""
    text = shown_by(camera)
    return re.findall(r"-----BEGIN CERTIFICATE-----\n.*?-----END CERTIFICATE-----\n", text, re.S)


# What a browser is shown


def test_https_without_an_authority_presents_the_certificate_alone(
    camera: Camera, certificate: Certificate
) -> None:
    assert set_settings(camera, {HTTPS_ENABLED: True, CERTIFICATE: PEM}).response == SUCCESS
    assert camera.read_file(FRAGMENT) == fragment_with(PEM)
    wait_listeners(camera, *BOTH_LISTENERS)
    assert shown_chain(camera) == [certificate.certificate]


def test_https_with_an_authority_presents_the_chain(
    camera: Camera, certificate: Certificate, authority: Certificate
) -> None:
    request = {HTTPS_ENABLED: True, CERTIFICATE: PEM, AUTHORITY: AUTHORITY_PEM}
    assert set_settings(camera, request).response == SUCCESS
    assert camera.read_file(FRAGMENT) == fragment_with(CHAIN)
    assert camera.read_file(CHAIN) == f"{certificate.both}\n{authority.certificate}"
    assert stat.S_IMODE(camera.files.stat(CHAIN).st_mode) == 0o600
    wait_listeners(camera, *BOTH_LISTENERS)
    assert shown_chain(camera) == [certificate.certificate, authority.certificate]
    camera.lan.files.write("/authority.pem", authority.certificate)
    options = ["-CAfile", "/authority.pem", "-verify_return_error"]
    assert "Verify return code: 0 (ok)" in shown_by(camera, *options)


def test_a_cleared_authority_leaves_the_certificate_alone(
    camera: Camera, certificate: Certificate
) -> None:
    request = {HTTPS_ENABLED: True, CERTIFICATE: PEM, AUTHORITY: AUTHORITY_PEM}
    assert set_settings(camera, request).response == SUCCESS
    wait_listeners(camera, *BOTH_LISTENERS)
    assert set_settings(camera, {AUTHORITY: None}).response == SUCCESS
    assert camera.read_file(FRAGMENT) == fragment_with(PEM)
    camera.wait_until(
        lambda: shown_chain(camera) == [certificate.certificate], "one certificate is presented"
    )


def test_https_speaks_tls_1_2_only(camera: Camera) -> None:
    assert set_settings(camera, {HTTPS_ENABLED: True, CERTIFICATE: PEM}).response == SUCCESS
    wait_listeners(camera, *BOTH_LISTENERS)
    assert "New, TLSv1.2, Cipher is " in shown_by(camera)
    assert "New, TLSv1.2, Cipher is " in shown_by(camera, "-tls1_2")
    for version in ("-tls1_1", "-tls1_3"):
        # Security level 0 lets this client itself speak the old version.
        assert "Cipher is (NONE)" in shown_by(camera, version, "-cipher", "DEFAULT@SECLEVEL=0")


# A certificate that has gone


def test_without_its_certificate_file_the_camera_starts_with_http(camera: Camera) -> None:
    request = {HTTPS_ENABLED: True, CERTIFICATE: PEM, HTTP_ENABLED: False}
    assert set_settings(camera, request).response == SUCCESS
    wait_listeners(camera, "0.0.0.0:443", "[::]:443")
    camera.stop_daemon()
    camera.files.remove(PEM)
    assert start(camera) == ["READY=1"]
    assert lines_of_level(camera.log_lines(), 2, 3) == [
        "<3>disable_ssl_on_no_cert: HTTPS Certificate not found.  Disabling HTTPS."
    ]
    assert camera.read_file(FRAGMENT) == LISTEN
    assert (camera.get(HTTP_ENABLED), camera.get(HTTPS_ENABLED)) == (True, False)
    switches = {name: value for name, value in stored(camera).items() if name.endswith("Enabled")}
    assert switches["Webserver.HTTP.Enabled"] is True
    assert switches["Webserver.HTTPS.Enabled"] is False
    assert camera.get(CERTIFICATE) == PEM
    # The packet filter of the same start has the new switches.
    rules = camera.read_file("/tmp/.quarn/iptables.rules")
    assert ("# HTTP Port\n" in rules, "# HTTPS Port\n" in rules) == (True, False)
    camera.run(["/usr/sbin/nginx", "-s", "reload"], check=True)
    wait_page(camera, f"http://{MANUAL_ADDRESS}/")


def test_a_change_finds_a_certificate_gone(camera: Camera) -> None:
    assert set_settings(camera, {HTTPS_ENABLED: True, CERTIFICATE: PEM}).response == SUCCESS
    wait_listeners(camera, *BOTH_LISTENERS)
    camera.files.remove(PEM)
    outcome = set_settings(camera, {"[Webserver/HTTP]Port": 8080})
    assert outcome.response == SUCCESS
    # HTTP was on before, which the store takes for a failed save.
    assert lines_of_level(outcome.log, 2, 3) == [
        "<3>disable_ssl_on_no_cert: HTTPS Certificate not found.  Disabling HTTPS.",
        f"<3>set_json_value: JSON key {HTTP_ENABLED} fails ave_func",
    ]
    assert camera.read_file(FRAGMENT) == LISTEN.replace("80;", "8080;").replace("80 i", "8080 i")
    wait_listeners(camera, "0.0.0.0:8080", "[::]:8080")


def test_enabling_https_while_the_stored_certificate_has_gone_is_refused(camera: Camera) -> None:
    assert set_settings(camera, {CERTIFICATE: PEM}).response == SUCCESS
    camera.files.remove(PEM)
    requests: list[dict[str, Any]] = [
        {HTTPS_ENABLED: True},
        {HTTPS_ENABLED: True, CERTIFICATE: None},
    ]
    for request in requests:
        assert set_settings(camera, request) == refusal(
            request, error(10, "Missing HTTPS certificate", HTTPS_ENABLED)
        )
    assert camera.get(HTTPS_ENABLED) is False


def test_a_stored_certificate_that_is_no_text_leaves_https_without_one(camera: Camera) -> None:
    camera.stop_daemon()
    plant(camera, {"Webserver.HTTPS.Enabled": "true", "Webserver.HTTPS.Certificate": "7"})
    assert start(camera) == ["READY=1"]
    assert camera.read_file(FRAGMENT) == LISTEN_BOTH
    not_a_text = f"<3>get_string: {CERTIFICATE} value is not a JSON string or NULL"
    assert set(lines_of_level(camera.log_lines(), 2, 3)) == {not_a_text}


def test_an_authority_that_has_gone_leaves_no_certificate_lines_and_the_old_server(
    camera: Camera, certificate: Certificate
) -> None:
    assert set_settings(camera, {HTTPS_ENABLED: True, CERTIFICATE: PEM}).response == SUCCESS
    wait_listeners(camera, *BOTH_LISTENERS)
    assert set_settings(camera, {AUTHORITY: AUTHORITY_PEM}).response == SUCCESS
    camera.wait_until(lambda: len(shown_chain(camera)) == 2, "the chain is presented")
    camera.files.remove(AUTHORITY_PEM)
    outcome = set_settings(camera, {"[Webserver/HTTP]Port": 8080})
    assert outcome.response == SUCCESS
    assert lines_of_level(outcome.log, 2, 3) == [
        f"<2>copy_file:LINE: Could not open file: {AUTHORITY_PEM}",
        "<2>generate_certificate_chain:LINE: Could not copy ssl_authority certificate file: "
        f"{AUTHORITY_PEM}",
        "<2>quarn_write_nginxconf:LINE: Failed to generate Nginx ssl certificate chain",
        "<3>reload_webserver: While reloading webserver, received code 1 on "
        f"'{RELOAD_WEB_SERVER}'",
    ]
    assert camera.read_file(FRAGMENT) == LISTEN_BOTH.replace("80;", "8080;").replace(
        "80 i", "8080 i"
    )
    assert listeners(camera) == set(BOTH_LISTENERS)
    assert shown_chain(camera)[0] == certificate.certificate


def test_an_authority_without_a_certificate_makes_no_chain(camera: Camera) -> None:
    outcome = set_settings(camera, {HTTPS_ENABLED: True, AUTHORITY: AUTHORITY_PEM})
    assert outcome.response == SUCCESS
    assert lines_of_level(outcome.log, 2) == [
        "<2>generate_certificate_chain:LINE: ssl certificate or ssl_authority file missing for "
        "cert chain generation",
        "<2>quarn_write_nginxconf:LINE: Failed to generate Nginx ssl certificate chain",
    ]
    assert camera.read_file(FRAGMENT) == LISTEN_BOTH
    assert not camera.files.exists(CHAIN)


@pytest.mark.parametrize("maker", ["mkdir", "mkfifo"])
def test_a_folder_or_fifo_in_the_place_of_the_chain_is_told(camera: Camera, maker: str) -> None:
    camera.run([maker, CHAIN], check=True)
    request = {HTTPS_ENABLED: True, CERTIFICATE: PEM, AUTHORITY: AUTHORITY_PEM}
    outcome = set_settings(camera, request)
    assert lines_of_level(outcome.log, 2) == [
        f"<2>generate_certificate_chain:LINE: Could not open ssl cert chain file {CHAIN}",
        "<2>quarn_write_nginxconf:LINE: Failed to generate Nginx ssl certificate chain",
    ]


# Paths


@pytest.mark.parametrize(
    ("path", "written"),
    [
        ("/etc/my camera.pem", '"/etc/my camera.pem"'),
        ('/etc/"quoted".pem', r'"/etc/\"quoted\".pem"'),
        ("/etc/it's.pem", '"/etc/it\'s.pem"'),
        ("/etc/a;b{c}#d.pem", '"/etc/a;b{c}#d.pem"'),
        (r"/etc/back\slash\n.pem", r'"/etc/back\\slash\\n.pem"'),
        ("/etc/Kamera-größe.pem", '"/etc/Kamera-größe.pem"'),
        ("/etc/Plain_1.2-3.pem", "/etc/Plain_1.2-3.pem"),
    ],
)
def test_a_certificate_is_served_from_any_path(
    camera: Camera, certificate: Certificate, path: str, written: str
) -> None:
    camera.write_file(path, certificate.both, 0o600)
    assert set_settings(camera, {HTTPS_ENABLED: True, CERTIFICATE: path}).response == SUCCESS
    assert camera.read_file(FRAGMENT).encode(errors="surrogateescape").decode() == (
        fragment_with(written)
    )
    wait_listeners(camera, *BOTH_LISTENERS)
    assert shown_chain(camera) == [certificate.certificate]


@pytest.mark.parametrize(
    "path",
    [
        "/etc/$host.pem",
        "/etc/two\nlines.pem",
        "/etc/a\x7fb.pem",
        "etc/relative.pem",
        "/etc/x;\nlisten 9999;#.pem",
    ],
)
def test_a_path_that_nginx_would_misread_is_not_written(
    camera: Camera, certificate: Certificate, path: str
) -> None:
    camera.write_file(f"/{path.removeprefix('/')}", certificate.both, 0o600)
    outcome = set_settings(camera, {HTTPS_ENABLED: True, CERTIFICATE: path})
    assert outcome.response == SUCCESS
    shown = re.sub(r"[\n\x7f]", lambda found: f"\\x{ord(found[0]):02x}", path)
    assert lines_of_level(outcome.log, 2, 3) == [
        f"<3>quarn_write_nginxconf: The certificate path '{shown}' cannot be given to nginx",
        "<3>reload_webserver: While reloading webserver, received code 1 on "
        f"'{RELOAD_WEB_SERVER}'",
    ]
    assert camera.read_file(FRAGMENT) == LISTEN_BOTH
    assert listeners(camera) == set(HTTP_LISTENERS)
    assert fetch(camera, f"http://{MANUAL_ADDRESS}/") == PAGE


def test_a_chain_is_made_of_files_with_any_path(
    camera: Camera, certificate: Certificate, authority: Certificate
) -> None:
    camera.write_file("/etc/$(reboot);.pem", certificate.both, 0o600)
    camera.write_file("/etc/two\nlines.pem", authority.certificate)
    request = {
        HTTPS_ENABLED: True,
        CERTIFICATE: "/etc/$(reboot);.pem",
        AUTHORITY: "/etc/two\nlines.pem",
    }
    assert set_settings(camera, request).response == SUCCESS
    wait_listeners(camera, *BOTH_LISTENERS)
    assert shown_chain(camera) == [certificate.certificate, authority.certificate]


# Bad values


@pytest.mark.parametrize("key", [CERTIFICATE, AUTHORITY])
@pytest.mark.parametrize(
    ("value", "code", "text"),
    [
        ("/etc/nowhere.pem", 4, "Not a file"),
        ("/etc", 4, "Not a file"),
        ("/dev/null", 4, "Not a file"),
        ("", 4, "Not a file"),
        (7, 3, "Value isn't a string"),
        ([PEM], 3, "Value isn't a string"),
    ],
)
def test_a_certificate_that_is_no_file_is_refused(
    camera: Camera, key: str, value: Any, code: int, text: str
) -> None:
    assert set_settings(camera, {key: value}) == refusal({key: value}, error(code, text, key))


def test_nginx_that_refuses_a_certificate_keeps_serving(camera: Camera) -> None:
    camera.write_file("/etc/garbage.pem", "this is no certificate\n")
    outcome = set_settings(camera, {HTTPS_ENABLED: True, CERTIFICATE: "/etc/garbage.pem"})
    assert outcome.response == SUCCESS
    assert Command(RELOAD_WEB_SERVER, 1) in outcome.commands
    assert listeners(camera) == set(HTTP_LISTENERS)
    assert fetch(camera, f"http://{MANUAL_ADDRESS}/") == PAGE
