// The processor-feature word and its test mask.
#include "plugin/cpu_features.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace za = zarvel::aux;

TEST(CpuFeatures, MaskFiltersTheDetectedWord) {
  const uint32_t all = za::cpu_features();
  // Each bit implies the narrower ones: FMA-256 needs AVX2, AVX2 needs AVX.
  if (all & za::kCpuAvx2Fma) {
    EXPECT_TRUE(all & za::kCpuAvx2);
  }
  if (all & za::kCpuAvx2) {
    EXPECT_TRUE(all & za::kCpuAvx);
  }
  EXPECT_EQ(all & ~(za::kCpuAvx | za::kCpuAvx2 | za::kCpuAvx2Fma), 0u);

  za::set_cpu_feature_mask(0);
  EXPECT_EQ(za::cpu_features(), 0u);
  za::set_cpu_feature_mask(za::kCpuAvx);
  EXPECT_EQ(za::cpu_features(), all & za::kCpuAvx);
  za::set_cpu_feature_mask(~0u);
  EXPECT_EQ(za::cpu_features(), all);
}

TEST(CpuFeatures, ConcurrentFirstUseAgrees) {
  std::vector<uint32_t> seen(8);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < seen.size(); ++i)
    threads.emplace_back([&seen, i] { seen[i] = za::cpu_features(); });
  for (auto& t : threads) t.join();
  for (uint32_t v : seen) EXPECT_EQ(v, seen[0]);
}
