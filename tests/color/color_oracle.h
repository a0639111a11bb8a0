// Per-pixel reference formulas of the colour conversions, written from the definitions in
// 64-bit arithmetic and independent of the kernels' code.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>

namespace zarvel::test::color_oracle {

using Rgb = std::array<uint8_t, 3>;

inline uint8_t clamp255(int64_t v) { return static_cast<uint8_t>(std::clamp<int64_t>(v, 0, 255)); }

// BT.601 video range, Q20.
inline Rgb yuv_to_rgb(int y, int u, int v) {
  const int64_t luma = int64_t{std::max(y, 16) - 16} * 1220542;
  const int64_t d = u - 128, e = v - 128;
  const int64_t r = (luma + 1673527 * e + 524288) >> 20;
  const int64_t g = (luma - 852492 * e - 409993 * d + 524288) >> 20;
  const int64_t b = (luma + 2116026 * d + 524288) >> 20;
  return {clamp255(r), clamp255(g), clamp255(b)};
}

inline uint8_t luma_of(int r, int g, int b) {
  return static_cast<uint8_t>((int64_t{269484} * r + 528482 * g + 102760 * b + 17301504) >> 20);
}
inline uint8_t u_of(int r, int g, int b) {
  return static_cast<uint8_t>((int64_t{-155188} * r - 305135 * g + 460324 * b + 134742016) >> 20);
}
inline uint8_t v_of(int r, int g, int b) {
  return static_cast<uint8_t>((int64_t{460324} * r - 385875 * g - 74448 * b + 134742016) >> 20);
}

inline uint8_t grey_of(int r, int g, int b) {
  return clamp255((int64_t{4899} * r + 9617 * g + 1868 * b + 8192) >> 14);
}

}  // namespace zarvel::test::color_oracle
