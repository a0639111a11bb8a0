// Plane kernels of the affine and perspective warps, and their per-variant entry points.
//
// Geometry: the matrix maps an output pixel (x, y) to the input position that is sampled
// (an inverse map, integer pixel positions, no half-pixel offset):
//   affine:       sx = m0*x + (m1*y + m2),              sy = m3*x + (m4*y + m5)
//   perspective:  w = m6*x + (m7*y + m8), sx = (m0*x + (m1*y + m2)) / w, sy likewise.
// The bracketed y terms are computed once per row.
//
// Scalar variant: coordinates truncated toward zero, float bilinear blend, result truncated
// and stored as its low byte.
//
// Vector variant (256-bit FMA), run under the round-down rounding mode:
//   ix = floor(sx), fx = sx - ix (likewise y); the coordinates come from fused multiply-adds,
//   and the perspective variant multiplies by the processor's reciprocal estimate of w.
//   Weights are Q16: wTL = floor((1-fx)(1-fy) * 2^16), wTR = floor(fx(1-fy) * 2^16),
//   wBL = floor((1-fx)fy * 2^16), wBR = floor(fx*fy * 2^16). Each weight lies in [0, 2^16]
//   and they sum to at most 2^16, so the blend of four bytes is at most 255 * 2^16 < 2^24:
//   out = (wTL*TL + wTR*TR + wBL*BL + wBR*BR + 2^15) >> 16 rounds to nearest in 32-bit
//   integers. (Out-of-range or non-finite coordinates convert to INT32_MIN; the integer
//   arithmetic then wraps modulo 2^32 and the low byte is stored, as the scalar lane code does.)
#pragma once

#include <cstdint>
#include <type_traits>

namespace zarvel::aux::warp {

// Border modes.
inline constexpr int32_t kBorderConstant = 0;     // outside neighbours read the border byte
inline constexpr int32_t kBorderReplicate = 1;    // neighbours clamped to the plane's edge
inline constexpr int32_t kBorderTransparent = 5;  // pixels with an outside neighbour unwritten

// Q16 weights of the vector variant (see above).
inline constexpr int kWeightBits = 16;
inline constexpr float kWeightScale = 65536.0f;
inline constexpr int32_t kWeightRound = 1 << (kWeightBits - 1);

// One plane to warp. `m` holds 6 (affine) or 9 (perspective) floats.
struct WarpJob {
  int32_t in_height;
  int32_t in_width;
  int32_t in_stride;
  const uint8_t* in;
  int32_t out_height;
  int32_t out_width;
  int32_t out_stride;
  uint8_t* out;
  const float* m;
  int32_t border_mode;
  uint8_t border;
};

// Variants for 1, 2 or 3 interleaved channels; the caller has checked the border mode
// (0, 1 or 5) and that a replicated plane is not empty.
void warp_affine_c(const WarpJob& job, int channels);
void warp_perspective_c(const WarpJob& job, int channels);
void warp_affine_fma(const WarpJob& job, int channels);
void warp_perspective_fma(const WarpJob& job, int channels);

// Float to int32 the way the processor's conversions treat values they cannot represent:
// NaN and out-of-range values give INT32_MIN.
inline int32_t trunc_to_int32(float v) {
  if (v >= -2147483648.0f && v < 2147483648.0f) return static_cast<int32_t>(v);
  return INT32_MIN;
}

// Calls f(channel count, border mode) with both as compile-time constants, for 1 to 3
// channels and the three border modes; other values do nothing (the kernels' contract).
template <class F>
void for_channels_and_mode(int channels, int32_t mode, F&& f) {
  auto with_mode = [mode, &f](auto c) {
    switch (mode) {
      case kBorderConstant:
        return f(c, std::integral_constant<int32_t, kBorderConstant>{});
      case kBorderReplicate:
        return f(c, std::integral_constant<int32_t, kBorderReplicate>{});
      case kBorderTransparent:
        return f(c, std::integral_constant<int32_t, kBorderTransparent>{});
      default:
        return;
    }
  };
  switch (channels) {
    case 1:
      return with_mode(std::integral_constant<int, 1>{});
    case 2:
      return with_mode(std::integral_constant<int, 2>{});
    case 3:
      return with_mode(std::integral_constant<int, 3>{});
    default:
      return;
  }
}

}  // namespace zarvel::aux::warp
