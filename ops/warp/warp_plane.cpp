// The plane kernels: pick the scalar or the vector variant for each plane.
#include "ops/warp/warp.h"
#include "ops/warp/warp_kernels.h"
#include "plugin/cpu_features.h"

namespace zarvel::aux::warp {
namespace {

void run(const WarpJob& job, int channels, bool perspective) {
  if (job.border_mode != kBorderConstant && job.border_mode != kBorderReplicate &&
      job.border_mode != kBorderTransparent) {
    return;
  }
  if (job.out_width <= 0 || job.out_height <= 0) return;
  // An empty plane has no edge to replicate.
  if (job.border_mode == kBorderReplicate && (job.in_width <= 0 || job.in_height <= 0)) return;
  const bool vector = (cpu_features() & kCpuAvx2Fma) != 0;
  if (perspective) {
    vector ? warp_perspective_fma(job, channels) : warp_perspective_c(job, channels);
  } else {
    vector ? warp_affine_fma(job, channels) : warp_affine_c(job, channels);
  }
}

}  // namespace

#define ZA_WARP_PLANE_KERNEL(name, channels, perspective)                                    \
  void name(int32_t in_height, int32_t in_width, int32_t in_stride, const uint8_t* in,       \
            int32_t out_height, int32_t out_width, int32_t out_stride, uint8_t* out,         \
            const float* matrix, int32_t border_mode, uint8_t border) {                      \
    run({in_height, in_width, in_stride, in, out_height, out_width, out_stride, out, matrix, \
         border_mode, border},                                                               \
        channels, perspective);                                                              \
  }

ZA_WARP_PLANE_KERNEL(warp_affine_c1, 1, false)
ZA_WARP_PLANE_KERNEL(warp_affine_c2, 2, false)
ZA_WARP_PLANE_KERNEL(warp_affine_c3, 3, false)
ZA_WARP_PLANE_KERNEL(warp_perspective_c1, 1, true)
ZA_WARP_PLANE_KERNEL(warp_perspective_c2, 2, true)
ZA_WARP_PLANE_KERNEL(warp_perspective_c3, 3, true)

#undef ZA_WARP_PLANE_KERNEL

}  // namespace zarvel::aux::warp
