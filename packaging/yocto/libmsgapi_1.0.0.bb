SUMMARY = "Runtime library of home gateway daemons"
SECTION = "libs"
# The owner has chosen no licence yet.
LICENSE = "CLOSED"

# What is not in OpenEmbedded-Core is in meta-openembedded: mosquitto in meta-networking, the rest in
# meta-oe.
DEPENDS = "cjson cli11 curl fmt libmicrohttpd libseccomp libsodium mosquitto \
    nlohmann-json sqlite3"
# Point EXTERNALSRC at the checkout, or replace this with the archive of a release.
inherit externalsrc cmake pkgconfig systemd

EXTRA_OECMAKE = "-DCMAKE_BUILD_TYPE=MinSizeRel -DMSGAPI_TESTS=OFF -DMSGAPI_EXAMPLES=OFF \
    -DMSGAPI_SYSTEMD_UNIT_DIR=${systemd_system_unitdir}"

PACKAGES =+ "${PN}-servers"
FILES:${PN}-servers = "${sbindir}/* ${bindir}/* ${datadir}/cfmctl ${datadir}/mlogserver \
    ${datadir}/msgapi ${datadir}/bash-completion ${datadir}/zsh ${datadir}/fish ${systemd_system_unitdir}/* \
    ${prefix}/lib/sysusers.d ${prefix}/lib/tmpfiles.d ${libdir}/wireshark"
SYSTEMD_PACKAGES = "${PN}-servers"
SYSTEMD_SERVICE:${PN}-servers = "mlogserver.service msgbridge.service msgsvr.service \
    notifyserver.service"
