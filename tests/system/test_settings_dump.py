"""The dump of all settings that SIGUSR1 asks for, and the folder that it is written to."""

from __future__ import annotations

import os
import re
import signal
import stat
from collections.abc import Callable

import pytest
from expectations import MANUAL_IPV4, lines_of_level, start, start_manual

from camlab import Camera

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

FOLDER = "/tmp/.quarn"
DUMP = f"{FOLDER}/current_settings.txt"
SIGNAL_LINE = "Quarn (Networking Configuration) - Received signal 10\n"

# A row that has no reader, or whose read fails, is missing.
SETTINGS = """\
[Settings]Apply = true
[IPv4]Enabled = true
[IPv4/DHCP]Enabled = false
[IPv4/DHCP]Address = null
[IPv4/DHCP]Netmask = null
[IPv4/DHCP]Gateways = []
[IPv4/VeskoConf]Address = null
[IPv4/LocalLink]Address = null
[IPv4/LocalLink]Enabled = false
[IPv4/Manual]Address = "192.0.2.10"
[IPv4/Manual]Netmask = 24
[IPv4/Manual]Gateways = ["192.0.2.1"]
[IPv4/Actual]Address = "192.0.2.10"
[IPv4/Actual]Netmask = 24
[IPv6]Enabled = true
[IPv6/LocalLink]Address = "fe80::200:5eff:fe00:5301/64"
[IPv6/Manual]Addresses = []
[IPv6/Manual]Gateways = []
[IPv6/Stateless]AcceptRA = true
[IPv6/Stateless]Addresses = []
[IPv6/Stateless]Gateways = []
[IPv6/Stateful]Enabled = true
[IPv6/Stateful]UseAddress = true
[IPv6/Stateful]Addresses = []
[IPv6/Actual]Addresses = ["fe80::200:5eff:fe00:5301/64"]
[IPv6/Actual]Gateways = []
[IPTables/Allow]IPv4List = []
[IPTables/Allow]IPv6List = []
[IPTables/Deny]IPv4List = []
[IPTables/Deny]IPv6List = []
[IPTables/Allow]TcpDestPorts = [22, 161, 8888]
[IPTables/Allow]TcpSourcePorts = []
[IPTables/Allow]UdpDestPorts = [123, 161, 546, 800, 1900, 2901, 3702, [7000, 8000], 30001]
[IPTables/Allow]UdpSourcePorts = [[6700, 8000]]
[IPTables/Allow]UdpSourceNfsPorts = [2049, [6700, 8000]]
[NTP]Enabled = true
[NTP/IPv4/DHCP]Enabled = true
[NTP/IPv4/DHCP]Servers = []
[NTP/IPv6/DHCP]Enabled = true
[NTP/IPv6/DHCP]Servers = []
[NTP/IPv6/Discovery]Enabled = true
[NTP/IPv6/Discovery]Servers = []
[NTP/Manual]Enabled = false
[NTP/Manual]Servers = []
[NIC/eth0]MAC = "00005E005301"
[NIC/eth0]MTU = 1500
[NIC/eth0]EUI64 = "200:5eff:fe00:5301"
[NIC/eth0/AutoNegotiated]Enabled = true
[NIC/eth0/AutoNegotiated]FullDuplex = true
[NIC/eth0/AutoNegotiated]LinkSpeed = 100
[NIC/eth0/Actual]Autonegotiated = true
[NIC/eth0/Actual]FullDuplex = true
[NIC/eth0/Actual]LinkSpeed = 100
[NIC/eth0/Manual]FullDuplex = true
[NIC/eth0/Manual]LinkSpeed = 100
[NIC/eth0/Supported]LinkSpeed = 1000
[TrafficShaping]Enabled = true
[TrafficShaping]AvgRateLimit = 80000
[TrafficShaping]BurstSize = 10240
[TrafficShaping]Rtp/BurstPercent = 100
[TrafficShaping]Rtp/CeilPercent = 100
[TrafficShaping]LowLatency/Rate = 90
[TrafficShaping]LowLatency/BurstPercent = 100
[TrafficShaping]LowLatency/CeilPercent = 85
[TrafficShaping]Bulk/Rate = 400
[TrafficShaping]Bulk/BurstPercent = 100
[TrafficShaping]Bulk/CeilPercent = 100
[TrafficShaping]Misc/Rate = 10
[TrafficShaping]Misc/BurstPercent = 100
[TrafficShaping]Misc/CeilPercent = 80
[TrafficShaping]MinAvgRateLimit = 12500
[TrafficShaping]BurstTime = 1
[DNS]Enabled = true
[DNS/IPv4/DHCP]Enabled = true
[DNS/IPv4/DHCP]Servers = []
[DNS/IPv4/DHCP]Search = []
[DNS/IPv6/DHCP]Enabled = true
[DNS/IPv6/DHCP]Servers = []
[DNS/IPv6/DHCP]Search = []
[DNS/IPv6/Discovery]Enabled = true
[DNS/IPv6/Discovery]Servers = []
[DNS/IPv6/Discovery]Search = []
[DNS/Manual]Enabled = true
[DNS/Manual]Servers = []
[DNS/Manual]Search = []
[Hostname]Name = "Corvy-0000000"
[Hostname]Domain = null
[Webserver/HTTP]Enabled = true
[Webserver/HTTP]Port = 80
[Webserver/HTTPS]Enabled = false
[Webserver/HTTPS]Port = 443
[Webserver/HTTPS]Certificate = null
[Webserver/HTTPS]Authority = null
[RTSP]Enabled = true
[RTSP]Port = 554
[NIC/eth0]SupportedModes = {
\t"full_duplex":\t[10, 100, 1000],
\t"half_duplex":\t[10, 100]
}
[IPv4/Manual]DefaultGateway = "192.0.2.1"
"""


def dump(camera: Camera) -> str:
    """Ask for the dump, and return it once the daemon is done with it."""
    lines = camera.stdout().count("\n")
    camera.daemon.process.send_signal(signal.SIGUSR1)
    camera.wait_until(lambda: camera.stdout().count("\n") > lines, "the signal's line")
    # The dump is written before the loop turns to the next request.
    assert camera.api_get([]) == {"success": True, "errors": []}
    return camera.read_file(DUMP)


def test_sigusr1_writes_every_readable_setting_in_table_order_and_ends_nothing(
    make_camera: MakeCamera,
) -> None:
    camera = start_manual(make_camera)
    assert dump(camera) == SETTINGS
    assert camera.stdout() == SIGNAL_LINE
    status = camera.files.stat(DUMP)
    assert (status.st_uid, stat.S_IMODE(status.st_mode)) == (0, 0o644)


def test_a_setting_whose_read_fails_is_missing_from_the_dump(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    camera.run(["ip", "-4", "address", "flush", "dev", "eth0"], check=True)
    lines = SETTINGS.splitlines(keepends=True)
    assert dump(camera) == "".join(line for line in lines if not line.startswith("[IPv4/Actual]"))


def test_each_dump_replaces_the_one_before_it(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    assert dump(camera) == SETTINGS
    camera.write_file(DUMP, SETTINGS * 2)
    camera.api_set({"[NIC/eth0]MTU": 1400})
    assert dump(camera) == SETTINGS.replace("MTU = 1500", "MTU = 1400")
    assert camera.stdout() == SIGNAL_LINE * 2


def test_a_dump_that_cannot_be_opened_is_not_written_and_the_daemon_lives(
    make_camera: MakeCamera,
) -> None:
    camera = start_manual(make_camera)
    camera.files.make_folder(DUMP)
    logged = camera.log_lines()
    with pytest.raises(IsADirectoryError):
        dump(camera)
    assert camera.files.names(DUMP) == []
    assert camera.log_lines() == logged
    assert camera.stop_daemon() == 0


def plant_folder(camera: Camera, owner: int, mode: int) -> None:
    """Make a folder with a file in place of the daemon's."""
    camera.files.make_folder(FOLDER)
    camera.write_file(DUMP, "planted")
    camera.run(["chown", str(owner), FOLDER], check=True)
    camera.run(["chmod", f"{mode:o}", FOLDER], check=True)


PLANTED = {
    "of another user": lambda camera: plant_folder(camera, 65534, 0o755),
    "writable by its group": lambda camera: plant_folder(camera, 0, 0o775),
    "writable by all": lambda camera: plant_folder(camera, 0, 0o777),
    "a link": lambda camera: camera.files.link(FOLDER, "/etc/quarn-target"),
    "a file": lambda camera: camera.write_file(FOLDER, "planted"),
}


@pytest.mark.parametrize("plant", PLANTED.values(), ids=PLANTED.keys())
def test_a_folder_that_is_not_the_daemons_alone_is_set_aside(
    make_camera: MakeCamera, plant: Callable[[Camera], None]
) -> None:
    camera = make_camera(variables=MANUAL_IPV4)
    camera.files.make_folder("/etc/quarn-target")
    plant(camera)
    planted = camera.files.stat(FOLDER)
    start(camera)
    assert dump(camera) == SETTINGS
    status = camera.files.stat(FOLDER)
    assert (status.st_uid, status.st_mode) == (0, stat.S_IFDIR | 0o755)
    [aside] = [name for name in camera.files.names("/tmp") if name != ".quarn"]
    assert re.fullmatch(r"\.quarn\.set-aside-\d+", aside)
    assert os.path.samestat(camera.files.stat(f"/tmp/{aside}"), planted)
    assert camera.files.names("/etc/quarn-target") == []
    warnings = [line for line in lines_of_level(camera.log_lines(), 4) if FOLDER in line]
    assert warnings == [
        "<4>prepare_generated_directory: /tmp/.quarn is not ours alone to write; "
        f"renaming it to /tmp/{aside}"
    ]


def test_a_link_in_place_of_the_dump_is_not_followed(make_camera: MakeCamera) -> None:
    camera = start_manual(make_camera)
    camera.write_file("/etc/target", "kept")
    camera.files.make_folder(FOLDER)
    camera.files.link(DUMP, "/etc/target")
    assert dump(camera) == "kept"
    assert camera.read_file("/etc/target") == "kept"
