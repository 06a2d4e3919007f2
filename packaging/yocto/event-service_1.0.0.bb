SUMMARY = "Back end of the Redfish EventService"
DESCRIPTION = "Owns the Redfish EventService resource and its event subscriptions; serves a web front end through Redis."
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

# Builds the tree that this recipe lies in; a layer of its own would name a repository in SRC_URI instead.
inherit externalsrc cmake pkgconfig systemd useradd
EXTERNALSRC ?= "${THISDIR}/../.."

DEPENDS = "hiredis jansson libsodium luajit nlohmann-json uriparser"
RDEPENDS:${PN} = "openssl-bin"
RRECOMMENDS:${PN} = "redis"

EXTRA_OECMAKE = " \
    -DCMAKE_BUILD_TYPE=MinSizeRel \
    -DEVENT_SERVICE_LTO=ON \
    -DEVENT_SERVICE_TESTS=OFF \
    -DEVENT_SERVICE_BENCH=OFF \
    -DEVENT_SERVICE_TOOLS=OFF \
    -DEVENT_SERVICE_UNIT_DIR=${systemd_system_unitdir} \
"
# A board that has these libraries takes its own.
PACKAGECONFIG ??= ""
PACKAGECONFIG[conf-parser] = "-DEVENT_SERVICE_SYSTEM_CONF_PARSER=ON,-DEVENT_SERVICE_SYSTEM_CONF_PARSER=OFF,libconfparser"
PACKAGECONFIG[data-encrypt] = "-DEVENT_SERVICE_SYSTEM_DATA_ENCRYPT=ON,-DEVENT_SERVICE_SYSTEM_DATA_ENCRYPT=OFF,libdataencrypt"
PACKAGECONFIG[json-generator] = "-DEVENT_SERVICE_SYSTEM_JSON_GENERATOR=ON,-DEVENT_SERVICE_SYSTEM_JSON_GENERATOR=OFF,libjsongenerator"

do_install:append() {
    install -d -m 0700 ${D}${localstatedir}/nginx
}

# The unit names the group of Redis, whose recipe makes it, too.
USERADD_PACKAGES = "${PN}"
GROUPADD_PARAM:${PN} = "--system redis"

SYSTEMD_SERVICE:${PN} = "event-service.service"
FILES:${PN} += "${prefix}/local ${datadir}/event-service ${systemd_system_unitdir} ${localstatedir}/nginx"
FILES:${PN}-dev += "${datadir}/pkgconfig"
