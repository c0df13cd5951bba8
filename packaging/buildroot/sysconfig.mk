# An external tree: make BR2_EXTERNAL=PATH/packaging/buildroot menuconfig. The sources are this
# checkout.
SYSCONFIG_VERSION = 1.0.0
SYSCONFIG_SITE = $(BR2_EXTERNAL_SYSCONFIG_PATH)/../..
SYSCONFIG_SITE_METHOD = local
SYSCONFIG_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude /build
SYSCONFIG_LICENSE = MIT
SYSCONFIG_LICENSE_FILES = LICENSE
SYSCONFIG_INSTALL_STAGING = YES

# An exported function has an off_t of 32 bits where the C library's own has them, as on a device;
# a build that made it wider would not fit the other programs, so the headers refuse it.
SYSCONFIG_FLAGS = $(filter-out -D_FILE_OFFSET_BITS=% -D_TIME_BITS=%,$(1))

SYSCONFIG_CONF_OPTS = \
	-DCMAKE_C_FLAGS="$(call SYSCONFIG_FLAGS,$(TARGET_CFLAGS))" \
	-DCMAKE_CXX_FLAGS="$(call SYSCONFIG_FLAGS,$(TARGET_CXXFLAGS))" \
	-DCMAKE_BUILD_TYPE=MinSizeRel \
	-DCMAKE_DISABLE_FIND_PACKAGE_Python3=ON

$(eval $(cmake-package))
