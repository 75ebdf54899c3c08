################################################################################
#
# tavlo
#
################################################################################

# Built from the source tree that this file is in.
TAVLO_SITE = $(realpath $(BR2_EXTERNAL_TAVLO_PATH)/../..)
TAVLO_SITE_METHOD = local
TAVLO_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude=/build
TAVLO_VERSION = $(shell sed -n 's/^project.tavlo VERSION \([0-9.]*\).*/\1/p' $(TAVLO_SITE)/CMakeLists.txt)
TAVLO_LICENSE = none given
TAVLO_LICENSE_FILES = packaging/debian/copyright
TAVLO_REDISTRIBUTE = NO
TAVLO_DEPENDENCIES = host-pkgconf json-c libevent openssl rapidjson zlib
# The build splits the debug information off by itself.
TAVLO_CONF_OPTS = \
	-DBUILD_TESTING=OFF \
	-DCMAKE_OBJCOPY=$(TARGET_OBJCOPY) \
	-DCMAKE_STRIP=$(TARGET_CROSS)strip

define TAVLO_INSTALL_UTILS
	$(INSTALL) -D -m 0755 $(@D)/tavloctl $(TARGET_DIR)/usr/sbin/tavloctl
endef

define TAVLO_INSTALL_TARGET_CMDS
	$(INSTALL) -D -m 0755 $(@D)/tavlo $(TARGET_DIR)/usr/sbin/tavlo
	$(INSTALL) -D -m 0644 $(TAVLO_PKGDIR)/tavlo.json \
		$(TARGET_DIR)/etc/tavlo/tavlo.json
	$(INSTALL) -d -m 0755 $(TARGET_DIR)/etc/tavlo/agent \
		$(TARGET_DIR)/etc/tavlo/hooks/agent
	$(if $(BR2_PACKAGE_TAVLO_UTILS),$(TAVLO_INSTALL_UTILS))
endef

define TAVLO_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(TAVLO_PKGDIR)/S99tavlo \
		$(TARGET_DIR)/etc/init.d/S99tavlo
endef

define TAVLO_USERS
	tavlo -1 tavlo -1 * - - - tavlo
endef

$(eval $(cmake-package))
