# In place of Buildroot, as far as packaging/buildroot uses it: the package's own steps, done for real below TARGET_DIR.
INSTALL := install
define sep


endef
# Buildroot changes the kernel's configuration here.
KCONFIG_ENABLE_OPT = echo enable $(1)
cmake-package = $(if $(wildcard $(WEX_SITE)/CMakeLists.txt),,$(error WEX_SITE leads nowhere: $(WEX_SITE)))
include $(BR2_EXTERNAL_WEX_PATH)/external.mk
target:
	$(foreach hook,$(WEX_POST_INSTALL_TARGET_HOOKS),$($(hook))$(sep))
	$(WEX_INSTALL_INIT_SYSV)
kernel:
	@$(WEX_LINUX_CONFIG_FIXUPS)
version:
	@echo $(WEX_VERSION) $(wildcard $(WEX_SITE)/$(WEX_LICENSE_FILES))
