# Stand-in for a Buildroot-like tree around one package, without a compiler: the programs come from
# PROGRAMS.
TARGET_DIR := $(WORK)/root
GWAD_PKGDIR = $(PACKAGE)/
qstrip = $(strip $(subst ",,$(1)))

define cmake-package
all:
	cmake -S $$(GWAD_SITE) -B $$(WORK)/build -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_BUILD_TYPE=Release $$(GWAD_CONF_OPTS)
	cp $$(PROGRAMS) $$(WORK)/build/
	DESTDIR=$$(TARGET_DIR) cmake --install $$(WORK)/build
	$$(foreach hook,$$(GWAD_TARGET_FINALIZE_HOOKS),$$(call $$(hook)))
endef

include $(PACKAGE)/gwad.mk
