// Slots 2 and 3 of the host Device API: warp each plane of a frame. Chroma planes of the 4:2:0
// formats use the same matrix with its translation halved, and neutral grey as the border.
#include <cstring>

#include "ops/warp/warp.h"
#include "ops/warp/warp_kernels.h"
#include "plugin/log.h"
#include "plugin/status.h"

namespace zarvel::aux {
namespace {

constexpr uint8_t kLumaBorder = 0;
constexpr uint8_t kChromaBorder = 128;

struct PlaneKernels {
  warp::PlaneKernel c1;
  warp::PlaneKernel c2;
  warp::PlaneKernel c3;
};

// Runs the per-format driver; false when the format has none.
template <int N>
bool warp_frame(const zarvel_frame_t* src, zarvel_frame_t* dst, const float (&matrix)[N],
                const PlaneKernels& k) {
  // The chroma planes are half the size in each direction; only the translation is halved.
  float chroma[N];
  std::memcpy(chroma, matrix, sizeof chroma);
  chroma[2] = matrix[2] * 0.5f;
  chroma[5] = matrix[5] * 0.5f;
  auto plane = [&](warp::PlaneKernel kernel, int i, bool half, const float* m, uint8_t border) {
    const int32_t d = half ? 2 : 1;
    kernel(src->height / d, src->width / d, src->stride[i], src->plane[i], dst->height / d,
           dst->width / d, dst->stride[i], dst->plane[i], m, warp::kBorderConstant, border);
  };
  switch (src->format) {
    case ZARVEL_PIXFMT_GREY:
      plane(k.c1, 0, false, matrix, kLumaBorder);
      return true;
    case ZARVEL_PIXFMT_RGB24:
    case ZARVEL_PIXFMT_BGR24:
      plane(k.c3, 0, false, matrix, kLumaBorder);
      return true;
    case ZARVEL_PIXFMT_YU12:
      plane(k.c1, 0, false, matrix, kLumaBorder);
      plane(k.c1, 1, true, chroma, kChromaBorder);
      plane(k.c1, 2, true, chroma, kChromaBorder);
      return true;
    case ZARVEL_PIXFMT_NV12:
    case ZARVEL_PIXFMT_NV21:
      // The chroma pairs move together as two interleaved channels, whatever their order.
      plane(k.c1, 0, false, matrix, kLumaBorder);
      plane(k.c2, 1, true, chroma, kChromaBorder);
      return true;
    default:
      return false;
  }
}

}  // namespace

int32_t host_warp_affine(zarvel_frame_t* src, zarvel_frame_t* dst, const float* matrix) {
  float m[6];
  std::memcpy(m, matrix, sizeof m);
  if (!warp_frame(src, dst, m,
                  {warp::warp_affine_c1, warp::warp_affine_c2, warp::warp_affine_c3})) {
    ZA_HOST_LOG(ZARVEL_LOG_FAILURE,
                "Do WarpAffine transform for a frame in format [%s] is not supported yet!\n",
                zarvel_frame_pixfmt_to_string(src->format));
  }
  return kOk;  // an unsupported format leaves the destination alone; the status stays 0
}

int32_t host_warp_perspective(zarvel_frame_t* src, zarvel_frame_t* dst, const float* matrix) {
  // The perspective terms m6, m7, m8 of the chroma matrix stay as they are.
  float m[9];
  std::memcpy(m, matrix, sizeof m);
  if (!warp_frame(
          src, dst, m,
          {warp::warp_perspective_c1, warp::warp_perspective_c2, warp::warp_perspective_c3})) {
    ZA_HOST_LOG(ZARVEL_LOG_FAILURE,
                "Do warpperspective transform for a frame in format [%s] is not supported yet!\n",
                zarvel_frame_pixfmt_to_string(src->format));
  }
  return kOk;  // as for the affine warp
}

}  // namespace zarvel::aux
