"""The folder of generated files, and the links under /etc that lead there."""

from __future__ import annotations

import os
import re
import stat
from collections.abc import Callable, Iterator
from typing import Any

import pytest
from expectations import (
    HOSTNAME,
    MANUAL_IPV4,
    RELOAD_NTP_KEEPER,
    SUCCESS,
    Outcome,
    console,
    done,
    lines_of_level,
    masked,
    set_settings,
    start,
)
from service_cameras import link_at, started

from camlab import Camera, Command
from camlab.namespaces import MS_BIND, MS_RDONLY, MS_REMOUNT
from camlab.web_server import MAIN_FILE

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

FOLDER = "/tmp/.quarn"
LINK, TARGET = "/etc/resolv.conf", "/tmp/.quarn/resolv.conf"
NO_SERVERS = "# written by quarn\n\n# DNS is enabled, but no servers were found.\n"
APPLYING = "<6>apply_settings: Writing resolv.conf"
WROTE = console("Wrote /etc/resolv.conf", "quarn_write_resolvconf")
MISSING = f"<4>open_file: recreating missing {LINK} symlink"
CHANGING = f"<5>open_file: changing {LINK} to symlink"
CANNOT_LINK = f"<2>open_file:LINE: can't create {LINK} symlink"
CANNOT_OPEN = [
    f"<2>open_file:LINE: can't open {TARGET} for write",
    "<2>quarn_write_resolvconf:LINE: Cannot create resolv.conf",
]
CANNOT_WRITE = f"<2>quarn_write_resolvconf:LINE: Cannot write {LINK}"


def correcting(old: str) -> str:
    return f"<4>open_file: correcting {LINK} symlink target from {old} to {TARGET}"


@pytest.fixture
def domains() -> Iterator[str]:
    """Domains, each another one."""
    return (f"d{number}.example" for number in range(1000))


@pytest.fixture
def write(make_camera: MakeCamera, domains: Iterator[str]) -> Callable[[Camera], Outcome]:
    """Have resolv.conf written, and nothing else."""
    return lambda camera: set_settings(camera, {"[Hostname]Domain": next(domains)})


Write = Callable[[Camera], Outcome]


def written(*log: str) -> Outcome:
    return Outcome(SUCCESS, [], [APPLYING, *log, *WROTE])


def failed(*log: str) -> Outcome:
    """The setting stands, and the log says what became of the file."""
    return Outcome(SUCCESS, [], [APPLYING, *log])


# The links


def put_nothing(_: Camera) -> None:
    pass


def put_file(camera: Camera) -> None:
    camera.write_file(LINK, "nameserver 203.0.113.66\n")


def put_fifo(camera: Camera) -> None:
    camera.run(["mkfifo", LINK], check=True)


LONG_PATH = "/run/" + "x" * 100


@pytest.mark.parametrize(
    ("put", "log"),
    [
        pytest.param(put_nothing, MISSING, id="missing"),
        pytest.param(put_file, CHANGING, id="a regular file"),
        pytest.param(put_fifo, CHANGING, id="a FIFO"),
        pytest.param("/run/resolv.conf", correcting("/run/resolv.conf"), id="a link elsewhere"),
        pytest.param("/nowhere", correcting("/nowhere"), id="a dangling link"),
        pytest.param(
            "../tmp/.quarn/resolv.conf",
            correcting("../tmp/.quarn/resolv.conf"),
            id="a relative link",
        ),
        pytest.param(LONG_PATH, correcting(LONG_PATH[:63]), id="a link longer than 63 bytes"),
        pytest.param(f"{TARGET}x", correcting(f"{TARGET}x"), id="a link with more behind it"),
        pytest.param(TARGET[:-1], correcting(TARGET[:-1]), id="a link with less of it"),
    ],
)
def test_whatever_stands_under_etc_becomes_the_link(
    make_camera: MakeCamera, write: Write, put: Callable[[Camera], None] | str, log: str
) -> None:
    camera = started(make_camera)
    camera.write_file("/run/resolv.conf", "somebody else's\n")
    camera.files.remove(LINK)
    if isinstance(put, str):
        camera.files.link(LINK, put)
    else:
        put(camera)
    assert write(camera) == written(log)
    assert link_at(camera, LINK) == TARGET
    assert camera.read_file(LINK) == camera.read_file(TARGET) == NO_SERVERS
    assert camera.read_file("/run/resolv.conf") == "somebody else's\n"
    # It is mended once.
    assert write(camera) == written()


def test_the_right_link_is_not_touched(make_camera: MakeCamera, write: Write) -> None:
    camera = started(make_camera)
    before = camera.files.stat(LINK)
    assert write(camera) == written()
    after = camera.files.stat(LINK)
    assert (after.st_ino, after.st_ctime_ns) == (before.st_ino, before.st_ctime_ns)


def test_a_directory_in_place_of_a_link_stays_and_the_file_is_written_beside(
    make_camera: MakeCamera, write: Write
) -> None:
    camera = started(make_camera)
    camera.files.remove(LINK)
    camera.write_file(f"{LINK}/kept", "kept\n")
    camera.files.remove(TARGET)
    assert write(camera) == written(CHANGING, CANNOT_LINK)
    assert camera.read_file(f"{LINK}/kept") == "kept\n"
    assert camera.read_file(TARGET) == NO_SERVERS
    # Once it is gone, the next write mends the link.
    camera.run(["rm", "-r", LINK], check=True)
    assert write(camera) == written(MISSING)
    assert link_at(camera, LINK) == TARGET


@pytest.mark.parametrize(
    ("old", "log"), [("", [MISSING]), ("file", [CHANGING]), ("/nowhere", [correcting("/nowhere")])]
)
def test_a_read_only_etc_keeps_its_link_and_the_file_is_written(
    make_camera: MakeCamera, write: Write, old: str, log: list[str]
) -> None:
    camera = started(make_camera)
    camera.files.remove(LINK)
    if old == "file":
        put_file(camera)
    elif old:
        camera.files.link(LINK, old)
    camera.files.remove(TARGET)
    camera.mount("/etc", "/etc", flags=MS_BIND)
    camera.mount("", "/etc", flags=MS_BIND | MS_REMOUNT | MS_RDONLY)
    assert write(camera) == written(*log, CANNOT_LINK)
    assert camera.read_file(TARGET) == NO_SERVERS


def test_the_start_makes_a_link_of_each_file(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    for name in ("resolv.conf", "ntp.conf", "hostname"):
        camera.files.remove(f"/etc/{name}")
    camera.write_file("/etc/hostname", "before\n")
    camera.files.link("/etc/ntp.conf", "ntpsec/ntp.conf")
    assert start(camera) == ["READY=1"]
    assert [line for line in masked(camera.log_lines()) if "open_file:" in line] == [
        "<5>open_file: changing /etc/hostname to symlink",
        MISSING,
        "<4>open_file: correcting /etc/ntp.conf symlink target from ntpsec/ntp.conf"
        " to /tmp/.quarn/ntp.conf",
    ]
    for name in ("resolv.conf", "ntp.conf", "hostname"):
        assert link_at(camera, f"/etc/{name}") == f"/tmp/.quarn/{name}"
        state = camera.files.stat(f"{FOLDER}/{name}")
        assert (state.st_mode, state.st_uid) == (0o100644, 0)
    assert camera.files.stat(FOLDER).st_mode == 0o40755


# The folder


def test_a_missing_folder_is_made(make_camera: MakeCamera, write: Write) -> None:
    camera = started(make_camera)
    camera.run(["rm", "-r", FOLDER], check=True)
    assert write(camera) == written()
    assert camera.files.stat(FOLDER).st_mode == 0o40755
    assert camera.read_file(LINK) == NO_SERVERS


def plant_folder(owner: str, mode: str) -> Callable[[Camera], None]:
    def put(camera: Camera) -> None:
        camera.run(["install", "-d", "-o", owner, "-m", mode, FOLDER], check=True)
        camera.files.link(TARGET, "/etc/victim")

    return put


def plant_link(camera: Camera) -> None:
    camera.run(["install", "-d", "-m", "755", "/run/theirs"], check=True)
    camera.files.link(FOLDER, "/run/theirs")


def plant_file(camera: Camera) -> None:
    camera.write_file(FOLDER, "no folder\n")


PLANTED = [
    pytest.param(plant_folder("nobody", "755"), id="somebody else's"),
    pytest.param(plant_folder("root", "777"), id="open to others"),
    pytest.param(plant_folder("root", "775"), id="open to its group"),
    pytest.param(plant_link, id="a link"),
    pytest.param(plant_file, id="a file"),
]


@pytest.mark.parametrize("plant", PLANTED)
def test_a_folder_that_others_may_write_is_set_aside(
    make_camera: MakeCamera, write: Write, plant: Callable[[Camera], None]
) -> None:
    camera = started(make_camera)
    camera.write_file("/etc/victim", "kept\n")
    camera.run(["rm", "-r", FOLDER], check=True)
    plant(camera)
    before = camera.files.stat(FOLDER)
    outcome = write(camera)
    [aside] = [name for name in camera.files.names("/tmp") if name.startswith(".quarn.")]
    assert re.fullmatch(r"\.quarn\.set-aside-\d+", aside)
    assert outcome == written(
        f"<4>prepare_generated_directory: {FOLDER} is not ours alone to write; "
        f"renaming it to /tmp/{aside}"
    )
    assert camera.files.stat(f"/tmp/{aside}").st_ino == before.st_ino
    assert camera.files.stat(FOLDER).st_mode == 0o40755
    assert camera.files.stat(FOLDER).st_uid == 0
    assert camera.read_file(LINK) == NO_SERVERS
    assert camera.read_file("/etc/victim") == "kept\n"
    if camera.files.exists("/run/theirs"):
        assert camera.files.names("/run/theirs") == []


def test_the_start_sets_a_planted_folder_aside(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    camera.write_file("/etc/victim", "kept\n")
    plant_folder("nobody", "777")(camera)
    for name in ("hostname", "ntp.conf", "nginx.conf", "iptables.rules", "ip6tables.rules"):
        camera.files.link(f"{FOLDER}/{name}", "/etc/victim")
    assert start(camera) == ["READY=1"]
    assert sum("is not ours alone to write" in line for line in camera.log_lines()) == 1
    assert camera.read_file("/etc/victim") == "kept\n"
    assert camera.read_file(LINK) == NO_SERVERS
    for name in ("hostname", "ntp.conf", "nginx.conf", "iptables.rules", "ip6tables.rules"):
        assert stat.S_ISREG(camera.files.stat(f"{FOLDER}/{name}").st_mode)


def test_a_folder_of_others_that_cannot_be_set_aside_is_not_written_in(
    make_camera: MakeCamera, write: Write
) -> None:
    camera = started(make_camera)
    # What is mounted cannot be renamed.
    camera.mount("tmpfs", FOLDER, "tmpfs", 0, "mode=1777")
    outcome = write(camera)
    assert outcome == failed(outcome.log[1], *CANNOT_OPEN)
    assert "is not ours alone to write; renaming it to" in outcome.log[1]
    assert camera.files.names(FOLDER) == []


# Links and other things in the folder

# The request that has a file written, and what follows when it cannot be.
WRITERS: dict[str, tuple[dict[str, Any], list[str], list[Command]]] = {
    "resolv.conf": (
        {"[DNS/Manual]Search": ["example"]},
        [
            *CANNOT_OPEN,
            "<6>apply_settings: Writing ntp.conf",
            *console("Wrote /etc/ntp.conf", "quarn_write_ntpconf"),
            "<6>apply_settings: Reloading NTPd",
        ],
        done(RELOAD_NTP_KEEPER),
    ),
    "ntp.conf": (
        {"[NTP]Enabled": False},
        [
            "<2>open_file:LINE: can't open /tmp/.quarn/ntp.conf for write",
            "<2>quarn_write_ntpconf:LINE: Cannot create ntp.conf",
            "<6>apply_settings: Reloading NTPd",
        ],
        done(RELOAD_NTP_KEEPER),
    ),
    "hostname": (
        {"[Hostname]Name": "cam01"},
        [
            "<2>open_file:LINE: can't open /tmp/.quarn/hostname for write",
            "<2>quarn_write_hostname:LINE: Cannot open hostname file /etc/hostname",
        ],
        HOSTNAME,
    ),
}


@pytest.mark.parametrize("name", WRITERS)
def test_a_planted_link_in_the_folder_is_not_followed(make_camera: MakeCamera, name: str) -> None:
    camera = started(make_camera)
    camera.write_file("/etc/victim", "kept\n")
    camera.files.link(f"{FOLDER}/{name}", "/etc/victim")
    camera.rule("/bin/hostname *", status=0)
    request, log, commands = WRITERS[name]
    outcome = set_settings(camera, request)
    assert outcome == Outcome(SUCCESS, commands, [outcome.log[0], *log])
    assert camera.read_file("/etc/victim") == "kept\n"
    assert link_at(camera, f"{FOLDER}/{name}") == "/etc/victim"


def plant_fifo(camera: Camera) -> None:
    camera.run(["mkfifo", TARGET], check=True)


def plant_folder_of_that_name(camera: Camera) -> None:
    camera.files.make_folder(TARGET)


@pytest.mark.parametrize("plant", [plant_fifo, plant_folder_of_that_name])
def test_what_is_no_file_in_the_folder_holds_nobody_up(
    make_camera: MakeCamera, write: Write, plant: Callable[[Camera], None]
) -> None:
    camera = started(make_camera)
    camera.files.remove(TARGET)
    plant(camera)
    assert write(camera) == failed(*CANNOT_OPEN)


def test_a_fifo_in_the_place_of_the_web_servers_main_file_holds_nobody_up(
    make_camera: MakeCamera,
) -> None:
    camera = started(make_camera)
    camera.files.remove(MAIN_FILE)
    camera.run(["mkfifo", MAIN_FILE], check=True)
    outcome = set_settings(camera, {"[Webserver/HTTP]Port": 8080})
    assert outcome.response == SUCCESS
    assert lines_of_level(outcome.log, 2, 4) == [
        "<4>quarn_write_nginxconf: Incorrect nginx.conf; rewriting it",
        "<2>quarn_write_nginxconf:LINE: Can't write nginx.conf",
    ]


# A full /tmp


def mount_small_tmp(camera: Camera, options: str) -> None:
    camera.mount("tmpfs", "/tmp", "tmpfs", 0, f"mode=1777,{options}")


def fill_tmp(camera: Camera) -> None:
    descriptor = camera.files.open("/tmp/filler", os.O_WRONLY | os.O_CREAT, 0o600)
    with open(descriptor, "wb", buffering=0) as file, pytest.raises(OSError, match="No space"):
        while True:
            file.write(bytes(4096))


def test_a_full_tmp_is_told_and_room_in_it_again_mends_the_file(
    make_camera: MakeCamera, write: Write
) -> None:
    camera = started(make_camera)
    mount_small_tmp(camera, "size=64k")
    fill_tmp(camera)
    assert write(camera) == failed(CANNOT_WRITE)
    camera.files.remove("/tmp/filler")
    assert write(camera) == written()
    assert camera.read_file(LINK) == NO_SERVERS


def test_a_file_that_was_there_keeps_its_room_in_a_full_tmp(
    make_camera: MakeCamera, write: Write
) -> None:
    camera = started(make_camera)
    mount_small_tmp(camera, "size=64k")
    assert write(camera) == written()
    fill_tmp(camera)
    assert write(camera) == written()
    assert camera.read_file(LINK) == NO_SERVERS


def test_a_tmp_without_room_for_a_name_is_told(make_camera: MakeCamera, write: Write) -> None:
    camera = started(make_camera)
    mount_small_tmp(camera, "nr_inodes=1")
    assert write(camera) == failed(*CANNOT_OPEN)


def test_the_camera_starts_with_a_full_tmp(make_camera: MakeCamera) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    mount_small_tmp(camera, "size=64k")
    fill_tmp(camera)
    # What reads its file as it is written fails: the host name tool, the packet filter.
    assert start(camera) == ["ERRNO=5", "READY=1"]
    log = masked(camera.log_lines())
    assert [line for line in log if "Cannot write /etc/" in line] == [
        "<2>quarn_write_hostname:LINE: Cannot write /etc/hostname",
        CANNOT_WRITE,
        "<2>quarn_write_ntpconf:LINE: Cannot write /etc/ntp.conf",
    ]
    assert not [line for line in log if line.startswith(("QUARN: Wrote /etc", "QUARN: Hostname"))]
    assert camera.get("[Hostname]Name") == "Corvy-0000000"
