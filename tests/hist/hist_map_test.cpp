// The mapping pass on both paths (scalar, and the 256-bit byte-shuffle lookup): every level
// through arbitrary tables, rows whose lengths straddle the 32- and 64-byte steps, padded and
// contiguous rows; bytes outside the rows stay untouched.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "ops/hist/hist.h"
#include "plugin/cpu_features.h"

namespace za = zarvel::aux;

namespace {

constexpr uint8_t kSentinel = 0xA5;

void expect_mapping(int w, int h, int src_stride, int dst_stride, std::mt19937& rng) {
  std::vector<uint8_t> src(static_cast<size_t>(h) * src_stride);
  for (size_t k = 0; k < src.size(); ++k) src[k] = static_cast<uint8_t>(k * 37 + rng());
  uint8_t table[256];
  for (auto& t : table) t = static_cast<uint8_t>(rng());
  std::vector<uint8_t> dst(static_cast<size_t>(h) * dst_stride, kSentinel);
  za::hist::map_table(h, w, src_stride, src.data(), dst_stride, dst.data(), table);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < dst_stride; ++x) {
      const uint8_t want = x < w ? table[src[y * src_stride + x]] : kSentinel;
      ASSERT_EQ(dst[y * dst_stride + x], want) << w << "x" << h << " at " << x << "," << y;
    }
  }
}

TEST(EqualizeHistMapping, BothPathsLookUpEveryByte) {
  for (uint32_t mask : {0u, ~0u}) {
    za::set_cpu_feature_mask(mask);
    std::mt19937 rng(21);
    for (int w = 0; w <= 200; ++w) {
      expect_mapping(w, 3, w + 5, w + 3, rng);
      if (::testing::Test::HasFatalFailure()) break;
    }
    expect_mapping(1920, 3, 1920, 1920, rng);  // contiguous rows: one long run
    expect_mapping(97, 2, 97, 97, rng);
    za::set_cpu_feature_mask(~0u);
    if (::testing::Test::HasFatalFailure()) return;
  }
}

}  // namespace
