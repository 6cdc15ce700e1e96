################################################################################
#
# gwad
#
################################################################################

GWAD_VERSION = 0.1
GWAD_SITE = $(or $(call qstrip,$(BR2_PACKAGE_GWAD_SOURCE)),$(GWAD_PKGDIR)/src)
GWAD_SITE_METHOD = local
GWAD_LICENSE = MIT
GWAD_LICENSE_FILES = LICENSE

GWAD_CONF_OPTS = \
	-DBUILD_TESTING=OFF \
	-DGWAD_MAIN_DOMAIN=$(call qstrip,$(BR2_PACKAGE_GWAD_MAIN_DOMAIN)) \
	-DGWAD_BACKUP_DOMAIN=$(call qstrip,$(BR2_PACKAGE_GWAD_BACKUP_DOMAIN)) \
	-DGWAD_BACKUP_ADDRESS=$(call qstrip,$(BR2_PACKAGE_GWAD_BACKUP_ADDRESS))

# rcS and rcK run the init script, and so does gwad when it restarts: whatever its name is.
ifeq ($(BR2_PACKAGE_GWAD_RESPAWN),y)
GWAD_CONF_OPTS += -DGWAD_SUPERVISED=ON -DGWAD_INIT_SCRIPT=/usr/libexec/gwad-restart

define GWAD_INITTAB
	grep -q gwad-run $(TARGET_DIR)/etc/inittab || \
		echo '::respawn:/usr/sbin/gwad-run' >>$(TARGET_DIR)/etc/inittab
endef
GWAD_TARGET_FINALIZE_HOOKS += GWAD_INITTAB
else
GWAD_CONF_OPTS += -DGWAD_INIT_SCRIPT=/etc/init.d/S99gwad
endif

$(eval $(cmake-package))
