// 512-bit horizontal row of the bilinear resampler (needs AVX-512 F, BW and VBMI); byte-
// identical to the scalar row. Built with -mavx512f -mavx512bw -mavx512vbmi, outside LTO.
#include <immintrin.h>

#include "ops/crop_resize/resample_kernels.h"

namespace zarvel::aux::resample {

int hresample_row_avx512_window(const uint8_t* row, const int32_t* base, const uint32_t* picks,
                                const int32_t* weights, int16_t* out, int n) {
  // Bytes 0 and 2 of each 32-bit lane take the two taps; bytes 1 and 3 stay zero, so each
  // lane is an int16 pair for one multiply-add.
  constexpr __mmask64 kTapBytes = 0x5555555555555555;
  // packs works per 128-bit lane: lane L holds elements 4L..4L+3 of the first half and then
  // of the second; these 64-bit picks restore element order.
  const __m512i order = _mm512_setr_epi64(0, 2, 4, 6, 1, 3, 5, 7);
  auto load = [](const void* p) { return _mm512_loadu_si512(p); };
  const int blocks = n & ~31;
  for (int j = 0; j < blocks; j += 32) {
    const uint8_t* window = row + base[j / 32];
    const __m512i lo = load(window), hi = load(window + 64);
    const __m512i a = _mm512_maskz_permutex2var_epi8(kTapBytes, lo, load(picks + j), hi);
    const __m512i b = _mm512_maskz_permutex2var_epi8(kTapBytes, lo, load(picks + j + 16), hi);
    const __m512i sa = _mm512_srai_epi32(_mm512_madd_epi16(a, load(weights + j)), kSumShift);
    const __m512i sb = _mm512_srai_epi32(_mm512_madd_epi16(b, load(weights + j + 16)), kSumShift);
    _mm512_storeu_si512(out + j, _mm512_permutexvar_epi64(order, _mm512_packs_epi32(sa, sb)));
  }
  return blocks;
}

}  // namespace zarvel::aux::resample
