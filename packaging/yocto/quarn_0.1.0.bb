# Not built by this project's tests: a recipe for Yocto (kirkstone and later), as the builder of a camera image starts
# from. It wants the source in a Git repository of the layer's own: set QUARN_REPOSITORY and SRCREV.
SUMMARY = "Network configuration daemon of a camera, and its command line"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=6bb24f64bab489a6c035b3963f6dbaf1"

QUARN_REPOSITORY ?= "git://git.example.org/quarn.git;protocol=https;branch=main"
SRC_URI = "${QUARN_REPOSITORY}"
SRCREV = "${AUTOREV}"
S = "${WORKDIR}/git"

DEPENDS = "cjson glib-2.0 sqlite3 systemd libubootenv cli11 scdoc-native"
inherit cmake pkgconfig systemd useradd

# A camera maker's own framework takes the place of platform/linux: see docs/porting.md.
QUARN_PLATFORM ?= "linux"
EXTRA_OECMAKE = "-DBUILD_TESTING=OFF -DQUARN_BENCH=OFF -DQUARN_PLATFORM=${QUARN_PLATFORM} \
    -DQUARN_UNIT_DIR=${systemd_system_unitdir}"

PACKAGES =+ "quarnctl"
SYSTEMD_PACKAGES = "${PN} quarnctl"
SYSTEMD_SERVICE:${PN} = "quarn.service quarn-rdnssd.service quarn-wait-online.service"
SYSTEMD_SERVICE:quarnctl = "quarnctl-guard.path"

USERADD_PACKAGES = "${PN} quarnctl"
GROUPADD_PARAM:${PN} = "--system quarn"
GROUPADD_PARAM:quarnctl = "--system quarn"

FILES:quarnctl = "${bindir}/quarnctl ${systemd_system_unitdir}/quarnctl-guard.* ${nonarch_libdir}/tmpfiles.d/quarnctl.conf \
    ${nonarch_libdir}/sysusers.d/quarnctl.conf ${datadir}/bash-completion ${datadir}/zsh ${datadir}/fish"
FILES:${PN} += "${nonarch_libdir} ${datadir}/dbus-1"

# The tools that the daemon runs. busybox needs udhcpc, arping and route, with the paths that src/net names.
RDEPENDS:${PN} = "busybox dbus dhcp-client ethtool iproute2 iproute2-tc iptables net-tools procps"
RRECOMMENDS:${PN} = "quarnctl ndisc6-rdnssd"

# The DHCP clients' default scripts would configure eth0 themselves.
do_install:append() {
    install -d ${D}${sysconfdir}/udhcpc.d
    ln -sf ../../${nonarch_libdir}/quarn/udhcpc.script ${D}${sysconfdir}/udhcpc.d/50default
}
