# Compiler flags shared by every target of the project.

# Exact, reproducible arithmetic: no silent contraction of a*b+c into fused multiply-adds.
# Kernels that fuse on purpose call fmaf (scalar) or the FMA intrinsics (vector).
add_compile_options(-ffp-contract=off -Wall -Wextra -Wno-unused-parameter)

if(ZARVEL_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  # GCC reports false positives inside std::function and std::regex with these flags.
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wno-maybe-uninitialized>)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
endif()

# zarvel_export_map(<target> <map-file>): only the symbols named in the version script
# leave the shared library; everything else (C++ runtime pieces included) stays local.
function(zarvel_export_map target map)
  target_link_options(${target} PRIVATE "LINKER:--version-script=${map}" "LINKER:--no-undefined")
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${map}")
endfunction()
