# 32-bit x86 through Debian's cross compiler (gcc-multilib cannot be installed beside the MIPS
# one). The kernel of an x86-64 host runs the programs; they name the cross C library's loader and
# folder, as the host has no 32-bit libraries of its own.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-Wl,--dynamic-linker=/usr/i686-linux-gnu/lib/ld-linux.so.2 -Wl,--disable-new-dtags,-rpath,/usr/i686-linux-gnu/lib")
