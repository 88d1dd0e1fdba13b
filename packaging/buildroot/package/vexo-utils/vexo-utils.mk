################################################################################
#
# vexo-utils
#
################################################################################

# The tree that this file is in; so there is no archive, and no hash of one.
VEXO_UTILS_SITE = $(BR2_EXTERNAL_VEXO_PATH)/../..
VEXO_UTILS_SITE_METHOD = local
VEXO_UTILS_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude /build
VEXO_UTILS_LICENSE = PROPRIETARY
VEXO_UTILS_REDISTRIBUTE = NO
VEXO_UTILS_INSTALL_STAGING = YES
VEXO_UTILS_SUPPORTS_IN_SOURCE_BUILD = NO
VEXO_UTILS_DEPENDENCIES = host-pkgconf libidn2 libxcrypt openssl udev
VEXO_UTILS_CONF_OPTS = \
	-DVEXO_BUILD_EXAMPLES=OFF \
	-DVEXO_BUILD_TESTS=OFF \
	-DCMAKE_SKIP_INSTALL_RPATH=ON

ifeq ($(BR2_PACKAGE_VEXO_PLATFORM),y)
VEXO_UTILS_DEPENDENCIES += vexo-platform
VEXO_UTILS_CONF_OPTS += -DVEXO_PLATFORM=external
else
VEXO_UTILS_DEPENDENCIES += json-for-modern-cpp
VEXO_UTILS_CONF_OPTS += -DVEXO_PLATFORM=host
endif

$(eval $(cmake-package))
