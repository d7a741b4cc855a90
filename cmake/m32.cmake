# 32-bit x86, as Debian's i386, whose programs an x86-64 processor runs without emulation. Not cross
# compiling to CMake, so that tests run as those of this machine do.
set(triple i386-linux-gnu)
set(sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/m32-sysroot)
cmake_path(NORMAL_PATH sysroot)

set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)
set(machine_flags)
include(${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake)
# Programs start with the sysroot's loader and libraries: the machine need not have any.
set(libraries ${sysroot}/usr/lib/${triple}:${sysroot}/lib/${triple})
set(linker_flags "-L${sysroot}/usr/lib/${triple} -Wl,-rpath,${libraries} -Wl,--disable-new-dtags")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${linker_flags} -Wl,--dynamic-linker=${sysroot}/lib/ld-linux.so.2")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${linker_flags}")
