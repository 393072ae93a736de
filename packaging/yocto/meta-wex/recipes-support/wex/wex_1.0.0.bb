SUMMARY = "Process supervision for embedded Linux devices"
DESCRIPTION = "Keeps the services of a device alive and records why they died: restarts them, throttles crash loops, \
notices hung threads, and restarts the device with a recorded reason when nothing else helps."
SECTION = "base"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=49613395764c29c79b1e07e04131bdbc"

# Built from the checkout that this layer is a part of.
inherit externalsrc cmake pkgconfig systemd update-rc.d bash-completion
EXTERNALSRC ?= "${@os.path.abspath(os.path.join(d.getVar('THISDIR'), '../../../../..'))}"
EXTERNALSRC_BUILD = "${WORKDIR}/build"

EXTRA_OECMAKE = "-DWEX_BUILD_TESTS=OFF"

SYSTEMD_SERVICE:${PN} = "wex.service"
INITSCRIPT_NAME = "wex"
INITSCRIPT_PARAMS = "start 05 2 3 4 5 . stop 95 0 1 6 ."

do_install:append() {
    install -D -m 0644 ${S}/packaging/init/wex.default ${D}${sysconfdir}/default/wex
    if [ ! -d ${D}${systemd_system_unitdir} ]; then
        install -d ${D}${systemd_system_unitdir}
        mv ${D}${prefix}/lib/systemd/system/wex.service ${D}${systemd_system_unitdir}/
        rmdir ${D}${prefix}/lib/systemd/system ${D}${prefix}/lib/systemd
    fi
    rm -r ${D}${datadir}/doc/wex/copyright ${D}${datadir}/doc/libwex1 ${D}${datadir}/doc/libwex-dev/copyright
    rmdir --ignore-fail-on-non-empty ${D}${datadir}/doc/wex
}

PACKAGES =+ "libwex"
FILES:libwex = "${libdir}/libwex.so.*"
FILES:${PN} += "${nonarch_libdir}/sysctl.d ${nonarch_libdir}/tmpfiles.d ${systemd_system_unitdir}"
FILES:${PN}-dev += "${libdir}/cmake"
CONFFILES:${PN} = "${sysconfdir}/default/wex"
RDEPENDS:${PN}-dev = "libwex (= ${EXTENDPKGV})"
