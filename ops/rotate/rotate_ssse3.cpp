// 128-bit rotation kernels: 16 x 16 byte and 8 x 8 two-byte transposes for quarter turns,
// reversing byte shuffles for half turns. Byte-identical to the plain loops.
#include <tmmintrin.h>

#include "ops/rotate/rotate_kernels.h"

namespace zarvel::aux::rotate {
namespace {

template <int Bits>
inline void interleave(__m128i& a, __m128i& b) {
  __m128i lo, hi;
  if constexpr (Bits == 8) {
    lo = _mm_unpacklo_epi8(a, b), hi = _mm_unpackhi_epi8(a, b);
  } else if constexpr (Bits == 16) {
    lo = _mm_unpacklo_epi16(a, b), hi = _mm_unpackhi_epi16(a, b);
  } else if constexpr (Bits == 32) {
    lo = _mm_unpacklo_epi32(a, b), hi = _mm_unpackhi_epi32(a, b);
  } else {
    lo = _mm_unpacklo_epi64(a, b), hi = _mm_unpackhi_epi64(a, b);
  }
  a = lo;
  b = hi;
}

// Transposes 16 rows of 16 bytes in four in-place stages (every stage pairs registers and
// keeps the pair in place, so 16 registers and one temporary suffice). Stage k interleaves
// blocks of 2^(k-1) rows; afterwards output row j sits in v[kOutputRow[j]], the bit-reversed j.
inline void transpose16x16(__m128i v[16]) {
  for (int i = 0; i < 16; i += 2) interleave<8>(v[i], v[i + 1]);  // pairs of rows
  interleave<16>(v[0], v[2]), interleave<16>(v[1], v[3]);         // rows 0-3
  interleave<16>(v[4], v[6]), interleave<16>(v[5], v[7]);         // rows 4-7
  interleave<16>(v[8], v[10]), interleave<16>(v[9], v[11]);       // rows 8-11
  interleave<16>(v[12], v[14]), interleave<16>(v[13], v[15]);     // rows 12-15
  for (int i = 0; i < 4; ++i) interleave<32>(v[i], v[i + 4]);     // rows 0-7
  for (int i = 8; i < 12; ++i) interleave<32>(v[i], v[i + 4]);    // rows 8-15
  for (int i = 0; i < 8; ++i) interleave<64>(v[i], v[i + 8]);     // rows 0-15
}
constexpr int kOutputRow[16] = {0, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15};

inline __m128i load(const uint8_t* p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}
inline void store(uint8_t* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

// Loads 16 rows of 16 bytes from `src` (rows `src_step` bytes apart), transposes them and
// stores the 16 result rows to `dst` (rows `dst_step` bytes apart).
inline void transpose_block(const uint8_t* src, ptrdiff_t src_step, uint8_t* dst,
                            ptrdiff_t dst_step) {
  __m128i v[16];
  for (int i = 0; i < 16; ++i, src += src_step) v[i] = load(src);
  transpose16x16(v);
  for (int j = 0; j < 16; ++j, dst += dst_step) store(dst, v[kOutputRow[j]]);
}

// Transposes 8 rows of 8 two-byte pixels in three in-place stages; afterwards output row j
// sits in v[kOutputRow8[j]].
inline void transpose8x8_epi16(__m128i v[8]) {
  for (int i = 0; i < 8; i += 2) interleave<16>(v[i], v[i + 1]);
  interleave<32>(v[0], v[2]), interleave<32>(v[1], v[3]);
  interleave<32>(v[4], v[6]), interleave<32>(v[5], v[7]);
  for (int i = 0; i < 4; ++i) interleave<64>(v[i], v[i + 4]);
}
constexpr int kOutputRow8[8] = {0, 4, 2, 6, 1, 5, 3, 7};

inline void transpose_block2(const uint8_t* src, ptrdiff_t src_step, uint8_t* dst,
                             ptrdiff_t dst_step) {
  __m128i v[8];
  for (int i = 0; i < 8; ++i, src += src_step) v[i] = load(src);
  transpose8x8_epi16(v);
  for (int j = 0; j < 8; ++j, dst += dst_step) store(dst, v[kOutputRow8[j]]);
}

}  // namespace

void rotate90_tile_ssse3(const uint8_t* src, ptrdiff_t src_stride, int32_t src_h, int32_t,
                         uint8_t* dst, ptrdiff_t dst_stride, int32_t r0, int32_t c0) {
  for (int32_t br = r0; br < r0 + kTile; br += 16) {
    for (int32_t bc = c0; bc < c0 + kTile; bc += 16) {
      // Destination columns bc .. bc + 15 are source rows H - 1 - bc downwards.
      transpose_block(src + (src_h - 1 - bc) * src_stride + br, -src_stride,
                      dst + br * dst_stride + bc, dst_stride);
    }
  }
}

void rotate270_tile_ssse3(const uint8_t* src, ptrdiff_t src_stride, int32_t, int32_t src_w,
                          uint8_t* dst, ptrdiff_t dst_stride, int32_t r0, int32_t c0) {
  for (int32_t br = r0; br < r0 + kTile; br += 16) {
    for (int32_t bc = c0; bc < c0 + kTile; bc += 16) {
      // Source columns W - 16 - br .. W - 1 - br; transposed row j is source column
      // W - 16 - br + j, which is destination row br + 15 - j: store from the bottom up.
      transpose_block(src + bc * src_stride + (src_w - 16 - br), src_stride,
                      dst + (br + 15) * dst_stride + bc, -dst_stride);
    }
  }
}

void rotate90_tile2_ssse3(const uint8_t* src, ptrdiff_t src_stride, int32_t src_h, int32_t src_w,
                          uint8_t* dst, ptrdiff_t dst_stride, int32_t r0, int32_t c0) {
  quarter_turn_tile<2, transpose_block2>(true, src, src_stride, src_h, src_w, dst, dst_stride, r0,
                                         c0);
}

void rotate270_tile2_ssse3(const uint8_t* src, ptrdiff_t src_stride, int32_t src_h, int32_t src_w,
                           uint8_t* dst, ptrdiff_t dst_stride, int32_t r0, int32_t c0) {
  quarter_turn_tile<2, transpose_block2>(false, src, src_stride, src_h, src_w, dst, dst_stride, r0,
                                         c0);
}

int32_t reverse_row_ssse3(const uint8_t* src_row, int32_t src_w, uint8_t* dst_row, int32_t n) {
  const __m128i reverse = _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
  const int32_t blocks = n & ~15;
  const uint8_t* s = src_row + src_w - 16;
  for (int32_t c = 0; c < blocks; c += 16)
    store(dst_row + c, _mm_shuffle_epi8(load(s - c), reverse));
  return blocks;
}

int32_t reverse_row2_ssse3(const uint8_t* src_row, int32_t src_w, uint8_t* dst_row, int32_t n) {
  // Eight two-byte pixels a register, in reverse order, each keeping its byte order.
  const __m128i reverse = _mm_setr_epi8(14, 15, 12, 13, 10, 11, 8, 9, 6, 7, 4, 5, 2, 3, 0, 1);
  const int32_t blocks = n & ~7;
  const uint8_t* s = src_row + 2 * ptrdiff_t{src_w - 8};
  for (int32_t c = 0; c < blocks; c += 8) {
    store(dst_row + 2 * ptrdiff_t{c}, _mm_shuffle_epi8(load(s - 2 * ptrdiff_t{c}), reverse));
  }
  return blocks;
}

int32_t reverse_row3_ssse3(const uint8_t* src_row, int32_t src_w, uint8_t* dst_row, int32_t n) {
  // Five three-byte pixels a step. The load starts one byte before the five source pixels, so
  // it never reads past the row's last pixel; the store's 16th byte lands on the first byte of
  // destination pixel c + 5, which the next step (or the caller's tail) writes afterwards.
  const __m128i reverse = _mm_setr_epi8(13, 14, 15, 10, 11, 12, 7, 8, 9, 4, 5, 6, 1, 2, 3, 0);
  int32_t c = 0;
  for (; c + 5 < n; c += 5) {
    const uint8_t* s = src_row + 3 * ptrdiff_t{src_w - 5 - c} - 1;
    store(dst_row + 3 * ptrdiff_t{c}, _mm_shuffle_epi8(load(s), reverse));
  }
  return c;
}

}  // namespace zarvel::aux::rotate
