// AVX2 blocks of the frame-to-tensor row kernels. The float colour kernel widens each byte of
// 8 packed pixels straight into 32-bit lanes with one shuffle per channel (three shuffles,
// converts, subtracts, multiplies and stores per 8 pixels); the other kernels split 16
// packed pixels (three 16-byte loads) into their three byte planes first. Arithmetic matches
// the scalar rows operation for operation (no fused multiply-adds), so the results are
// bit-identical.
#include <immintrin.h>

#include <cstdint>

#include "tensor/to_tensor_kernels.h"

namespace zarvel::aux::to_tensor {

namespace {

// Shuffle controls that gather byte k of 16 packed pixels out of load s (bytes 16s..16s+15);
// -128 clears lanes whose byte lies in another load.
struct SplitMasks {
  alignas(16) int8_t m[3][3][16];  // [byte k][load s][lane]
};

constexpr SplitMasks make_split_masks() {
  SplitMasks r{};
  for (int k = 0; k < 3; ++k) {
    for (int s = 0; s < 3; ++s) {
      for (int i = 0; i < 16; ++i) {
        const int g = 3 * i + k;
        r.m[k][s][i] = static_cast<int8_t>(g / 16 == s ? g % 16 : -128);
      }
    }
  }
  return r;
}

constexpr SplitMasks kSplitMasks = make_split_masks();

// Shuffle controls that widen byte k of 8 packed pixels to 32-bit lanes, for a vector holding
// bytes 0-15 of the pixels in its low lane and bytes 8-23 in its high lane.
struct WidenMasks {
  alignas(32) int8_t m[3][32];  // [byte k][lane byte]
};

constexpr WidenMasks make_widen_masks() {
  WidenMasks r{};
  for (int k = 0; k < 3; ++k) {
    for (int i = 0; i < 32; ++i) {
      const int pixel = i / 4 % 4;
      const int lane_start = i < 16 ? 0 : 4;  // pixel 4 begins at byte 12 = 8 + 4
      r.m[k][i] = static_cast<int8_t>(i % 4 == 0 ? lane_start + 3 * pixel + k : -128);
    }
  }
  return r;
}

constexpr WidenMasks kWidenMasks = make_widen_masks();

struct Split16 {
  __m128i byte[3];
};

inline __m128i mask(int k, int s) {
  return _mm_load_si128(reinterpret_cast<const __m128i*>(kSplitMasks.m[k][s]));
}

inline Split16 split16(const uint8_t* src) {
  const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
  const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 16));
  const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 32));
  Split16 out;
  for (int k = 0; k < 3; ++k) {
    out.byte[k] =
        _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(a, mask(k, 0)), _mm_shuffle_epi8(b, mask(k, 1))),
                     _mm_shuffle_epi8(c, mask(k, 2)));
  }
  return out;
}

// Bytes 0-7 and 8-15 of v as eight floats each.
inline __m256 low8_ps(__m128i v) { return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(v)); }
inline __m256 high8_ps(__m128i v) {
  return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_srli_si128(v, 8)));
}

// Truncated luma of four pixels whose bytes are lanes 0-3 of r, g and b (as 32-bit ints).
inline __m128i luma4(__m128i r, __m128i g, __m128i b) {
  const __m256d wr = _mm256_set1_pd(kLumaR);
  const __m256d wg = _mm256_set1_pd(kLumaG);
  const __m256d wb = _mm256_set1_pd(kLumaB);
  const __m256d y = _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(wr, _mm256_cvtepi32_pd(r)),
                                                _mm256_mul_pd(wg, _mm256_cvtepi32_pd(g))),
                                  _mm256_mul_pd(wb, _mm256_cvtepi32_pd(b)));
  return _mm256_cvttpd_epi32(y);
}

// The truncated luma of 16 pixels as four vectors of four 32-bit ints.
struct Luma16 {
  __m128i q[4];
};

inline Luma16 luma16(const uint8_t* src, int r_byte) {
  const Split16 s = split16(src);
  const __m128i r = s.byte[r_byte];
  const __m128i g = s.byte[1];
  const __m128i b = s.byte[2 - r_byte];
  Luma16 out;
  out.q[0] = luma4(_mm_cvtepu8_epi32(r), _mm_cvtepu8_epi32(g), _mm_cvtepu8_epi32(b));
  out.q[1] = luma4(_mm_cvtepu8_epi32(_mm_srli_si128(r, 4)), _mm_cvtepu8_epi32(_mm_srli_si128(g, 4)),
                   _mm_cvtepu8_epi32(_mm_srli_si128(b, 4)));
  out.q[2] = luma4(_mm_cvtepu8_epi32(_mm_srli_si128(r, 8)), _mm_cvtepu8_epi32(_mm_srli_si128(g, 8)),
                   _mm_cvtepu8_epi32(_mm_srli_si128(b, 8)));
  out.q[3] =
      luma4(_mm_cvtepu8_epi32(_mm_srli_si128(r, 12)), _mm_cvtepu8_epi32(_mm_srli_si128(g, 12)),
            _mm_cvtepu8_epi32(_mm_srli_si128(b, 12)));
  return out;
}

// Stores eight values as the float rows do: as they are, or (v - mean) / std.
inline void store_normalised(float* dst, __m256 v, __m256 mean, __m256 std, bool identity) {
  if (!identity) v = _mm256_div_ps(_mm256_sub_ps(v, mean), std);
  _mm256_storeu_ps(dst, v);
}

inline int64_t whole_blocks(int64_t n) { return n / kBlockPixels * kBlockPixels; }

}  // namespace

int64_t packed_f32_blocks_avx2(const uint8_t* src, int64_t n, float* const dst[3],
                               const float mean[3], const float recip[3]) {
  const int64_t blocks = n / kFloatBlockPixels * kFloatBlockPixels;
  __m256 m[3], r[3];
  __m256i pick[3];
  for (int k = 0; k < 3; ++k) {
    m[k] = _mm256_set1_ps(mean[k]);
    r[k] = _mm256_set1_ps(recip[k]);
    pick[k] = _mm256_load_si256(reinterpret_cast<const __m256i*>(kWidenMasks.m[k]));
  }
  for (int64_t x = 0; x < blocks; x += kFloatBlockPixels, src += 3 * kFloatBlockPixels) {
    // Bytes 0-15 in the low lane, bytes 8-23 in the high lane: pixels 0-3 and 4-7 each lie
    // within their lane, and both loads stay inside the block's 24 bytes.
    const __m256i v = _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src))),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 8)), 1);
    for (int k = 0; k < 3; ++k) {
      const __m256 f = _mm256_cvtepi32_ps(_mm256_shuffle_epi8(v, pick[k]));
      _mm256_storeu_ps(dst[k] + x, _mm256_mul_ps(_mm256_sub_ps(f, m[k]), r[k]));
    }
  }
  return blocks;
}

int64_t packed_u8_blocks_avx2(const uint8_t* src, int64_t n, uint8_t* const dst[3]) {
  const int64_t blocks = whole_blocks(n);
  for (int64_t x = 0; x < blocks; x += kBlockPixels, src += 3 * kBlockPixels) {
    const Split16 s = split16(src);
    for (int k = 0; k < 3; ++k) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(dst[k] + x), s.byte[k]);
    }
  }
  return blocks;
}

int64_t luma_f32_blocks_avx2(const uint8_t* src, int64_t n, int r_byte, float* dst, float mean,
                             float std) {
  const int64_t blocks = whole_blocks(n);
  const bool identity = mean == 0.0f && std == 1.0f;
  const __m256 m = _mm256_set1_ps(mean);
  const __m256 d = _mm256_set1_ps(std);
  for (int64_t x = 0; x < blocks; x += kBlockPixels, src += 3 * kBlockPixels) {
    const Luma16 y = luma16(src, r_byte);
    store_normalised(dst + x, _mm256_cvtepi32_ps(_mm256_set_m128i(y.q[1], y.q[0])), m, d, identity);
    store_normalised(dst + x + 8, _mm256_cvtepi32_ps(_mm256_set_m128i(y.q[3], y.q[2])), m, d,
                     identity);
  }
  return blocks;
}

int64_t luma_u8_blocks_avx2(const uint8_t* src, int64_t n, int r_byte, uint8_t* dst) {
  const int64_t blocks = whole_blocks(n);
  for (int64_t x = 0; x < blocks; x += kBlockPixels, src += 3 * kBlockPixels) {
    const Luma16 y = luma16(src, r_byte);
    // Lumas lie in 0..255, so the saturating packs keep them unchanged.
    const __m128i words =
        _mm_packus_epi16(_mm_packus_epi32(y.q[0], y.q[1]), _mm_packus_epi32(y.q[2], y.q[3]));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + x), words);
  }
  return blocks;
}

int64_t grey_f32_blocks_avx2(const uint8_t* src, int64_t n, float* dst, float mean, float std) {
  const int64_t blocks = whole_blocks(n);
  const bool identity = mean == 0.0f && std == 1.0f;
  const __m256 m = _mm256_set1_ps(mean);
  const __m256 d = _mm256_set1_ps(std);
  for (int64_t x = 0; x < blocks; x += kBlockPixels) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + x));
    store_normalised(dst + x, low8_ps(v), m, d, identity);
    store_normalised(dst + x + 8, high8_ps(v), m, d, identity);
  }
  return blocks;
}

}  // namespace zarvel::aux::to_tensor
