################################################################################
#
# wex
#
################################################################################

# Built from the checkout that this tree is a part of.
WEX_VERSION = 1.0.0
WEX_SITE = $(BR2_EXTERNAL_WEX_PATH)/../..
WEX_SITE_METHOD = local
WEX_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude /build
WEX_LICENSE = MIT
WEX_LICENSE_FILES = LICENSE
WEX_INSTALL_STAGING = YES
WEX_CONF_OPTS = -DWEX_BUILD_TESTS=OFF

# What the kernel must offer, from the fragment that tools/check-kernel reads too.
WEX_KERNEL_OPTIONS = $(shell sed -n 's/^\(CONFIG_[A-Z0-9_]*\)=y$$/\1/p' $(BR2_EXTERNAL_WEX_PATH)/../kernel/wex.config)

define WEX_LINUX_CONFIG_FIXUPS
	$(foreach option,$(WEX_KERNEL_OPTIONS),$(call KCONFIG_ENABLE_OPT,$(option))$(sep))
endef

define WEX_INSTALL_DEFAULTS
	$(INSTALL) -D -m 0644 $(BR2_EXTERNAL_WEX_PATH)/../init/wex.default \
		$(TARGET_DIR)/etc/default/wex
endef
WEX_POST_INSTALL_TARGET_HOOKS += WEX_INSTALL_DEFAULTS

# The unit is installed with the rest, as is /etc/init.d/wex, which S05wex calls.
define WEX_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(BR2_EXTERNAL_WEX_PATH)/package/wex/S05wex \
		$(TARGET_DIR)/etc/init.d/S05wex
endef

$(eval $(cmake-package))
