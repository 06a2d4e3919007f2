# The headers that nearly every source reads, compiled once for all libraries and once for all test programs. The
# presets with tests ask for it: the release is built without, and so tells of a source that lacks an include.
if(EVENT_SERVICE_PRECOMPILED_HEADERS AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  # What gcc 12 wrongly says of the standard library's strings is hidden only where it comes from a system's header, and
  # a precompiled one counts as ours. The other builds keep these warnings.
  target_compile_options(project_options INTERFACE -Wno-array-bounds -Wno-restrict -Wno-stringop-overflow)
  # The compiler tidies up its memory less often, at half a gigabyte.
  target_compile_options(project_options INTERFACE "SHELL:--param ggc-min-heapsize=524288")
endif()

function(add_precompiled_headers name)
  if(NOT EVENT_SERVICE_PRECOMPILED_HEADERS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "HEADERS;LINKS;OPTIONS" ${ARGN})
  set(empty ${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp)
  file(CONFIGURE OUTPUT ${empty} CONTENT "")
  add_library(${name} OBJECT ${empty})
  target_link_libraries(${name} PRIVATE project_options ${ARG_LINKS})
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
  target_compile_options(${name} PRIVATE ${ARG_OPTIONS})
  target_precompile_headers(${name} PRIVATE ${ARG_HEADERS})
endfunction()

# The target reads the headers of `name` precompiled. Both have to be compiled alike.
function(use_precompiled_headers target name)
  if(EVENT_SERVICE_PRECOMPILED_HEADERS)
    target_precompile_headers(${target} REUSE_FROM ${name})
  endif()
endfunction()

set(COMMON_HEADERS
  <algorithm> <array> <chrono> <cstdio> <cstdlib> <filesystem> <functional> <map> <memory> <optional> <set> <span>
  <string> <string_view> <thread> <utility> <vector> <hiredis/hiredis.h> <nlohmann/json.hpp>)
