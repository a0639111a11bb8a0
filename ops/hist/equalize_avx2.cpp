// 256-bit table mapping: dst = table[src] for 32 bytes per step, with byte shuffles over the
// table's sixteen 16-byte rows. Built with -mavx2, outside LTO.
#include <immintrin.h>

#include <cstdint>

#include "ops/hist/hist_kernels.h"

namespace zarvel::aux::hist {

// A byte shuffle looks up 16 entries and gives 0 where the index has bit 7 set. Levels
// 0..127 run through rows 0..7 with x = level, then x - 16, x - 32, ... (signed, saturating
// at -128): for level 16k + j, the lookups at steps 0..k see index j and every later one a
// negative index. XOR-ing row i with row i - 1 beforehand makes the k + 1 looked-up values
// telescope to row k, entry j. Levels 128..255 do the same on rows 8..15 with bit 7 of the
// level flipped, and each half gives 0 for the other's levels (their index stays negative).
void map_run_avx2(const uint8_t* src, int64_t n, uint8_t* dst, const uint8_t table[256]) {
  __m256i rows[16];
  for (int half = 0; half < 2; ++half) {
    __m128i previous = _mm_setzero_si128();
    for (int i = 0; i < 8; ++i) {
      const __m128i row =
          _mm_loadu_si128(reinterpret_cast<const __m128i*>(table + 128 * half + 16 * i));
      rows[8 * half + i] = _mm256_broadcastsi128_si256(_mm_xor_si128(row, previous));
      previous = row;
    }
  }
  const __m256i step = _mm256_set1_epi8(16), flip = _mm256_set1_epi8(static_cast<char>(0x80));
  auto map32 = [&](__m256i level) {
    __m256i low = level, high = _mm256_xor_si256(level, flip);
    __m256i r =
        _mm256_xor_si256(_mm256_shuffle_epi8(rows[0], low), _mm256_shuffle_epi8(rows[8], high));
    for (int i = 1; i < 8; ++i) {
      low = _mm256_subs_epi8(low, step);
      high = _mm256_subs_epi8(high, step);
      r = _mm256_xor_si256(r, _mm256_xor_si256(_mm256_shuffle_epi8(rows[i], low),
                                               _mm256_shuffle_epi8(rows[8 + i], high)));
    }
    return r;
  };
  int64_t x = 0;
  for (; x + 64 <= n; x += 64) {
    const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + x));
    const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + x + 32));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + x), map32(a));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + x + 32), map32(b));
  }
  if (x + 32 <= n) {
    const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + x));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + x), map32(a));
    x += 32;
  }
  for (; x < n; ++x) dst[x] = table[src[x]];
}

}  // namespace zarvel::aux::hist
