"""Tries the recipes for embedded builders as far as that goes without a builder; see
packaging/README.md. The builders' rules are stubs of the few that the recipes use."""

import fnmatch
import hashlib
import pathlib
import re
import shutil

import kconfiglib

from suite import LOGS, ROOT, output

PACKAGING = ROOT / "packaging"
LIBRARY = {"usr/lib/libsysconfig.so.1", "usr/lib/libsysconfig.so.1.0.0"}
PROGRAMS = {"usr/bin/scctl", "usr/sbin/scguard"}
# It needs Python, which no router has.
IMPORTER = {"usr/bin/scctl-overlay-import", "usr/share/sysconfig/layout.json"}

FEED_RULES = """
INSTALL_DIR := install -d -m0755
INSTALL_BIN := install -m0755
CP := cp -fpR
define BuildPackage
$(eval $(Package/$(1)))
$$(info $(1): $(TITLE); $(DEPENDS); $(CATEGORY))
install-$(1):
	$$(call Package/$(1)/install,$(OUT)/$(1))
endef
prepare:
	$(Build/Prepare)
"""

# What such a builder compiles everything with.
TREE_FLAGS = "-D_LARGEFILE_SOURCE -D_FILE_OFFSET_BITS=64 -Os -D_TIME_BITS=64"
TREE_RULES = """
TARGET_CFLAGS = %s
TARGET_CXXFLAGS = $(TARGET_CFLAGS)
cmake-package = $(info cmake-package)
include $(BR2_EXTERNAL_SYSCONFIG_PATH)/external.mk
$(foreach name,VERSION SITE SITE_METHOD CONF_OPTS LICENSE_FILES,\
  $(info $(name)=$(SYSCONFIG_$(name))))
nothing: ;
""" % TREE_FLAGS

# What stands in for the symbols of a whole tree.
SYMBOLS = """
config BR2_ENDIAN
	string
	default "%s"
config BR2_INSTALL_LIBSTDCPP
	def_bool %s
config BR2_TOOLCHAIN_GCC_AT_LEAST_10
	def_bool y
config BR2_STATIC_LIBS
	def_bool n
source "%s"
"""

# The packages that every recipe has and what they take by default, behind those of the recipe.
DEFAULT_FILES = {
    "${PN}-staticdev": ["${libdir}/*.a"],
    "${PN}-dev": ["${includedir}", "${libdir}/lib*.so", "${libdir}/pkgconfig", "${libdir}/cmake"],
    "${PN}-doc": ["${datadir}/man", "${datadir}/doc"],
    "${PN}": ["${bindir}/*", "${sbindir}/*", "${libdir}/lib*.so.*"],
}


def check_recipes(suite, prefix):
    """prefix: where the plain build is installed."""
    folder = LOGS / "recipes"
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir()
    (folder / "installed").mkdir()
    (folder / "installed/usr").symlink_to(prefix)
    version = re.search(r"project\(\w+ VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text())[1]
    check_feed(suite, folder, version)
    check_tree(suite, folder, version)
    check_layer(suite, prefix, version)


def files_of(folder):
    return {str(path.relative_to(folder)) for path in folder.rglob("*")
            if path.is_symlink() or not path.is_dir()}


def check_feed(suite, folder, version):
    """The package Makefile: what it prepares can be configured, what it installs is right."""
    (folder / "rules.mk").write_text(FEED_RULES)
    for name in ("package.mk", "cmake.mk"):
        (folder / name).write_text("")
    makefile = (PACKAGING / "openwrt/Makefile").read_text()
    suite.verdict("\nPKG_VERSION:=%s\n" % version in makefile, "version of the package Makefile")
    sources, out = folder / "sources", folder / "out"
    suite.run(["make", "-C", PACKAGING / "openwrt", "TOPDIR=%s" % folder, "INCLUDE_DIR=%s" % folder,
               "PKG_BUILD_DIR=%s" % sources, "PKG_INSTALL_DIR=%s" % (folder / "installed"),
               "OUT=%s" % out, "prepare", "install-libsysconfig", "install-sysconfig-tools"],
              check="the package Makefile prepares and installs")
    for package, files in (("libsysconfig", LIBRARY), ("sysconfig-tools", PROGRAMS)):
        found = files_of(out / package)
        suite.verdict(found == files, "the package Makefile's %s" % package, " ".join(found))
    options = re.search(r"^CMAKE_OPTIONS\+=(.*)", makefile, re.M)[1].split()
    suite.run(["cmake", "-S", sources, "-B", folder / "build", *options],
              check="what the package Makefile prepares can be configured")


def check_tree(suite, folder, version):
    """The .mk and its Config.in."""
    (folder / "Makefile").write_text(TREE_RULES)
    external = PACKAGING / "buildroot"
    said = output(["make", "-s", "-C", folder, "BR2_EXTERNAL_SYSCONFIG_PATH=%s" % external])
    suite.note(said)
    rows = dict(re.findall(r"^(\w+)=(.*)$", said, re.M))
    suite.verdict("cmake-package\n" in said and rows["VERSION"] == version
                  and rows["SITE_METHOD"] == "local"
                  and (pathlib.Path(rows["SITE"]) / rows["LICENSE_FILES"]).exists(),
                  "the .mk names this checkout")
    suite.verdict(rows["CONF_OPTS"].count('FLAGS="-D_LARGEFILE_SOURCE -Os"') == 2,
                  "the .mk leaves off_t as it is", rows["CONF_OPTS"])
    for flags, refused in (re.search('C_FLAGS="(.*?)"', rows["CONF_OPTS"])[1], 0), (TREE_FLAGS, 1):
        suite.run(["mipsel-linux-gnu-gcc", *flags.split(), "-fsyntax-only", "-Iinclude",
                   "-xc", "include/sysconfig/core.h"], status=refused,
                  check="core.h with " + flags)
    for endian, cxx, visible in (("LITTLE", "y", 2), ("BIG", "y", 0), ("LITTLE", "n", 0)):
        (folder / "Config").write_text(SYMBOLS % (endian, cxx, external / "Config.in"))
        symbols = kconfiglib.Kconfig(str(folder / "Config"), warn_to_stderr=False)
        symbol = symbols.syms["BR2_PACKAGE_SYSCONFIG"]
        comment = symbols.comments[0]
        suite.verdict(symbol.visibility == visible and not symbols.warnings
                      and kconfiglib.expr_value(comment.dep) == 2 - visible,
                      "Config.in for %s, C++ %s" % (endian, cxx), " ".join(symbols.warnings))


def check_layer(suite, prefix, version):
    """The .bb: known lines alone, the licence's sum, and a package for each installed file."""
    path = PACKAGING / ("yocto/sysconfig_%s.bb" % version)
    if not suite.verdict(path.exists(), path.name):
        return
    values = {}
    for line in path.read_text().splitlines():
        row = re.fullmatch(r'([A-Z0-9_]+(?::\$\{PN\}-\w+)?) =\+? "([^"]*)"', line)
        if row:
            values[row[1]] = row[2]
        else:
            suite.verdict(re.fullmatch(r"|#.*|inherit [a-z ]+", line), "line of the .bb: " + line)
    sum_of = hashlib.md5((ROOT / "LICENSE").read_bytes()).hexdigest()
    suite.verdict(values["LIC_FILES_CHKSUM"] == "file://LICENSE;md5=" + sum_of,
                  "the .bb has the licence's sum")
    suite.verdict((path.parent / values["EXTERNALSRC"].replace("${THISDIR}/", "") /
                   "CMakeLists.txt").exists(), "the .bb names this checkout")

    takes = {package: values["FILES:" + package].split() for package in values["PACKAGES"].split()}
    takes.update({package: values.get("FILES:" + package, "").split() + patterns
                  for package, patterns in DEFAULT_FILES.items()})
    taken = {package: set() for package in takes}
    for name in files_of(prefix):
        if re.search(r"\bscpage\b", name):
            continue  # not installed where a router is built for
        for package, patterns in takes.items():
            if any(fnmatch.fnmatch(name, pattern) or name.startswith(pattern + "/")
                   for pattern in map(as_path, patterns)):
                taken[package].add("usr/" + name)
                break
        else:
            suite.fail("no package of the .bb takes " + name)
    suite.verdict(taken["${PN}"] == LIBRARY, "the .bb's library", " ".join(taken["${PN}"]))
    suite.verdict(taken["${PN}-tools"] == PROGRAMS | {
        "usr/share/bash-completion/completions/scctl",
        "usr/share/fish/vendor_completions.d/scctl.fish",
        "usr/share/zsh/site-functions/_scctl"}, "the .bb's tools",
        " ".join(taken["${PN}-tools"]))
    suite.verdict(IMPORTER <= taken["${PN}-dev"], "the .bb's importer", " ".join(taken["${PN}-dev"]))


def as_path(pattern):
    for name, value in (("bindir", "bin"), ("sbindir", "sbin"), ("libdir", "lib"),
                        ("includedir", "include"), ("datadir", "share")):
        pattern = pattern.replace("${%s}" % name, value)
    return pattern
