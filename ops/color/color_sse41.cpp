// The 128-bit YU12 -> RGB24/BGR24 rows, for processors with 256-bit integer support but no
// FMA level: four pixels a step in 32-bit lanes, the scalar arithmetic exactly.
#include <smmintrin.h>

#include <cstdint>
#include <cstring>

#include "ops/color/color_kernels.h"

namespace zarvel::aux::color {
namespace {

inline __m128i load_bytes(const uint8_t* p, int n) {
  int32_t v = 0;
  std::memcpy(&v, p, n);
  return _mm_cvtsi32_si128(v);
}

template <bool kBgr>
int yu12_rows(const YuvRowPair& rows, int width) {
  const __m128i gain = _mm_set1_epi32(kLumaGain), v_r = _mm_set1_epi32(kVToR);
  const __m128i u_g = _mm_set1_epi32(kUToG), v_g = _mm_set1_epi32(kVToG);
  const __m128i u_b = _mm_set1_epi32(kUToB), half = _mm_set1_epi32(kHalf);
  const __m128i c128 = _mm_set1_epi32(128), sixteen = _mm_set1_epi8(16);
  // u0 v0 u1 v1 -> u0 u0 u1 u1 v0 v0 v1 v1
  const __m128i dup = _mm_setr_epi8(0, 0, 2, 2, 1, 1, 3, 3, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i order = kBgr ? _mm_setr_epi8(8, 4, 0, 9, 5, 1, 10, 6, 2, 11, 7, 3, -1, -1, -1, -1)
                             : _mm_setr_epi8(0, 4, 8, 1, 5, 9, 2, 6, 10, 3, 7, 11, -1, -1, -1, -1);
  auto emit = [&](const uint8_t* y, uint8_t* out, __m128i r0, __m128i g0, __m128i b0) {
    const __m128i yc = _mm_subs_epu8(load_bytes(y, 4), sixteen);
    const __m128i luma = _mm_mullo_epi32(_mm_cvtepu8_epi32(yc), gain);
    const __m128i r = _mm_srai_epi32(_mm_add_epi32(luma, r0), kYuvShift);
    const __m128i g = _mm_srai_epi32(_mm_add_epi32(luma, g0), kYuvShift);
    const __m128i b = _mm_srai_epi32(_mm_add_epi32(luma, b0), kYuvShift);
    const __m128i bytes = _mm_packus_epi16(_mm_packs_epi32(r, g), _mm_packs_epi32(b, b));
    const __m128i px = _mm_shuffle_epi8(bytes, order);  // 12 bytes
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), px);
    const int32_t last = _mm_cvtsi128_si32(_mm_srli_si128(px, 8));
    std::memcpy(out + 8, &last, 4);
  };
  const int blocks = width & ~3;
  for (int x = 0; x < blocks; x += 4) {
    const __m128i pairs =
        _mm_unpacklo_epi8(load_bytes(rows.c1 + x / 2, 2), load_bytes(rows.c2 + x / 2, 2));
    const __m128i uv = _mm_shuffle_epi8(pairs, dup);
    const __m128i d = _mm_sub_epi32(_mm_cvtepu8_epi32(uv), c128);
    const __m128i e = _mm_sub_epi32(_mm_cvtepu8_epi32(_mm_srli_si128(uv, 4)), c128);
    const __m128i r0 = _mm_add_epi32(_mm_mullo_epi32(e, v_r), half);
    const __m128i g0 =
        _mm_add_epi32(_mm_add_epi32(_mm_mullo_epi32(e, v_g), _mm_mullo_epi32(d, u_g)), half);
    const __m128i b0 = _mm_add_epi32(_mm_mullo_epi32(d, u_b), half);
    emit(rows.y0 + x, rows.d0 + 3 * x, r0, g0, b0);
    emit(rows.y1 + x, rows.d1 + 3 * x, r0, g0, b0);
  }
  return blocks;
}

}  // namespace

int yu12_to_rgb_rows_sse41(const YuvRowPair& rows, int width, bool bgr) {
  return bgr ? yu12_rows<true>(rows, width) : yu12_rows<false>(rows, width);
}

}  // namespace zarvel::aux::color
