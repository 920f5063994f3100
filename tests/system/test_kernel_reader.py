"""What the daemon reads from the kernel, beside what `ip` says of it."""

from __future__ import annotations

import ipaddress
from collections.abc import Callable

import pytest
from expectations import answer, compact, error, error_log, masked, start

from camlab import Camera

MakeCamera = Callable[..., Camera]

pytestmark = pytest.mark.quiet

IPV4 = ["[IPv4/Actual]Address", "[IPv4/Actual]Netmask"]
ACTUAL6 = "[IPv6/Actual]Addresses"
STATELESS = "[IPv6/Stateless]Addresses"
LINK_LOCAL6 = "[IPv6/LocalLink]Address"
MAC = "[NIC/eth0]MAC"
EUI64 = "[NIC/eth0]EUI64"
NO_DATA = "<4>get_netlink_info: no data returned"


@pytest.fixture
def bare_camera(make_camera: MakeCamera) -> Camera:
    """Return a camera without DHCP, whose daemon sets no address by itself."""
    camera = make_camera(variables={"vesko_ipv4_dhcp_enable": "0"})
    assert start(camera) == ["READY=1"]
    return camera


def add(camera: Camera, *arguments: str) -> None:
    """Give an interface an address by hand."""
    camera.run(["ip", "address", "add", *arguments], check=True)


def get_text(camera: Camera, *keys: str) -> str:
    """The whole response text of a get request."""
    return camera.api_get_text(compact({"settings": keys}))


def last_reported(camera: Camera, family: int) -> list[str]:
    """eth0's addresses in the reverse of the order in which the kernel reports them."""
    return camera.addresses(family)[::-1]


def set_mac(camera: Camera, mac: str) -> None:
    """Give eth0 another hardware address, and its IPv6 link-local address with it."""
    for change in (["down"], ["address", mac], ["up"]):
        camera.run(["ip", "link", "set", "dev", "eth0", *change], check=True)
    camera.wait_until(lambda: camera.addresses(6, "link"), "eth0 has a link-local address")


# IPv4


def test_the_actual_ipv4_address_is_the_kernels(bare_camera: Camera) -> None:
    add(bare_camera, "10.0.0.5/23", "dev", "eth0")
    assert get_text(bare_camera, *IPV4) == answer(
        success=True, **{IPV4[0]: "10.0.0.5", IPV4[1]: 23}
    )


def test_an_address_of_the_alias_is_never_the_actual_one(bare_camera: Camera) -> None:
    add(bare_camera, "169.254.7.8/16", "dev", "eth0")
    add(bare_camera, "192.168.0.20/24", "dev", "eth0", "label", "eth0:1")
    assert get_text(bare_camera, *IPV4) == answer(
        success=True, **{IPV4[0]: "169.254.7.8", IPV4[1]: 16}
    )


def test_with_the_alias_alone_there_is_no_actual_address(bare_camera: Camera) -> None:
    add(bare_camera, "192.168.0.20/24", "dev", "eth0", "label", "eth0:1")
    logged = len(bare_camera.log_lines())
    message = "Could not read value or default"
    assert get_text(bare_camera, *IPV4) == answer(*(error(1, message, key) for key in IPV4))
    readers = ("read_actual_ipv4_addr", "read_actual_ipv4_netmask")
    assert masked(bare_camera.log_lines()[logged:]) == [
        line
        for reader, key in zip(readers, IPV4)
        for line in (
            NO_DATA,
            f"<3>{reader}: Can't retrieve {key} value",
            error_log(1, message, key),
        )
    ]


def test_of_several_ipv4_addresses_the_last_reported_is_read(bare_camera: Camera) -> None:
    for address in ("10.0.0.5/24", "10.0.1.6/25", "10.0.0.7/24"):
        add(bare_camera, address, "dev", "eth0")
    address, length = last_reported(bare_camera, 4)[0].split("/")
    assert (address, length) == ("10.0.0.7", "24")
    assert get_text(bare_camera, *IPV4) == answer(
        success=True, **{IPV4[0]: address, IPV4[1]: int(length)}
    )


def test_addresses_of_other_interfaces_are_not_read(bare_camera: Camera) -> None:
    bare_camera.run(["ip", "tuntap", "add", "dev", "eth1", "mode", "tap"], check=True)
    add(bare_camera, "10.9.9.9/24", "dev", "eth1")
    add(bare_camera, "10.9.8.8/32", "dev", "lo")
    add(bare_camera, "2001:db8::9/64", "dev", "eth1", "nodad")
    add(bare_camera, "10.0.0.5/24", "dev", "eth0")
    assert bare_camera.get(IPV4[0]) == "10.0.0.5"
    assert bare_camera.get(ACTUAL6) == bare_camera.addresses(6, "link")


def test_the_local_end_of_a_peer_address_is_read(bare_camera: Camera) -> None:
    add(bare_camera, "10.0.0.5", "peer", "10.0.0.6/32", "dev", "eth0")
    assert get_text(bare_camera, *IPV4) == answer(
        success=True, **{IPV4[0]: "10.0.0.5", IPV4[1]: 32}
    )


# IPv6


def test_the_actual_ipv6_addresses_hold_the_link_local_one(bare_camera: Camera) -> None:
    assert bare_camera.addresses(6) == ["fe80::200:5eff:fe00:5301/64"]
    assert get_text(bare_camera, ACTUAL6, STATELESS, LINK_LOCAL6) == answer(
        success=True,
        **{
            ACTUAL6: ["fe80::200:5eff:fe00:5301/64"],
            STATELESS: [],
            LINK_LOCAL6: "fe80::200:5eff:fe00:5301/64",
        },
    )


def test_only_global_addresses_with_a_lifetime_are_stateless(bare_camera: Camera) -> None:
    lifetime = ("valid_lft", "9000", "preferred_lft", "8000")
    add(bare_camera, "2001:db8::1/64", "dev", "eth0", "nodad")
    add(bare_camera, "2001:db8::d/64", "dev", "eth0", "nodad", *lifetime)
    add(bare_camera, "2001:db8:1::e/128", "dev", "eth0", "nodad", *lifetime)
    add(bare_camera, "fe80::d/64", "dev", "eth0", "nodad", *lifetime)
    dynamic = [
        text for text in last_reported(bare_camera, 6) if text.endswith(("::d/64", "::e/128"))
    ]
    dynamic.remove("fe80::d/64")
    assert sorted(dynamic) == ["2001:db8:1::e/128", "2001:db8::d/64"]
    assert get_text(bare_camera, ACTUAL6, STATELESS) == answer(
        success=True, **{ACTUAL6: last_reported(bare_camera, 6), STATELESS: dynamic}
    )
    assert len(bare_camera.get(ACTUAL6)) == 5


def test_without_router_advertisements_nothing_is_stateless(bare_camera: Camera) -> None:
    off = {"[IPv6/Stateful]Enabled": False, "[IPv6/Stateless]AcceptRA": False}
    assert bare_camera.api_set(off)["success"]
    lifetime = ("valid_lft", "9000", "preferred_lft", "8000")
    add(bare_camera, "2001:db8::d/64", "dev", "eth0", "nodad", *lifetime)
    assert bare_camera.get(STATELESS) == []
    assert "2001:db8::d/64" in bare_camera.get(ACTUAL6)


def test_with_ipv6_off_there_are_no_ipv6_addresses(make_camera: MakeCamera) -> None:
    camera = make_camera(variables={"vesko_ipv4_dhcp_enable": "0", "vesko_ipv6_enable": "0"})
    assert start(camera) == ["READY=1"]
    assert get_text(camera, ACTUAL6, STATELESS, LINK_LOCAL6) == answer(
        success=True, **{ACTUAL6: [], STATELESS: [], LINK_LOCAL6: None}
    )


def test_more_addresses_than_one_receive_buffer_holds_are_all_read(bare_camera: Camera) -> None:
    lines = "".join(
        f"address add 2001:db8::{number:x}/64 dev eth0 nodad\n" for number in range(1, 401)
    )
    bare_camera.run(["ip", "-batch", "-"], input=lines, check=True)
    read = bare_camera.get(ACTUAL6)
    assert len(read) == 401
    assert read == last_reported(bare_camera, 6)


# The hardware address


def test_mac_eui64_and_link_local_address_follow_the_hardware_address(bare_camera: Camera) -> None:
    for mac, eui64 in {
        "00:00:5e:00:53:01": "200:5eff:fe00:5301",
        "00:11:22:33:44:55": "211:22ff:fe33:4455",
        "02:00:00:00:00:01": "ff:fe00:1",
        "02:00:5e:00:53:01": "5eff:fe00:5301",
        "02:ab:cd:ef:00:00": "ab:cdff:feef:0",
        "fe:ff:ff:ff:ff:ff": "fcff:ffff:feff:ffff",
    }.items():
        set_mac(bare_camera, mac)
        assert bare_camera.link()["address"] == mac
        assert get_text(bare_camera, MAC, EUI64, LINK_LOCAL6) == answer(
            success=True,
            **{
                MAC: mac.replace(":", "").upper(),
                EUI64: eui64,
                LINK_LOCAL6: f"fe80::{eui64}/64",
            },
        )
        kernels = ipaddress.ip_interface(bare_camera.addresses(6, "link")[0])
        assert ipaddress.ip_interface(bare_camera.get(LINK_LOCAL6)) == kernels


def test_an_mtu_too_small_for_ipv6_takes_the_hardware_address_out_of_sight(
    bare_camera: Camera,
) -> None:
    bare_camera.api_set({"[NIC/eth0]MTU": 1200})
    logged = len(bare_camera.log_lines())
    message = "Could not read value or default"
    # The kernel is asked for the links that have IPv6.
    assert get_text(bare_camera, MAC) == answer(error(1, message, MAC))
    assert masked(bare_camera.log_lines()[logged:]) == [
        NO_DATA,
        "<2>quarn_get_mac_addr:LINE: unable to retrieve mac address",
        f"<3>read_str_util_value: can't retrieve {MAC} value",
        error_log(1, message, MAC),
    ]
    bare_camera.api_set({"[NIC/eth0]MTU": 1500})
    assert bare_camera.get(MAC) == "00005E005301"


# A daemon at work


def test_reading_runs_no_command_and_leaves_no_descriptor_open(bare_camera: Camera) -> None:
    add(bare_camera, "10.0.0.5/24", "dev", "eth0")
    bare_camera.clear_commands()
    folder = f"/proc/{bare_camera.daemon.process.pid_inside}/fd"
    keys = [*IPV4, ACTUAL6, STATELESS, LINK_LOCAL6, MAC, EUI64]
    assert bare_camera.api_get(keys)["success"]
    descriptors = bare_camera.run(["ls", folder], check=True).stdout
    for _ in range(20):
        assert bare_camera.api_get(keys)["success"]
    assert bare_camera.run(["ls", folder], check=True).stdout == descriptors
    assert bare_camera.commands() == []
