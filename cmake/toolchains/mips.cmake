# 32-bit big-endian MIPS, run under user-mode emulation: the class of machine lumd lives on.
# scripts/mips builds the libraries into the sysroot folder that LUMD_MIPS_PREFIX names.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)
set(CMAKE_C_COMPILER mips-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mips-linux-gnu-g++)
# readdir(3) fails on large inode numbers without 64-bit file offsets.
set(CMAKE_C_FLAGS_INIT "-D_FILE_OFFSET_BITS=64")
set(CMAKE_CXX_FLAGS_INIT "-D_FILE_OFFSET_BITS=64")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mips-static;-L;/usr/mips-linux-gnu)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LUMD_MIPS_PREFIX)
set(CMAKE_FIND_ROOT_PATH ${LUMD_MIPS_PREFIX} /usr/mips-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${LUMD_MIPS_PREFIX}/lib/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
