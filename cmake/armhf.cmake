# ARMv7 hard-float, as Debian's armhf.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

set(triple arm-linux-gnueabihf)
set(sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot)
cmake_path(NORMAL_PATH sysroot)

set(CMAKE_C_COMPILER ${triple}-gcc)
set(CMAKE_CXX_COMPILER ${triple}-g++)
set(machine_flags "-march=armv7-a+vfpv3-d16 -mfloat-abi=hard -mthumb -Wno-psabi")
include(${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake)
set(linker_flags "-L${sysroot}/usr/lib/${triple} -Wl,-rpath-link,${sysroot}/usr/lib/${triple}:${sysroot}/lib/${triple}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${linker_flags}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${linker_flags}")

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;${sysroot})
