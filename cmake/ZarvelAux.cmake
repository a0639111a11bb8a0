# The zarvel_aux plugin: an internal static library with everything of the component (the
# unit tests link it to reach internal functions), and the shared library that exports only
# the documented C entry points.

# ---- build information for the banner ----
set(ZARVEL_AUX_NOTICE "Copyright (c) 2026 The zarvel authors. All rights reserved."
    CACHE STRING "Maker's notice shown in the banner")
set(ZARVEL_AUX_CONTACT "support@zarvel.dev" CACHE STRING "Support address shown in the banner")

set(ZARVEL_AUX_REVISION "0000000000000000000000000000000000000000")
find_package(Git QUIET)
if(GIT_FOUND)
  execute_process(COMMAND ${GIT_EXECUTABLE} -C ${PROJECT_SOURCE_DIR} rev-parse HEAD
                  OUTPUT_VARIABLE _rev OUTPUT_STRIP_TRAILING_WHITESPACE
                  RESULT_VARIABLE _rev_status ERROR_QUIET)
  if(_rev_status EQUAL 0 AND _rev MATCHES "^[0-9a-f]+$")
    string(LENGTH "${_rev}" _rev_length)
    if(_rev_length EQUAL 40)
      set(ZARVEL_AUX_REVISION "${_rev}")
    endif()
  endif()
endif()

set(ZARVEL_AUX_SYSTEM "${CMAKE_HOST_SYSTEM_NAME}-${CMAKE_HOST_SYSTEM_VERSION}")
string(TOLOWER "${CMAKE_SYSTEM_PROCESSOR}" _cpu)
if(_cpu MATCHES "^(x86_64|amd64)$")
  set(ZARVEL_AUX_ARCH "AMD64")
elseif(_cpu MATCHES "^(aarch64|arm64)$")
  set(ZARVEL_AUX_ARCH "ARM64")
else()
  string(TOUPPER "${_cpu}" ZARVEL_AUX_ARCH)
endif()
set(ZARVEL_AUX_CONFIG "${CMAKE_BUILD_TYPE}")
if(NOT ZARVEL_AUX_CONFIG)
  set(ZARVEL_AUX_CONFIG "Release")
endif()
configure_file(${PROJECT_SOURCE_DIR}/plugin/build_info.h.in
               ${PROJECT_BINARY_DIR}/generated/zarvel_aux_build_info.h @ONLY)

# ---- the component ----
add_library(zarvel_aux_internal STATIC
  plugin/cpu_features.cpp
  plugin/dispatch.cpp
  plugin/host_device_api.cpp)

# Each operation family adds its sources (and its per-ISA kernel object libraries) to
# zarvel_aux_internal from its own CMakeLists.txt, and lists its exports in exports.list.
set(ZARVEL_AUX_FAMILIES ops/crop_resize ops/color ops/rotate ops/warp ops/hist tensor transform
    codec)
set(_export_lists ${PROJECT_SOURCE_DIR}/plugin/exports.list)
foreach(_family IN LISTS ZARVEL_AUX_FAMILIES)
  if(EXISTS ${PROJECT_SOURCE_DIR}/${_family}/CMakeLists.txt)
    add_subdirectory(${_family})
  endif()
  if(EXISTS ${PROJECT_SOURCE_DIR}/${_family}/exports.list)
    list(APPEND _export_lists ${PROJECT_SOURCE_DIR}/${_family}/exports.list)
  endif()
endforeach()

# The version script: the listed functions are global, everything else local.
set(ZARVEL_AUX_EXPORT_MAP ${PROJECT_BINARY_DIR}/generated/zarvel_aux.map)
set(_symbols "")
foreach(_list IN LISTS _export_lists)
  file(STRINGS ${_list} _lines REGEX "^[A-Za-z_][A-Za-z0-9_]*$")
  foreach(_name IN LISTS _lines)
    string(APPEND _symbols "    ${_name};\n")
  endforeach()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${_list})
endforeach()
file(CONFIGURE OUTPUT ${ZARVEL_AUX_EXPORT_MAP}
     CONTENT "ZARVEL_AUX_1 {\n  global:\n${_symbols}  local: *;\n};\n")
target_include_directories(zarvel_aux_internal PUBLIC
  ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include ${PROJECT_BINARY_DIR}/generated)
target_compile_definitions(zarvel_aux_internal PUBLIC ZARVEL_AUX_BUILDING)
target_link_libraries(zarvel_aux_internal PUBLIC zarvel_frame zarvel_core)

add_library(zarvel_aux SHARED plugin/identity.cpp)
add_library(zarvel::aux ALIAS zarvel_aux)
target_include_directories(zarvel_aux PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_include_directories(zarvel_aux PRIVATE ${PROJECT_BINARY_DIR}/generated)
target_compile_definitions(zarvel_aux PRIVATE ZARVEL_AUX_BUILDING)
target_link_libraries(zarvel_aux
  PRIVATE $<LINK_LIBRARY:WHOLE_ARCHIVE,zarvel_aux_internal>
  PUBLIC zarvel_frame zarvel_core)
set_target_properties(zarvel_aux PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION 1
                      EXPORT_NAME aux)
zarvel_export_map(zarvel_aux ${ZARVEL_AUX_EXPORT_MAP})
