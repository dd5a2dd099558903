################################################################################
#
# keywardd
#
################################################################################

KEYWARDD_VERSION = 0.1.0
# Where the source is kept is the product's own matter; keywardd.hash tells what to do with the checksum.
KEYWARDD_SITE = $(call qstrip,$(BR2_PACKAGE_KEYWARDD_SITE))
KEYWARDD_SOURCE = keywardd_$(KEYWARDD_VERSION).tar.xz
KEYWARDD_LICENSE = Apache-2.0
KEYWARDD_LICENSE_FILES = LICENSE
KEYWARDD_INSTALL_STAGING = YES
KEYWARDD_DEPENDENCIES = openssl cxxtools host-pkgconf

KEYWARDD_CONF_OPTS = -DKEYWARD_TESTS=OFF -DKEYWARD_BENCH=OFF

ifeq ($(BR2_PACKAGE_KEYWARDD_CTL),y)
KEYWARDD_CONF_OPTS += -DKEYWARD_CTL=ON
KEYWARDD_DEPENDENCIES += cli11
else
KEYWARDD_CONF_OPTS += -DKEYWARD_CTL=OFF
endif

# The daemon wants its user listed as a member of each of the groups.
define KEYWARDD_USERS
	- -1 kwnotify -1 - - - - Tell keywardd of changes
	- -1 kwadmin -1 - - - - Give services of keywardd commands
	- -1 kwkey -1 - - - - Read private keys
	- -1 kwca -1 - - - - Nobody but keywardd
	keyuser -1 keyuser -1 * - - kwnotify,kwadmin,kwkey,kwca Certificate daemon
endef

define KEYWARDD_PERMISSIONS
	/var/lib/keywarden d 755 keyuser keyuser - - - - -
endef

define KEYWARDD_STATE_FOLDER
	mkdir -p $(TARGET_DIR)/var/lib/keywarden
endef
KEYWARDD_POST_INSTALL_TARGET_HOOKS += KEYWARDD_STATE_FOLDER

# Both kinds of start-up files are installed with the daemon; what is not of this system is taken away again.
ifeq ($(BR2_INIT_SYSTEMD),y)
define KEYWARDD_DROP_OTHER_INIT
	rm -f $(TARGET_DIR)/etc/init.d/keywardd
endef
else
define KEYWARDD_DROP_OTHER_INIT
	mv $(TARGET_DIR)/etc/init.d/keywardd $(TARGET_DIR)/etc/init.d/S60keywardd
	rm -rf $(TARGET_DIR)/usr/lib/NetworkManager $(TARGET_DIR)/usr/lib/networkd-dispatcher
	rm -f $(TARGET_DIR)/usr/lib/systemd/system/key*ward* $(TARGET_DIR)/usr/lib/sysusers.d/keywardd.conf \
		$(TARGET_DIR)/usr/lib/tmpfiles.d/keywardd.conf
endef
endif
KEYWARDD_POST_INSTALL_TARGET_HOOKS += KEYWARDD_DROP_OTHER_INIT

$(eval $(cmake-package))
