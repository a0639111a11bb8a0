// Scalar warp kernels: truncated coordinates and a float bilinear blend, truncated.
#include <cstddef>
#include <type_traits>

#include "ops/warp/warp_kernels.h"

namespace zarvel::aux::warp {
namespace {

template <int C, bool kPerspective, int32_t kMode>
void warp_rows(const WarpJob& j) {
  const float* m = j.m;
  const int64_t in_w = j.in_width, in_h = j.in_height;
  const int64_t in_stride = j.in_stride;
  for (int32_t y = 0; y < j.out_height; ++y) {
    uint8_t* out = j.out + static_cast<ptrdiff_t>(y) * j.out_stride;
    const auto yf = static_cast<float>(y);
    const float row_x = m[1] * yf + m[2];
    const float row_y = m[4] * yf + m[5];
    const float row_w = kPerspective ? m[7] * yf + m[8] : 1.0f;
    for (int32_t x = 0; x < j.out_width; ++x, out += C) {
      const auto xf = static_cast<float>(x);
      float sx = m[0] * xf + row_x;
      float sy = m[3] * xf + row_y;
      if constexpr (kPerspective) {
        const float w = m[6] * xf + row_w;  // not checked for zero: w = 0 reads the border
        sx = sx / w;
        sy = sy / w;
      }
      const int32_t ix = trunc_to_int32(sx);
      const int32_t iy = trunc_to_int32(sy);
      const float fx = sx - static_cast<float>(ix);
      const float fy = sy - static_cast<float>(iy);
      int64_t c0 = ix, c1 = int64_t{ix} + 1, r0 = iy, r1 = int64_t{iy} + 1;
      const bool c0_in = c0 >= 0 && c0 < in_w, c1_in = c1 >= 0 && c1 < in_w;
      const bool r0_in = r0 >= 0 && r0 < in_h, r1_in = r1 >= 0 && r1 < in_h;
      if constexpr (kMode == kBorderTransparent) {
        if (!(c0_in && c1_in && r0_in && r1_in)) continue;
      }
      if constexpr (kMode == kBorderReplicate) {
        auto clamp = [](int64_t v, int64_t hi) { return v < 0 ? 0 : (v > hi ? hi : v); };
        c0 = clamp(c0, in_w - 1);
        c1 = clamp(c1, in_w - 1);
        r0 = clamp(r0, in_h - 1);
        r1 = clamp(r1, in_h - 1);
      }
      const float w_tl = (1.0f - fx) * (1.0f - fy);
      const float w_tr = fx * (1.0f - fy);
      const float w_bl = (1.0f - fx) * fy;
      const float w_br = fx * fy;
      for (int ch = 0; ch < C; ++ch) {
        // Addresses are formed only for neighbours that are read.
        auto at = [&](int64_t row, int64_t col, bool inside) -> float {
          if (kMode == kBorderConstant && !inside) return j.border;
          return j.in[row * in_stride + col * C + ch];
        };
        const float v = w_tl * at(r0, c0, r0_in && c0_in) + w_tr * at(r0, c1, r0_in && c1_in) +
                        w_bl * at(r1, c0, r1_in && c0_in) + w_br * at(r1, c1, r1_in && c1_in) +
                        0.0f;
        out[ch] = static_cast<uint8_t>(trunc_to_int32(v));
      }
    }
  }
}

template <bool kPerspective>
void warp_dispatch(const WarpJob& job, int channels) {
  for_channels_and_mode(channels, job.border_mode, [&job](auto c, auto mode) {
    warp_rows<decltype(c)::value, kPerspective, decltype(mode)::value>(job);
  });
}

}  // namespace

void warp_affine_c(const WarpJob& job, int channels) { warp_dispatch<false>(job, channels); }
void warp_perspective_c(const WarpJob& job, int channels) { warp_dispatch<true>(job, channels); }

}  // namespace zarvel::aux::warp
