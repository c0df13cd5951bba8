"""What the box needs to run other stores: their packages for mipsel, and the benchmark program."""

import shutil

from programs import BUILD, output

PACKAGES = ("liblmdb0", "liblmdb-dev", "libsqlite3-0", "libsqlite3-dev")
STORES = BUILD / "box/stores"
TARGET = BUILD / "bench-mipsel"

# What the program loads besides the stores.
LIBRARY_FOLDER = "/usr/mipsel-linux-gnu/lib/"
LIBRARIES = ("ld.so.1", "libc.so.6", "libm.so.6", "libpthread.so.0", "libgcc_s.so.1", "libstdc++.so.6")


def build():
    output(["tools/fetch_mipsel", STORES, *PACKAGES])
    # The library as a router carries it.
    output(["cmake", "-S", ".", "-B", TARGET, "--toolchain", "cmake/toolchain-mipsel.cmake",
            "-DCMAKE_BUILD_TYPE=MinSizeRel", "-DSYSCONFIG_PEERS=%s" % STORES])
    output(["cmake", "--build", TARGET, "--parallel", "2", "--target", "counted_peers"])


def pack(folder):
    """The program and what it loads, as an archive that the kernel unpacks over the box's."""
    libraries, programs = folder / "lib", folder / "sbin"
    libraries.mkdir()
    programs.mkdir()
    stores = STORES / "usr/lib/mipsel-linux-gnu"
    for path in (*(LIBRARY_FOLDER + name for name in LIBRARIES), TARGET / "libsysconfig.so.1",
                 stores / "liblmdb.so.0", stores / "libsqlite3.so.0"):
        shutil.copy(path, libraries)
    shutil.copy(TARGET / "bench/peers", programs)
    output(["mipsel-linux-gnu-strip", programs / "peers"])
    # The same files make the same archive to the byte, as device/build says of the box's.
    archive = folder / "initrd"
    output(["sh", "-c", """cd "$1"
        find lib sbin -exec touch --no-dereference --date=@0 {} +
        find lib sbin | LC_ALL=C sort |
          cpio --quiet --create --format=newc --owner=0:0 --reproducible >initrd""", "sh", folder])
    return archive
