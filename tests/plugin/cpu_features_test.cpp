// The processor-feature word and its test mask. (Concurrent first use is covered by the
// threads test, which starts every operation from many threads at once.)
#include "plugin/cpu_features.h"

#include <gtest/gtest.h>

namespace za = zarvel::aux;

TEST(CpuFeatures, MaskFiltersTheDetectedWord) {
  const uint32_t all = za::cpu_features();
  // Each bit implies the narrower ones: FMA-256 needs AVX2, AVX2 needs AVX.
  EXPECT_TRUE(!(all & za::kCpuAvx2Fma) || (all & za::kCpuAvx2));
  EXPECT_TRUE(!(all & za::kCpuAvx2) || (all & za::kCpuAvx));
  EXPECT_EQ(all & ~(za::kCpuAvx | za::kCpuAvx2 | za::kCpuAvx2Fma), 0u);
  for (uint32_t mask : {0u, za::kCpuAvx, ~0u}) {
    za::set_cpu_feature_mask(mask);
    EXPECT_EQ(za::cpu_features(), all & mask);
  }
}
