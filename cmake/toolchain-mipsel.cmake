# 32-bit little-endian MIPS with glibc; programs run under the user-mode emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(SYSCONFIG_DEBIAN mipsel) # what Debian calls it
set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mipsel-static -L /usr/mipsel-linux-gnu)
set(SYSCONFIG_MIPS16 ON CACHE BOOL "Instructions of 16 bits, which a 24Kc has")
