# shellcheck shell=bash disable=SC2034 # the lists are used by those who source this file
# Sourced by ./run and ./test: the Debian packages that each kind of work needs, and their installation.

BUILD_PACKAGES="g++ cmake ninja-build pkg-config libcjson-dev libglib2.0-dev libsystemd-dev libsqlite3-dev
    libubootenv-dev libgtest-dev libcli11-dev scdoc"
# What the camera's system has: the tools that the daemon runs, the bus, and the camera program's own needs; then
# what its LAN has.
CAMERA_PACKAGES="dbus systemd iproute2 net-tools busybox hostname ethtool iptables procps sysvinit-utils
    isc-dhcp-client rdnssd nginx-light openssl libubootenv-tool python3 python3-jeepney
    dnsmasq-base curl iperf3"
TEST_PACKAGES="python3-pytest python3-pytest-xdist clang clang-format clang-tidy libclang-rt-14-dev git shellcheck
    ntpsec fish zsh"
# What builds the Debian packages and boots a clean machine to try them on.
PACKAGE_PACKAGES="dpkg-dev debhelper lintian mmdebstrap systemd-container"
ARM64_PACKAGES="crossbuild-essential-arm64 qemu-user-static libcjson-dev:arm64 libglib2.0-dev:arm64 libsystemd-dev:arm64
    libsqlite3-dev:arm64 libubootenv-dev:arm64 libgtest-dev:arm64 libstdc++6:arm64"
# They are for the camera only: this machine's own services stay as they are.
SERVICES_NOT_WANTED="nginx rdnssd ntpsec"

# A name without an architecture is this machine's; another's package of that name does not count.
is_installed() {
    local own
    own=$(dpkg --print-architecture)
    case "$1" in
    *:*) own=${1##*:} ;;
    esac
    dpkg-query -W -f '${Architecture} ${Status}\n' "$1" 2>/dev/null |
        grep -qxE "($own|all) install ok installed"
}

# install_packages PACKAGE...: installs those that are missing, if any, and starts and enables none of their services.
install_packages() {
    local missing=() package policy=/usr/sbin/policy-rc.d had_policy=yes
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    echo "installing: ${missing[*]}"
    if [ ! -e "$policy" ]; then
        had_policy=no
        printf '#!/bin/sh\nexit 101\n' >"$policy"
        chmod 755 "$policy"
    fi
    local result=0 service
    { apt-get update -qq &&
        DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null; } ||
        result=$?
    [ "$had_policy" = yes ] || rm -f "$policy"
    for service in $SERVICES_NOT_WANTED; do
        case " ${missing[*]} " in
        *" $service"*) systemctl disable "$service" >/dev/null 2>&1 || true ;;
        esac
    done
    return $result
}

need_root() {
    [ "$(id -u)" -eq 0 ] && return 0
    echo "$0: network namespaces and package installation need root: run 'sudo $0'" >&2
    exit 1
}
