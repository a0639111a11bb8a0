// AVX2 rows of the bilinear resampler; byte-identical to the scalar rows.
#include <immintrin.h>

#include "ops/crop_resize/resample_kernels.h"

namespace zarvel::aux::resample {
namespace {

// Two blocks of 8 int32 sums -> 16 int16 (S >> 4) in element order.
inline void store_shifted(int16_t* out, __m256i a, __m256i b) {
  const __m256i packed =
      _mm256_packs_epi32(_mm256_srai_epi32(a, kSumShift), _mm256_srai_epi32(b, kSumShift));
  // packs works per 128-bit lane: put the quarters back in element order.
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), _mm256_permute4x64_epi64(packed, 0xd8));
}

// Runs block(j) over whole blocks of `size` elements of [0, n) and, when n is not a multiple,
// once more over the last `size` elements: a block's outputs depend only on its own inputs,
// so writing some of them twice gives the same bytes and no scalar tail is needed. Returns
// the number of elements done (0 when n < size).
template <class Block>
inline int for_blocks(int n, int size, Block block) {
  if (n < size) return 0;
  int j = 0;
  for (; j + size <= n; j += size) block(j);
  if (j < n) block(n - size);
  return n;
}

inline __m256i load(const int32_t* p) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

}  // namespace

int hresample_row_avx2_gather(const uint8_t* row, const int32_t* ofs, const int32_t* weights,
                              int16_t* out, int n, int step) {
  // The gather reads row[ofs .. ofs+3]; a byte shuffle places the two taps (bytes 0 and
  // `step`) as an int16 pair, and one multiply-add of pairs gives the sum.
  const char t = static_cast<char>(step);
  const char z = static_cast<char>(0x80);
  const __m256i pick =
      _mm256_setr_epi8(0, z, t, z, 4, z, 4 + t, z, 8, z, 8 + t, z, 12, z, 12 + t, z, 0, z, t, z, 4,
                       z, 4 + t, z, 8, z, 8 + t, z, 12, z, 12 + t, z);
  const auto* bytes = reinterpret_cast<const int*>(row);
  return for_blocks(n, 16, [&](int j) {
    const __m256i a = _mm256_i32gather_epi32(bytes, load(ofs + j), 1);
    const __m256i b = _mm256_i32gather_epi32(bytes, load(ofs + j + 8), 1);
    store_shifted(out + j, _mm256_madd_epi16(_mm256_shuffle_epi8(a, pick), load(weights + j)),
                  _mm256_madd_epi16(_mm256_shuffle_epi8(b, pick), load(weights + j + 8)));
  });
}

int hresample_row_avx2_window(const uint8_t* row, const int32_t* base, const uint32_t* shuffle,
                              const int32_t* weights, int16_t* out, int n) {
  auto window = [row](int32_t lo, int32_t hi) {
    return _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(row + hi),
                               reinterpret_cast<const __m128i*>(row + lo));
  };
  const auto* masks = reinterpret_cast<const int32_t*>(shuffle);
  // Blocks start at multiples of 4 elements (whole groups), so the overlapping last block
  // starts at n - 16 rounded down to a group.
  return for_blocks(n & ~3, 16, [&](int j) {
    const int32_t* b = base + j / 4;
    const __m256i a = _mm256_shuffle_epi8(window(b[0], b[1]), load(masks + j));
    const __m256i c = _mm256_shuffle_epi8(window(b[2], b[3]), load(masks + j + 8));
    store_shifted(out + j, _mm256_madd_epi16(a, load(weights + j)),
                  _mm256_madd_epi16(c, load(weights + j + 8)));
  });
}

int hresample_row_avx2_split(const uint8_t* row, const int32_t* lo, const int32_t* hi,
                             const uint32_t* shuffle, const int32_t* weights, int16_t* out, int n) {
  auto half = [row](int32_t at) {
    return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(row + at));
  };
  auto lanes = [&](int g) {
    const __m128i first = _mm_unpacklo_epi64(half(lo[g]), half(hi[g]));
    const __m128i second = _mm_unpacklo_epi64(half(lo[g + 1]), half(hi[g + 1]));
    return _mm256_inserti128_si256(_mm256_castsi128_si256(first), second, 1);
  };
  const auto* masks = reinterpret_cast<const int32_t*>(shuffle);
  return for_blocks(n & ~3, 16, [&](int j) {
    const int g = j / 4;
    const __m256i a = _mm256_shuffle_epi8(lanes(g), load(masks + j));
    const __m256i c = _mm256_shuffle_epi8(lanes(g + 2), load(masks + j + 8));
    store_shifted(out + j, _mm256_madd_epi16(a, load(weights + j)),
                  _mm256_madd_epi16(c, load(weights + j + 8)));
  });
}

int vresample_row_avx2(const int16_t* s0, const int16_t* s1, int32_t b0, int32_t b1, uint8_t* dst,
                       int n) {
  const __m256i vb0 = _mm256_set1_epi16(static_cast<int16_t>(b0));
  const __m256i vb1 = _mm256_set1_epi16(static_cast<int16_t>(b1));
  const __m256i round = _mm256_set1_epi16(kFinalRound);
  auto row16 = [&](int j) {
    const __m256i a =
        _mm256_mulhi_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(s0 + j)), vb0);
    const __m256i b =
        _mm256_mulhi_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(s1 + j)), vb1);
    return _mm256_srai_epi16(_mm256_add_epi16(_mm256_add_epi16(a, b), round), kFinalShift);
  };
  return for_blocks(n, 32, [&](int j) {
    const __m256i bytes = _mm256_packus_epi16(row16(j), row16(j + 16));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + j), _mm256_permute4x64_epi64(bytes, 0xd8));
  });
}

}  // namespace zarvel::aux::resample
