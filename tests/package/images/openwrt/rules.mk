# In place of OpenWrt, as far as packaging/openwrt uses it: the package's own install steps, done for real below TARGET.
INSTALL_DIR := install -d -m0755
INSTALL_BIN := install -m0755
INSTALL_DATA := install -m0644
CP := cp -fpR
define BuildPackage
$(foreach word,TITLE SECTION CATEGORY,$(if $(findstring $(word):=,$(Package/$(1))),,$(error Package/$(1) has no $(word))))
package-$(1):
	$$(call Package/$(1)/install,$(TARGET)/$(1))
packages: package-$(1)
endef
.PHONY: packages dev prepare version
all: packages dev prepare version
dev:
	$(call Build/InstallDev,$(TARGET)/dev)
prepare:
	$(call Build/Prepare)
version:
	@echo $(PKG_VERSION) $(wildcard $(WEX_CHECKOUT)/$(PKG_LICENSE_FILES))
