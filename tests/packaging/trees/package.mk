# Stand-in for an OpenWrt-like tree's way to build a package, in its sources and without a compiler: the
# programs come from PROGRAMS.
PKG_BUILD_DIR := $(WORK)/build
PKG_INSTALL_DIR := $(PKG_BUILD_DIR)/install

define BuildPackage
all:
	$$(Build/Prepare)
	cd $$(PKG_BUILD_DIR) && cmake -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_BUILD_TYPE=Release $$(CMAKE_OPTIONS) .
	cp $$(PROGRAMS) $$(PKG_BUILD_DIR)/
	DESTDIR=$$(PKG_INSTALL_DIR) cmake --install $$(PKG_BUILD_DIR)
	$$(call Package/$(1)/install,$$(WORK)/root)
endef
