SUMMARY = "The utility library that a network camera's daemons share"
SECTION = "libs"
LICENSE = "CLOSED"

# The tree that this file is in.
inherit cmake externalsrc pkgconfig
EXTERNALSRC = "${@os.path.abspath(os.path.join(d.getVar('THISDIR'), '../../../..'))}"

def tree_version(d):
    import re
    with open(os.path.join(d.getVar('EXTERNALSRC'), 'CMakeLists.txt')) as lists:
        return re.search(r'^ *VERSION ([0-9.]+)$', lists.read(), re.M).group(1)

PV = "${@tree_version(d)}"

DEPENDS = "libidn2 openssl udev virtual/crypt"
EXTRA_OECMAKE = "-DVEXO_BUILD_EXAMPLES=OFF -DVEXO_BUILD_TESTS=OFF -DCMAKE_SKIP_INSTALL_RPATH=ON"

# Without it, the device's own recipe vexo-platform: log, camera description and IPC.
PACKAGECONFIG ??= ""
PACKAGECONFIG[host-platform] = "-DVEXO_PLATFORM=host,-DVEXO_PLATFORM=external,nlohmann-json"
DEPENDS += "${@bb.utils.contains('PACKAGECONFIG', 'host-platform', '', 'vexo-platform', d)}"

PACKAGES =+ "${PN}-tools"
FILES:${PN}-tools = "${bindir}"
RRECOMMENDS:${PN}-tools = "binutils"
# What the library loads when it is first used, which the packaging cannot see.
RDEPENDS:${PN} = "libcrypt libcrypto libidn2 libudev"
