################################################################################
#
# libmsgapi
#
################################################################################

LIBMSGAPI_VERSION = 1.0.0
# Set LIBMSGAPI_OVERRIDE_SRCDIR in local.mk to the checkout.
LIBMSGAPI_SITE = $(BR2_EXTERNAL)/dl
LIBMSGAPI_SITE_METHOD = local
LIBMSGAPI_INSTALL_STAGING = YES
LIBMSGAPI_DEPENDENCIES = host-pkgconf cjson sqlite libmicrohttpd libsodium cli11 json-for-modern-cpp
LIBMSGAPI_CONF_OPTS = -DMSGAPI_TESTS=OFF -DMSGAPI_EXAMPLES=OFF

$(eval $(cmake-package))
