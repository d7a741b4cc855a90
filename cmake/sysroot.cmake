# For toolchains of other architectures: headers and libraries come from `sysroot`, where
# tools/sysroot.sh has unpacked Debian's packages for `triple`.
set(CMAKE_C_FLAGS_INIT "${machine_flags} -isystem ${sysroot}/usr/include -isystem ${sysroot}/usr/include/${triple}")
set(CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT}")

set(CMAKE_FIND_ROOT_PATH ${sysroot})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_LIBRARY_ARCHITECTURE ${triple})
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${sysroot})
set(ENV{PKG_CONFIG_LIBDIR} ${sysroot}/usr/lib/${triple}/pkgconfig:${sysroot}/usr/share/pkgconfig)
