// The vector kernels against the plain loops: sources ending at an inaccessible page,
// unaligned starts, padded strides, destinations pre-filled with a sentinel.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "guarded_buffer.h"
#include "op_test_support.h"
#include "ops/rotate/rotate.h"

namespace za = zarvel::aux;

namespace {

// Rotates a source whose last row ends at a guard page into a sentinel-filled destination.
std::vector<uint8_t> rotate_with(uint32_t mask, int p, int angle, int h, int w, int src_pad,
                                 int offset, uint32_t seed) {
  const int src_stride = w * p + src_pad;
  zarvel::test::GuardedBuffer src(static_cast<size_t>(h - 1) * src_stride + w * p);
  std::mt19937 rng(seed);
  for (size_t k = 0; k < src.size(); ++k) src.data()[k] = static_cast<uint8_t>(rng());
  const int dh = angle != 180 ? w : h, dw = angle != 180 ? h : w, dst_stride = dw * p + 3;
  std::vector<uint8_t> dst(static_cast<size_t>(dh) * dst_stride + offset, 0xA5);
  zarvel::test::FeatureMask features(mask);
  za::rotate::rotate_plane(angle, p, h, w, src_stride, src.data(), dh, dw, dst_stride,
                           dst.data() + offset);
  return dst;
}

// Half turns over every width to 130 (the 16-byte blocks); quarter turns over sizes straddling
// the 64-pixel tiles.
TEST(RotateKernels, VectorEqualsPlainLoops) {
  std::vector<std::pair<int, int>> half, quarter;
  for (int w = 1; w <= 130; ++w) half.insert(half.end(), {{1, w}, {3, w}});
  for (int h : {1, 15, 16, 17, 63, 64, 65, 80, 127, 128, 129, 130, 192, 200})
    for (int w : {1, 15, 16, 17, 63, 64, 65, 80, 127, 128, 129, 130, 192, 200})
      quarter.push_back({h, w});
  for (int p : {1, 2, 3}) {
    for (int angle : {90, 180, 270}) {
      for (auto [h, w] : angle == 180 ? half : quarter) {
        const int pad = (h + w) % 7, offset = (h * 3 + w) % 16, seed = h * 1000 + w;
        ASSERT_EQ(rotate_with(0, p, angle, h, w, pad, offset, seed),
                  rotate_with(~0u, p, angle, h, w, pad, offset, seed))
            << p << ": " << angle << " " << w << "x" << h;
      }
    }
  }
}

}  // namespace
