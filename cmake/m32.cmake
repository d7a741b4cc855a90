# 32-bit x86, as Debian's i386, whose programs an x86-64 processor runs without emulation. Not cross
# compiling to CMake, so that tests run as those of this machine do. tools/sysroot.sh fills the sysroot.
set(triple i386-linux-gnu)
set(sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/m32-sysroot)
cmake_path(NORMAL_PATH sysroot)

set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)
set(CMAKE_C_FLAGS_INIT "-isystem ${sysroot}/usr/include -isystem ${sysroot}/usr/include/${triple}")
set(CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT}")
# Programs start with the sysroot's loader and libraries: the machine need not have any.
set(libraries ${sysroot}/usr/lib/${triple}:${sysroot}/lib/${triple})
set(linker_flags "-L${sysroot}/usr/lib/${triple} -Wl,-rpath,${libraries} -Wl,--disable-new-dtags")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${linker_flags} -Wl,--dynamic-linker=${sysroot}/lib/ld-linux.so.2")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${linker_flags}")

set(CMAKE_FIND_ROOT_PATH ${sysroot})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_LIBRARY_ARCHITECTURE ${triple})
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${sysroot})
set(ENV{PKG_CONFIG_LIBDIR} ${sysroot}/usr/lib/${triple}/pkgconfig:${sysroot}/usr/share/pkgconfig)
