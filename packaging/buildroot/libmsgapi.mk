################################################################################
#
# libmsgapi
#
################################################################################

LIBMSGAPI_VERSION = 1.0.0
# The checkout; LIBMSGAPI_OVERRIDE_SRCDIR in local.mk names another place.
LIBMSGAPI_SITE = $(TOPDIR)/../libmsgapi
LIBMSGAPI_SITE_METHOD = local
LIBMSGAPI_INSTALL_STAGING = YES
LIBMSGAPI_DEPENDENCIES = \
	host-pkgconf cjson cli11 fmt json-for-modern-cpp libcurl libmicrohttpd \
	libsodium sqlite
# A filter of system calls, where there is one for the architecture.
ifeq ($(BR2_PACKAGE_LIBSECCOMP),y)
LIBMSGAPI_DEPENDENCIES += libseccomp
endif
# What joins the bus to a broker is built where its library is.
ifeq ($(BR2_PACKAGE_MOSQUITTO),y)
LIBMSGAPI_DEPENDENCIES += mosquitto
endif
LIBMSGAPI_CONF_OPTS = -DMSGAPI_TESTS=OFF -DMSGAPI_EXAMPLES=OFF

$(eval $(cmake-package))
