// The equalisation kernel: histogram, cumulative table, byte mapping (scalar, or the
// 256-bit or 512-bit mapping when the processor has them).
#include <cmath>
#include <cstddef>
#include <cstring>

#include "ops/hist/hist.h"
#include "ops/hist/hist_kernels.h"
#include "plugin/cpu_features.h"

namespace zarvel::aux::hist {
namespace {

void count_run(const uint8_t* p, int64_t n, SubHistograms sub) {
  int64_t x = 0;
  for (; x + 8 <= n; x += 8) count8(p + x, sub);
  for (; x < n; ++x) ++sub[x & 3][p[x]];
}

// One table load and one byte store a pixel: assembling 8-byte words from the looked-up bytes
// costs more shifts than the stores it saves.
void map_run_c(const uint8_t* s, int64_t n, uint8_t* d, const uint8_t table[256]) {
  for (int64_t x = 0; x < n; ++x) d[x] = table[s[x]];
}

}  // namespace

void count_histogram(int32_t height, int32_t width, int32_t stride, const uint8_t* src,
                     int32_t hist[256]) {
  SubHistograms sub;
  std::memset(sub, 0, sizeof sub);
  if (height > 0 && width > 0) {
    // Contiguous rows are one run.
    const bool contiguous = stride == width;
    const int64_t run = contiguous ? int64_t{height} * width : width;
    const int32_t runs = contiguous ? 1 : height;
    constexpr uint32_t kBits = kCpuAvx512Vbmi | kCpuAvx512Bits;
    if ((cpu_features() & kBits) == kBits) {
      count_runs_avx512(src, run, runs, stride, sub);
    } else {
      for (int32_t y = 0; y < runs; ++y) count_run(src + std::ptrdiff_t{y} * stride, run, sub);
    }
  }
  for (int i = 0; i < 256; ++i) {
    hist[i] = static_cast<int32_t>(sub[0][i] + sub[1][i] + sub[2][i] + sub[3][i]);
  }
}

void build_equalize_table(const int32_t hist[256], int32_t n, uint8_t table[256]) {
  std::memset(table, 0, 256);
  int m = 0;
  while (m < 255 && hist[m] == 0) ++m;
  const int32_t divisor = n - hist[m];
  if (divisor <= 0) return;  // flat image: every pixel is level m, which maps to 0
  const float scale = 255.0f / static_cast<float>(divisor);
  int32_t sum = 0;  // counts of levels m + 1 .. i; level m's own count is never added
  for (int i = m + 1; i < 256; ++i) {
    sum += hist[i];
    const auto entry = static_cast<int32_t>(std::roundf(static_cast<float>(sum) * scale));
    table[i] = static_cast<uint8_t>(entry);  // low 8 bits; entries never exceed 255
  }
}

void map_table(int32_t height, int32_t width, int32_t src_stride, const uint8_t* src,
               int32_t dst_stride, uint8_t* dst, const uint8_t table[256]) {
  if (height <= 0 || width <= 0) return;
  const uint32_t features = cpu_features();
  const auto map_run = (features & kCpuAvx512Vbmi) != 0 ? map_run_avx512vbmi
                       : (features & kCpuAvx2) != 0     ? map_run_avx2
                                                        : map_run_c;
  if (src_stride == width && dst_stride == width) {
    map_run(src, int64_t{height} * width, dst, table);
    return;
  }
  for (int32_t y = 0; y < height; ++y) {
    map_run(src + std::ptrdiff_t{y} * src_stride, width, dst + std::ptrdiff_t{y} * dst_stride,
            table);
  }
}

void equalize_hist_plane(int32_t height, int32_t width, int32_t src_stride, const uint8_t* src,
                         int32_t dst_stride, uint8_t* dst) {
  int32_t hist[256];
  uint8_t table[256];
  count_histogram(height, width, src_stride, src, hist);
  build_equalize_table(hist, height * width, table);
  map_table(height, width, src_stride, src, dst_stride, dst, table);
}

}  // namespace zarvel::aux::hist
