// 512-bit block of the packed float row (needs AVX-512 F, BW and VBMI); the same arithmetic
// as the scalar row, lane by lane. Built with its own flags, outside LTO.
#include <immintrin.h>

#include "tensor/to_tensor_kernels.h"

namespace zarvel::aux::to_tensor {

int64_t packed_f32_blocks_avx512(const uint8_t* src, int64_t n, float* const dst[3],
                                 const float mean[3], const float recip[3]) {
  constexpr int kPixels = 16;
  // Byte 4i of channel k's register takes byte 3i + k of the block: pixel i's sample as the
  // low byte of a 32-bit lane, the other bytes zeroed by the mask.
  alignas(64) static constexpr auto kWiden = [] {
    struct Picks {
      uint8_t b[3][64];
    } p{};
    for (int k = 0; k < 3; ++k)
      for (int i = 0; i < kPixels; ++i) p.b[k][4 * i] = static_cast<uint8_t>(3 * i + k);
    return p;
  }();
  constexpr __mmask64 kLowBytes = 0x1111111111111111;
  constexpr __mmask64 kBlockBytes = (__mmask64{1} << (3 * kPixels)) - 1;  // 48 bytes, no more
  const int64_t blocks = n / kPixels * kPixels;
  __m512 m[3], r[3];
  __m512i pick[3];
  for (int k = 0; k < 3; ++k) {
    m[k] = _mm512_set1_ps(mean[k]);
    r[k] = _mm512_set1_ps(recip[k]);
    pick[k] = _mm512_load_si512(kWiden.b[k]);
  }
  for (int64_t x = 0; x < blocks; x += kPixels, src += 3 * kPixels) {
    const __m512i v = _mm512_maskz_loadu_epi8(kBlockBytes, src);
    for (int k = 0; k < 3; ++k) {
      const __m512 f = _mm512_cvtepi32_ps(_mm512_maskz_permutexvar_epi8(kLowBytes, pick[k], v));
      _mm512_storeu_ps(dst[k] + x, _mm512_mul_ps(_mm512_sub_ps(f, m[k]), r[k]));
    }
  }
  return blocks;
}

int64_t grey_f32_recip_blocks_avx512(const uint8_t* src, int64_t n, float* dst, float mean,
                                     float std, float recip) {
  const int64_t blocks = n / 16 * 16;
  const __m512 m = _mm512_set1_ps(mean), s = _mm512_set1_ps(std), r = _mm512_set1_ps(recip);
  for (int64_t x = 0; x < blocks; x += 16) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + x));
    const __m512 d = _mm512_sub_ps(_mm512_cvtepi32_ps(_mm512_cvtepu8_epi32(bytes)), m);
    const __m512 q = _mm512_mul_ps(d, r);
    _mm512_storeu_ps(dst + x, _mm512_fmadd_ps(_mm512_fnmadd_ps(q, s, d), r, q));
  }
  return blocks;
}

}  // namespace zarvel::aux::to_tensor
