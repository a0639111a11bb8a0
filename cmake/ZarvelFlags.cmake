# Compiler flags shared by every target of the project.

# Exact, reproducible arithmetic: no silent contraction of a*b+c into fused multiply-adds.
# Kernels that fuse on purpose call fmaf (scalar) or the FMA intrinsics (vector).
add_compile_options(-ffp-contract=off -Wall -Wextra -Wno-unused-parameter)

# The fuzzing build (clang only) instruments the whole project for coverage on top of the
# address and undefined-behaviour sanitizers; the fuzz targets add the libFuzzer driver.
if(ZARVEL_BUILD_FUZZ)
  set(ZARVEL_SANITIZE ON)
  add_compile_options(-fsanitize=fuzzer-no-link -g)
endif()

if(ZARVEL_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC reports false positives inside std::function and std::regex with these flags.
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wno-maybe-uninitialized>)
  endif()
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
endif()

option(ZARVEL_SANITIZE_THREAD "Build everything with the thread sanitizer" OFF)
if(ZARVEL_SANITIZE_THREAD)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=thread)
endif()

# zarvel_export_map(<target> <map-file>): only the symbols named in the version script
# leave the shared library; everything else (C++ runtime pieces included) stays local.
function(zarvel_export_map target map)
  target_link_options(${target} PRIVATE "LINKER:--version-script=${map}")
  # Clang links the sanitizer runtime into executables only, so sanitized shared libraries
  # leave its symbols to the executable.
  if(NOT (ZARVEL_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang"))
    target_link_options(${target} PRIVATE "LINKER:--no-undefined")
  endif()
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${map}")
endfunction()
