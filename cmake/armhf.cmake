# ARMv7 hard-float, as Debian's armhf. tools/sysroot.sh fills the sysroot.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

set(triple arm-linux-gnueabihf)
set(sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot)
cmake_path(NORMAL_PATH sysroot)

set(CMAKE_C_COMPILER ${triple}-gcc)
set(CMAKE_CXX_COMPILER ${triple}-g++)
set(CMAKE_C_FLAGS_INIT "-march=armv7-a+vfpv3-d16 -mfloat-abi=hard -mthumb -Wno-psabi -isystem ${sysroot}/usr/include -isystem ${sysroot}/usr/include/${triple}")
set(CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT}")
set(linker_flags "-L${sysroot}/usr/lib/${triple} -Wl,-rpath-link,${sysroot}/usr/lib/${triple}:${sysroot}/lib/${triple}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${linker_flags}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${linker_flags}")

set(CMAKE_FIND_ROOT_PATH ${sysroot})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_LIBRARY_ARCHITECTURE ${triple})
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${sysroot})
set(ENV{PKG_CONFIG_LIBDIR} ${sysroot}/usr/lib/${triple}/pkgconfig:${sysroot}/usr/share/pkgconfig)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;${sysroot})
