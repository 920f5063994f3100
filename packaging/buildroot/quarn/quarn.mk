################################################################################
#
# quarn
#
# Not built by this project's tests. It wants the source's place: set
# QUARN_SITE, or QUARN_OVERRIDE_SRCDIR to a checkout.
#
################################################################################

QUARN_VERSION = 0.1.0
QUARN_SITE ?= https://git.example.org/quarn.git
QUARN_SITE_METHOD = git
QUARN_LICENSE = MIT
QUARN_LICENSE_FILES = LICENSE
QUARN_DEPENDENCIES = cjson cli11 host-pkgconf libglib2 libubootenv sqlite systemd
QUARN_CONF_OPTS = \
	-DBUILD_TESTING=OFF \
	-DQUARN_BENCH=OFF \
	-DQUARN_UNIT_DIR=/usr/lib/systemd/system

# The DHCP client's default script would configure eth0 itself.
define QUARN_INSTALL_UDHCPC_SCRIPT
	mkdir -p $(TARGET_DIR)/usr/share/udhcpc
	ln -sf ../../lib/quarn/udhcpc.script \
		$(TARGET_DIR)/usr/share/udhcpc/default.script
endef
QUARN_POST_INSTALL_TARGET_HOOKS += QUARN_INSTALL_UDHCPC_SCRIPT

define QUARN_USERS
	- - quarn -1 - - - - Network configuration
endef

$(eval $(cmake-package))
