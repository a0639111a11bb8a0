// AVX2 colour conversion of decoded JPEG rows; the arithmetic is derived in jpeg_color.h.
#include <immintrin.h>

#include "codec/jpeg_color.h"

namespace zarvel::aux::codec {
namespace {

// Multiply-add weights for (Y, C) pairs of 16-bit lanes.
__m256i pair_weights(int for_y, int for_c) {
  return _mm256_set1_epi32(
      static_cast<int>((static_cast<uint32_t>(for_c) << 16) | static_cast<uint16_t>(for_y)));
}

__m256i widen(const uint8_t* p) {
  return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

// (sum + 2048) >> 12 of both halves, packed back to 16 lanes in pixel order.
__m256i descale(__m256i lo, __m256i hi) {
  const __m256i half = _mm256_set1_epi32(2048);
  return _mm256_packs_epi32(_mm256_srai_epi32(_mm256_add_epi32(lo, half), 12),
                            _mm256_srai_epi32(_mm256_add_epi32(hi, half), 12));
}

}  // namespace

int jpeg_ycbcr_to_rgb_avx2(uint8_t* out, const uint8_t* y, const uint8_t* cb, const uint8_t* cr,
                           int count) {
  const __m256i bias = _mm256_set1_epi16(128);
  const __m256i to_r = pair_weights(4096, kJpegCrToR);
  const __m256i to_g = pair_weights(4096, -kJpegCrToG);
  const __m256i cb_to_g = pair_weights(0, -kJpegCbToG);
  const __m256i to_b = pair_weights(4096, kJpegCbToB);
  const __m256i floor256 = _mm256_set1_epi32(~255);
  // Within each 128-bit lane: bytes 0-7 red and 8-15 green of 8 pixels in `rg`, blue in bytes
  // 0-7 of `bz`. Output byte k of the lane's 24 is pixel k / 3, channel k % 3.
  const __m256i rg_head = _mm256_broadcastsi128_si256(
      _mm_setr_epi8(0, 8, -1, 1, 9, -1, 2, 10, -1, 3, 11, -1, 4, 12, -1, 5));
  const __m256i bz_head = _mm256_broadcastsi128_si256(
      _mm_setr_epi8(-1, -1, 0, -1, -1, 1, -1, -1, 2, -1, -1, 3, -1, -1, 4, -1));
  const __m256i rg_tail = _mm256_broadcastsi128_si256(
      _mm_setr_epi8(13, -1, 6, 14, -1, 7, 15, -1, -1, -1, -1, -1, -1, -1, -1, -1));
  const __m256i bz_tail = _mm256_broadcastsi128_si256(
      _mm_setr_epi8(-1, 5, -1, -1, 6, -1, -1, 7, -1, -1, -1, -1, -1, -1, -1, -1));
  int i = 0;
  for (; i + 16 <= count; i += 16) {
    const __m256i yw = widen(y + i);
    const __m256i cbw = _mm256_sub_epi16(widen(cb + i), bias);
    const __m256i crw = _mm256_sub_epi16(widen(cr + i), bias);
    // Pixels 0-3 | 8-11 in the low pairs, 4-7 | 12-15 in the high ones; packing restores order.
    const __m256i ycr_lo = _mm256_unpacklo_epi16(yw, crw), ycr_hi = _mm256_unpackhi_epi16(yw, crw);
    const __m256i ycb_lo = _mm256_unpacklo_epi16(yw, cbw), ycb_hi = _mm256_unpackhi_epi16(yw, cbw);
    const __m256i r = descale(_mm256_madd_epi16(ycr_lo, to_r), _mm256_madd_epi16(ycr_hi, to_r));
    const __m256i b = descale(_mm256_madd_epi16(ycb_lo, to_b), _mm256_madd_epi16(ycb_hi, to_b));
    const __m256i g =
        descale(_mm256_add_epi32(_mm256_madd_epi16(ycr_lo, to_g),
                                 _mm256_and_si256(_mm256_madd_epi16(ycb_lo, cb_to_g), floor256)),
                _mm256_add_epi32(_mm256_madd_epi16(ycr_hi, to_g),
                                 _mm256_and_si256(_mm256_madd_epi16(ycb_hi, cb_to_g), floor256)));
    // Saturating packs clamp to 0..255 as the decoder does.
    const __m256i rg = _mm256_packus_epi16(r, g);
    const __m256i bz = _mm256_packus_epi16(b, _mm256_setzero_si256());
    const __m256i head =
        _mm256_or_si256(_mm256_shuffle_epi8(rg, rg_head), _mm256_shuffle_epi8(bz, bz_head));
    const __m256i tail =
        _mm256_or_si256(_mm256_shuffle_epi8(rg, rg_tail), _mm256_shuffle_epi8(bz, bz_tail));
    uint8_t* o = out + 3 * i;
    _mm_storeu_si128(reinterpret_cast<__m128i*>(o), _mm256_castsi256_si128(head));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(o + 16), _mm256_castsi256_si128(tail));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(o + 24), _mm256_extracti128_si256(head, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(o + 40), _mm256_extracti128_si256(tail, 1));
  }
  return i;
}

}  // namespace zarvel::aux::codec
