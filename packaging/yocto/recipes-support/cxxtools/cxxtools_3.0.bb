SUMMARY = "Library of useful C++ classes"
HOMEPAGE = "http://www.tntnet.org/cxxtools.html"
LICENSE = "LGPL-2.1-or-later"
LIC_FILES_CHKSUM = "file://COPYING;md5=1702a92c723f09e3fab3583b165a8d90"

DEPENDS = "openssl"

SRC_URI = "${DEBIAN_MIRROR}/main/c/cxxtools/cxxtools_3.0.0.orig.tar.gz"
SRC_URI[sha256sum] = "07b18037fb0983f6292f5c8d53e2369e9e7a9711df2c9ad50838aacbc8c62f7c"
S = "${WORKDIR}/cxxtools-3.0"

inherit autotools gettext

EXTRA_OECONF = "--with-ssl=yes --with-iconvstream=no --disable-demos --disable-unittest"

# Tools for building programs, which name paths of the machine that builds.
do_install:append() {
    rm -f ${D}${bindir}/cxxtools-config
}
