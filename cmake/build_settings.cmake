# Warnings, sanitizers and the compiler cache, for every target of the project.

find_program(CCACHE ccache)
if(CCACHE)
  # What it has to overlook so that files with precompiled headers are cached.
  set(ccache_launcher env CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE})
  set(CMAKE_C_COMPILER_LAUNCHER ${ccache_launcher})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${ccache_launcher})
endif()

if(MSGAPI_QUICK)
  # A unit for each library and program, so that headers and what is made of their templates are
  # compiled once there instead of once for each file.
  set(CMAKE_UNITY_BUILD ON)
  set(CMAKE_UNITY_BUILD_BATCH_SIZE 0)
  add_compile_options(-w -g0)
endif()

add_compile_options(-Wall -Wextra -Wshadow -Wformat=2 -Wconversion -Werror -fstack-protector-strong)
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # Reports "text" + std::to_string(number) when it optimizes (GCC bug 105651).
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
endif()
if(CMAKE_BUILD_TYPE MATCHES "Release|MinSizeRel")
  add_compile_definitions(_FORTIFY_SOURCE=2)
endif()
if(CMAKE_UNITY_BUILD)
  # A class that only one file knows may have members of that file's own types. Compiled with
  # others the file is not the main one, in which gcc allows that.
  add_compile_options($<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-subobject-linkage>)
endif()
# What a program prints of its sources is relative to the tree, wherever that was built: also when
# the compiler cache has made the paths relative to the build.
cmake_path(RELATIVE_PATH PROJECT_SOURCE_DIR BASE_DIRECTORY ${CMAKE_BINARY_DIR}
  OUTPUT_VARIABLE source_from_build)
set(prefix_map -fmacro-prefix-map)
if(CMAKE_BUILD_TYPE MATCHES "Release|MinSizeRel")
  set(prefix_map -ffile-prefix-map)  # in debug information, too; a debugger here wants the files
endif()
add_compile_options(
  ${prefix_map}=${source_from_build}/= ${prefix_map}=${PROJECT_SOURCE_DIR}/=
  ${prefix_map}=${CMAKE_BINARY_DIR}/=)

# A device library that needs a name from nowhere must not link; the sanitizers' names come from
# the program.
set(NO_UNDEFINED -Wl,-z,defs)
if(MSGAPI_SANITIZE)
  set(NO_UNDEFINED)
  add_compile_options(-fsanitize=${MSGAPI_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${MSGAPI_SANITIZE})
endif()
if(MSGAPI_COVERAGE)
  # Servers and children count, too, and at once: several processes share a file of counters.
  set(NO_UNDEFINED)
  add_library(coverage_at_end STATIC ${CMAKE_CURRENT_LIST_DIR}/coverage.c)
  # Each library and program has its own, which writes its own counters.
  set_target_properties(coverage_at_end PROPERTIES C_VISIBILITY_PRESET hidden)
  link_libraries($<BUILD_INTERFACE:coverage_at_end>)
  add_compile_options(--coverage -fprofile-update=atomic -g0)
  # -u: libraries that follow it on the command line call it, too.
  add_link_options(--coverage -Wl,-u,__wrap__exit
    -Wl,--wrap=_exit,--wrap=execv,--wrap=execve,--wrap=execvp)
endif()
if(MSGAPI_FUZZ)
  # An optimized build, but its assertions are part of what is fuzzed.
  add_compile_options(-fsanitize=fuzzer-no-link -UNDEBUG)
endif()

# What every part of the device library is compiled with: it must run without the C++ runtime.
add_library(msgapi_freestanding INTERFACE)
target_compile_options(msgapi_freestanding INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>
  -fvisibility=hidden
  $<$<COMPILE_LANGUAGE:CXX>:-fvisibility-inlines-hidden>
  -ffunction-sections -fdata-sections)
