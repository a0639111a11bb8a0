// The processor-feature word: computed once, read by the kernel dispatchers of the colour,
// resize, warp and equalisation families to pick their vector variants.
#pragma once

#include <cstdint>

namespace zarvel::aux {

inline constexpr uint32_t kCpuAvx = 0x1;        // VEX-encoded 128-bit instructions usable
inline constexpr uint32_t kCpuAvx2 = 0x40;      // 256-bit integer multiply and add usable
inline constexpr uint32_t kCpuAvx2Fma = 0x100;  // 256-bit fused multiply-add usable
// 512-bit byte permutes usable (AVX-512 F, BW and VBMI; implies the bits above).
inline constexpr uint32_t kCpuAvx512Vbmi = 0x200;
// 512-bit population counts (VPOPCNTDQ), 52-bit multiply-adds (IFMA) and bit-matrix
// transforms (GFNI) usable, with the bit above.
inline constexpr uint32_t kCpuAvx512Bits = 0x400;

// Features of this processor and operating system, filtered by the test mask.
uint32_t cpu_features();

// Test-only switch: features outside `mask` are reported absent, so a test can force the
// scalar kernels (mask 0) or any one variant. ~0u restores detection.
void set_cpu_feature_mask(uint32_t mask);

}  // namespace zarvel::aux
