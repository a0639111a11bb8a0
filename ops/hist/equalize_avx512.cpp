// 512-bit table mapping: dst = table[src] for 64 bytes per step. A two-register byte permute
// looks up 128 entries by the low 7 bits of each byte; two of them cover the table's halves
// and bit 7 of the byte picks between the two results. The last, partial step runs under a
// byte mask, so nothing past the run is read or written. Built with -mavx512f -mavx512bw
// -mavx512vbmi, outside LTO.
#include <immintrin.h>

#include <cstdint>

#include "ops/hist/hist_kernels.h"

namespace zarvel::aux::hist {

void map_run_avx512vbmi(const uint8_t* src, int64_t n, uint8_t* dst, const uint8_t table[256]) {
  const __m512i t0 = _mm512_loadu_si512(table), t1 = _mm512_loadu_si512(table + 64);
  const __m512i t2 = _mm512_loadu_si512(table + 128), t3 = _mm512_loadu_si512(table + 192);
  auto map64 = [&](__m512i level) {
    const __m512i low = _mm512_permutex2var_epi8(t0, level, t1);
    const __m512i high = _mm512_permutex2var_epi8(t2, level, t3);
    return _mm512_mask_blend_epi8(_mm512_movepi8_mask(level), low, high);
  };
  int64_t x = 0;
  for (; x + 64 <= n; x += 64) _mm512_storeu_si512(dst + x, map64(_mm512_loadu_si512(src + x)));
  if (x < n) {
    const __mmask64 tail = (uint64_t{1} << (n - x)) - 1;  // n - x is 1..63
    _mm512_mask_storeu_epi8(dst + x, tail, map64(_mm512_maskz_loadu_epi8(tail, src + x)));
  }
}

}  // namespace zarvel::aux::hist
