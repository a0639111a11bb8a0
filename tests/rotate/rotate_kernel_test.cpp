// The vector kernels against the plain loops: sources ending at an inaccessible
// page, unaligned starts, padded strides, destinations pre-filled with a sentinel.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "ops/rotate/rotate.h"
#include "plugin/cpu_features.h"
#include "rotate_test_support.h"

namespace za = zarvel::aux;

namespace {

// Rotates a source whose last row ends at a guard page into a sentinel-filled destination.
std::vector<uint8_t> rotate_with(uint32_t mask, int p, int angle, int h, int w, int src_pad,
                                 int offset, uint32_t seed) {
  const int src_stride = w * p + src_pad;
  zarvel::test::GuardedBytes src(static_cast<size_t>(h - 1) * src_stride + w * p);
  std::mt19937 rng(seed);
  for (size_t k = 0; k < src.size(); ++k) src.data()[k] = static_cast<uint8_t>(rng());
  const bool quarter = angle != 180;
  const int dh = quarter ? w : h, dw = quarter ? h : w;
  const int dst_stride = dw * p + 3;
  std::vector<uint8_t> dst(static_cast<size_t>(dh) * dst_stride + offset, 0xA5);
  za::set_cpu_feature_mask(mask);
  za::rotate::rotate_plane(angle, p, h, w, src_stride, src.data(), dh, dw, dst_stride,
                           dst.data() + offset);
  za::set_cpu_feature_mask(~0u);
  return dst;
}

TEST(RotateKernels, HalfTurnVectorRowsEqualPlainRowsForEveryWidth) {
  for (int p : {1, 2, 3}) {
    for (int w = 1; w <= 130; ++w) {
      for (int h : {1, 3}) {
        const auto scalar = rotate_with(0, p, 180, h, w, w % 5, w % 3, w);
        const auto vector = rotate_with(~0u, p, 180, h, w, w % 5, w % 3, w);
        ASSERT_EQ(scalar, vector) << p << ": " << w << "x" << h;
      }
    }
  }
}

TEST(RotateKernels, QuarterTurnTilesEqualPlainLoops) {
  const std::vector<int> sizes = {1, 15, 16, 17, 63, 64, 65, 80, 127, 128, 129, 130, 192, 200};
  for (int p : {1, 2, 3}) {
    for (int angle : {90, 270}) {
      for (int h : sizes) {
        for (int w : sizes) {
          const int pad = (h + w) % 7, offset = (h * 3 + w) % 16;
          const auto scalar = rotate_with(0, p, angle, h, w, pad, offset, h * 1000 + w);
          const auto vector = rotate_with(~0u, p, angle, h, w, pad, offset, h * 1000 + w);
          ASSERT_EQ(scalar, vector) << p << ": " << angle << " " << w << "x" << h;
        }
      }
    }
  }
}

TEST(RotateKernels, PlainLoopsFollowTheMappingAndOtherAnglesWriteNothing) {
  std::mt19937 rng(1);
  for (int p : {1, 2, 3}) {
    const int h = 67, w = 70, stride = w * p + 2;
    std::vector<uint8_t> src(static_cast<size_t>(h) * stride);
    for (auto& b : src) b = static_cast<uint8_t>(rng());
    for (int angle : {90, 180, 270}) {
      const bool quarter = angle != 180;
      const int dh = quarter ? w : h, dw = quarter ? h : w;
      std::vector<uint8_t> dst(static_cast<size_t>(dh) * dw * p, 0xA5);
      za::set_cpu_feature_mask(0);
      za::rotate::rotate_plane(angle, p, h, w, stride, src.data(), dh, dw, dw * p, dst.data());
      za::set_cpu_feature_mask(~0u);
      EXPECT_EQ(dst, zarvel::test::rotate_oracle(src.data(), h, w, stride, p, angle))
          << p << " " << angle;
    }
    for (int angle : {0, 45, 89, 360, -90}) {
      std::vector<uint8_t> dst(static_cast<size_t>(h) * w * p, 0xA5);
      za::rotate::rotate_plane(angle, p, h, w, stride, src.data(), h, w, w * p, dst.data());
      EXPECT_EQ(dst, std::vector<uint8_t>(dst.size(), 0xA5)) << angle;
    }
  }
}

}  // namespace
