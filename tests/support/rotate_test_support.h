// Helpers of the rotation tests: an index-mapping oracle and frames with padded strides.
#pragma once

#include <zarvel/frame.h>

#include <cstdint>
#include <vector>

#include "frame_test_support.h"

namespace zarvel::test {

// The rotated plane as tight rows, pixel by pixel from the clockwise mapping.
inline std::vector<uint8_t> rotate_oracle(const uint8_t* src, int h, int w, int stride, int p,
                                          int angle) {
  const bool quarter = angle == 90 || angle == 270;
  const int oh = quarter ? w : h, ow = quarter ? h : w;
  std::vector<uint8_t> out(static_cast<size_t>(oh) * ow * p);
  for (int r = 0; r < oh; ++r) {
    for (int c = 0; c < ow; ++c) {
      int sr = 0, sc = 0;
      if (angle == 90) sr = h - 1 - c, sc = r;
      if (angle == 180) sr = h - 1 - r, sc = w - 1 - c;
      if (angle == 270) sr = c, sc = w - 1 - r;
      for (int k = 0; k < p; ++k) {
        out[(static_cast<size_t>(r) * ow + c) * p + k] =
            src[static_cast<size_t>(sr) * stride + static_cast<size_t>(sc) * p + k];
      }
    }
  }
  return out;
}

// Strides with `pad` extra bytes on every plane (pad 0: the library's choice).
inline std::vector<int32_t> padded_strides(uint32_t format, int w, int pad) {
  std::vector<int32_t> s(4, 0);
  if (pad == 0) return s;
  const auto planes = planes_of(format);
  for (size_t i = 0; i < planes.size(); ++i)
    s[i] = w / planes[i].div * planes[i].pixel_size + pad + static_cast<int>(i);
  return s;
}

}  // namespace zarvel::test
