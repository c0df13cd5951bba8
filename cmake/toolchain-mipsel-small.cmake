# 32-bit little-endian MIPS with the small C library, unpacked to build/musl by tools/fetch_musl.
# There is no C++ library for it: C++ sources include C headers only and everything is linked by
# the C driver, so compilers are tried without linking.
get_filename_component(SC_MUSL "${CMAKE_CURRENT_LIST_DIR}/../build/musl" ABSOLUTE)
if(NOT EXISTS "${SC_MUSL}/musl-gcc.specs")
  message(FATAL_ERROR "${SC_MUSL} is missing; run tools/fetch_musl first")
endif()
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)
set(CMAKE_C_FLAGS_INIT "-specs=${SC_MUSL}/musl-gcc.specs")
set(CMAKE_CXX_FLAGS_INIT "-specs=${SC_MUSL}/musl-gcc.specs")
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mipsel-static -L "${SC_MUSL}/root")
set(SYSCONFIG_MIPS16 ON CACHE BOOL "Instructions of 16 bits, which a 24Kc has")
