SUMMARY = "Certificate daemon for embedded devices, and its operator's client"
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

DEPENDS = "openssl cxxtools cli11"

# Where the source is kept is the product's own matter: set both in the distribution's or the layer's configuration,
# for example KEYWARDD_GIT = "git://git.example/keywardd.git;protocol=https;branch=main".
KEYWARDD_GIT ??= "git:///unset"
KEYWARDD_REVISION ??= "INVALID"
SRC_URI = "${KEYWARDD_GIT}"
SRCREV = "${KEYWARDD_REVISION}"
S = "${WORKDIR}/git"

inherit cmake pkgconfig useradd systemd update-rc.d

EXTRA_OECMAKE = "-DKEYWARD_TESTS=OFF -DKEYWARD_BENCH=OFF -DCMAKE_BUILD_TYPE=Release"

PACKAGES =+ "keywardctl"

# The daemon wants its user listed as a member of each of the groups, hence -G.
USERADD_PACKAGES = "${PN}"
GROUPADD_PARAM:${PN} = "-r kwnotify; -r kwadmin; -r kwkey; -r kwca"
USERADD_PARAM:${PN} = "-r -U -M -d /nonexistent -s /sbin/nologin -G kwnotify,kwadmin,kwkey,kwca keyuser"

SYSTEMD_PACKAGES = "${PN}"
SYSTEMD_SERVICE:${PN} = "keywardd.service keyward-time.timer keyward-time.path"

INITSCRIPT_PACKAGES = "${PN}"
INITSCRIPT_NAME:${PN} = "keywardd"
INITSCRIPT_PARAMS:${PN} = "defaults 60 40"

do_install:append() {
    # Made at the start of the device (/run) or empty until then.
    install -d -o keyuser -g keyuser ${D}${localstatedir}/lib/keywarden
    if ${@bb.utils.contains('DISTRO_FEATURES', 'systemd', 'false', 'true', d)}; then
        rm -rf ${D}${prefix}/lib/systemd ${D}${prefix}/lib/sysusers.d ${D}${prefix}/lib/tmpfiles.d \
            ${D}${prefix}/lib/NetworkManager ${D}${prefix}/lib/networkd-dispatcher
    fi
    if ${@bb.utils.contains('DISTRO_FEATURES', 'sysvinit', 'false', 'true', d)}; then
        rm -rf ${D}${sysconfdir}/init.d
    fi
    # The accounts are made by this recipe.
    rm -rf ${D}${prefix}/lib/sysusers.d
}

CONFFILES:${PN} = "${sysconfdir}/keywarden/config.daemon ${sysconfdir}/keywarden/scripts/network.sh"

FILES:${PN} += "${prefix}/lib/keywardd ${prefix}/lib/systemd ${prefix}/lib/tmpfiles.d \
    ${prefix}/lib/NetworkManager ${prefix}/lib/networkd-dispatcher ${localstatedir}/lib/keywarden"
FILES:keywardctl = "${bindir}/keywardctl ${datadir}/bash-completion"

# "ip" of BusyBox does as well.
RDEPENDS:${PN} = "${VIRTUAL-RUNTIME_base-utils}"
RRECOMMENDS:${PN} = "keywardctl iproute2"
