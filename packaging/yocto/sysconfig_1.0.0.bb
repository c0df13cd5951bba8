SUMMARY = "Live configuration of a router in shared memory"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=0a1f6402f248f6cb6177f9de325e3548"

# The sources are this checkout.
inherit cmake externalsrc
EXTERNALSRC = "${THISDIR}/../.."
EXTERNALSRC_BUILD = "${WORKDIR}/build"

COMPATIBLE_HOST = "(mips.*el|arm|aarch64|i.86|x86_64).*-linux.*"

# An exported function has an off_t of 32 bits where the C library's own has them, as on a device;
# a build that made it wider would not fit the other programs, so the headers refuse it.
GLIBC_64BIT_TIME_FLAGS = ""

EXTRA_OECMAKE = "-DCMAKE_BUILD_TYPE=MinSizeRel -DCMAKE_DISABLE_FIND_PACKAGE_Python3=ON"

PACKAGES =+ "${PN}-tools"
FILES:${PN}-tools = "${bindir}/scctl ${sbindir}/scguard ${datadir}/bash-completion ${datadir}/zsh ${datadir}/fish"
# Made where Python is found alone; a developer's, never a router's.
FILES:${PN}-dev =+ "${bindir}/scctl-overlay-import ${datadir}/sysconfig"
