SUMMARY = "Runtime library of home gateway daemons"
SECTION = "libs"
LICENSE = "CLOSED"

DEPENDS = "cjson sqlite3 libmicrohttpd libsodium cli11 nlohmann-json fmt"
# Point EXTERNALSRC at the checkout, or replace this with the archive of a release.
inherit externalsrc cmake pkgconfig systemd

EXTRA_OECMAKE = "-DMSGAPI_TESTS=OFF -DMSGAPI_EXAMPLES=OFF"

PACKAGES =+ "${PN}-servers"
FILES:${PN}-servers = "${sbindir}/* ${bindir}/* ${systemd_system_unitdir}/*"
SYSTEMD_PACKAGES = "${PN}-servers"
SYSTEMD_SERVICE:${PN}-servers = "mlogserver.service msgsvr.service notifyserver.service"
