// 256-bit rotation kernels for three-byte pixels: 8 x 8 pixel blocks, each pixel widened to a
// 32-bit lane, an 8 x 8 dword transpose, and the lanes narrowed back to three bytes. Every row
// of a block is read and written as exactly its 24 bytes. Built with -mavx2, outside LTO.
#include <immintrin.h>

#include "ops/rotate/rotate_kernels.h"

namespace zarvel::aux::rotate {
namespace {

// The same byte shuffle in both 128-bit lanes.
inline __m256i lane_shuffle(const int8_t (&m)[16]) {
  return _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(m)));
}

// The eight pixels at p as eight dwords (byte 3 of each zero): pixels 0-3 are bytes 0-11 and
// go to lane 0, pixels 4-7 are bytes 12-23 and go to lane 1.
inline __m256i load_row(const uint8_t* p, __m256i widen) {
  const __m128i lo = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  const __m128i hi = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p + 16));
  const __m256i bytes = _mm256_inserti128_si256(_mm256_castsi128_si256(lo), hi, 1);
  const __m256i split =
      _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 1, 2, 0, 3, 4, 5, 0));
  return _mm256_shuffle_epi8(split, widen);
}

// The inverse: bytes 0-2 of each dword, as 24 bytes at p.
inline void store_row(uint8_t* p, __m256i v, __m256i narrow) {
  const __m256i packed = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(v, narrow),
                                                     _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm256_castsi256_si128(packed));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(p + 16), _mm256_extracti128_si256(packed, 1));
}

// Reads 8 rows of 8 pixels (row k at s + k * s_step) and writes their columns as rows (column
// i at d + i * d_step).
inline void transpose_block3(const uint8_t* s, ptrdiff_t s_step, uint8_t* d, ptrdiff_t d_step) {
  static constexpr int8_t kWiden[16] = {0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1};
  static constexpr int8_t kNarrow[16] = {0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1};
  const __m256i widen = lane_shuffle(kWiden), narrow = lane_shuffle(kNarrow);
  __m256i r[8], t[8], u[8];
  for (int k = 0; k < 8; ++k) r[k] = load_row(s + k * s_step, widen);
  for (int k = 0; k < 8; k += 2) {
    t[k] = _mm256_unpacklo_epi32(r[k], r[k + 1]);
    t[k + 1] = _mm256_unpackhi_epi32(r[k], r[k + 1]);
  }
  for (int k = 0; k < 8; k += 4) {
    u[k] = _mm256_unpacklo_epi64(t[k], t[k + 2]);
    u[k + 1] = _mm256_unpackhi_epi64(t[k], t[k + 2]);
    u[k + 2] = _mm256_unpacklo_epi64(t[k + 1], t[k + 3]);
    u[k + 3] = _mm256_unpackhi_epi64(t[k + 1], t[k + 3]);
  }
  // u[k] holds, per lane, column k of rows 0-3 and column k of rows 4-7 (lane 0: columns
  // 0-3 of the pixels, lane 1: columns 4-7).
  for (int i = 0; i < 4; ++i) {
    store_row(d + i * d_step, _mm256_permute2x128_si256(u[i], u[i + 4], 0x20), narrow);
    store_row(d + (i + 4) * d_step, _mm256_permute2x128_si256(u[i], u[i + 4], 0x31), narrow);
  }
}

}  // namespace

void rotate90_tile3_avx2(const uint8_t* src, ptrdiff_t src_stride, int32_t src_h, int32_t src_w,
                         uint8_t* dst, ptrdiff_t dst_stride, int32_t r0, int32_t c0) {
  quarter_turn_tile<3, transpose_block3>(true, src, src_stride, src_h, src_w, dst, dst_stride, r0,
                                         c0);
}

void rotate270_tile3_avx2(const uint8_t* src, ptrdiff_t src_stride, int32_t src_h, int32_t src_w,
                          uint8_t* dst, ptrdiff_t dst_stride, int32_t r0, int32_t c0) {
  quarter_turn_tile<3, transpose_block3>(false, src, src_stride, src_h, src_w, dst, dst_stride, r0,
                                         c0);
}

}  // namespace zarvel::aux::rotate
