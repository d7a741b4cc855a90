# The headers that cost servers and tools most time. They are compiled once for libraries and once
# for programs, whose code is relocated in different ways. Every file still includes what it uses,
# because clang's configurations, large units and optimized builds compile without these. In
# optimized builds gcc 12 has more false warnings of GCC bug 105651 (build_settings.cmake) with
# precompiled headers.

# msgapi_precompile(TARGET...): for targets that link servers_common and are therefore compiled like
# the headers.
if(NOT CMAKE_BUILD_TYPE STREQUAL Debug OR CMAKE_UNITY_BUILD)
  function(msgapi_precompile)
  endfunction()
  return()
endif()

find_package(fmt REQUIRED)
find_package(nlohmann_json REQUIRED)
foreach(kind library program)
  add_library(${kind}_headers OBJECT ${CMAKE_CURRENT_LIST_DIR}/headers.cpp)
  target_link_libraries(${kind}_headers PRIVATE fmt::fmt nlohmann_json::nlohmann_json)
  target_precompile_headers(${kind}_headers PRIVATE
    <algorithm> <chrono> <filesystem> <fstream> <functional> <map> <memory> <optional> <set> <span>
    <stdexcept> <string> <string_view> <unordered_map> <utility> <vector>
    <fmt/core.h> <nlohmann/json.hpp>)
endforeach()
set_target_properties(program_headers PROPERTIES POSITION_INDEPENDENT_CODE OFF)
target_compile_options(program_headers PRIVATE ${CMAKE_CXX_COMPILE_OPTIONS_PIE})

function(msgapi_precompile)
  foreach(target ${ARGN})
    get_target_property(type ${target} TYPE)
    if(type STREQUAL EXECUTABLE)
      target_precompile_headers(${target} REUSE_FROM program_headers)
    else()
      target_precompile_headers(${target} REUSE_FROM library_headers)
    endif()
  endforeach()
endfunction()
