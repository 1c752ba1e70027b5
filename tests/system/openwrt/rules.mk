# What packaging/openwrt/Makefile uses of OpenWrt's build: `make PACKAGE TO=FOLDER` runs the
# installation of one package, `make show-PACKAGE` prints what is said about it.
INCLUDE_DIR := $(TOPDIR)
INSTALL_DIR := install -d -m 0755
INSTALL_BIN := install -m 0755
INSTALL_CONF := install -m 0600
INSTALL_DATA := install -m 0644
CP := cp -fpR
LN := ln -sf
