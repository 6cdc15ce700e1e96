# Stand-in for the top of an OpenWrt-like tree, as far as a package uses it; package.mk is the rest.
INCLUDE_DIR := $(dir $(lastword $(MAKEFILE_LIST)))
INSTALL_DIR := install -d -m0755
INSTALL_BIN := install -m0755
INSTALL_CONF := install -m0600
INSTALL_DATA := install -m0644
qstrip = $(strip $(subst ",,$(1)))
