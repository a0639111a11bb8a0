// 512-bit rows of the RGB -> YUV 4:2:0 and RGB -> grey conversions: 16 pixels per step. One
// byte permute with a zeroing mask takes a channel of 16 packed pixels straight into the low
// bytes of 16 int32 lanes, so the arithmetic is the scalar one in 32-bit lanes and the bytes
// are identical. Loads stay inside the row (masked near its end) and stores write only the row.
// Built with -mavx512f -mavx512bw -mavx512vbmi, outside LTO.
#include <immintrin.h>

#include <array>
#include <cstdint>

#include "ops/color/color_kernels.h"

namespace zarvel::aux::color {
namespace {

constexpr __mmask64 kPixels16 = (uint64_t{1} << 48) - 1;  // the 48 bytes of 16 pixels
constexpr __mmask64 kLowBytes = 0x1111111111111111;       // byte 0 of each int32 lane

// Byte indices that put byte `channel` of pixel `step * (lane % period)` into byte 0 of
// lane `lane` (the other bytes of each lane are 0, and masked to zero by the permutes).
__m512i channel_index(int channel, int step, int period) {
  alignas(64) std::array<uint8_t, 64> index{};
  for (int lane = 0; lane < 16; ++lane) {
    index[4 * lane] = static_cast<uint8_t>(3 * step * (lane % period) + channel);
  }
  return _mm512_load_si512(index.data());
}

// The 16 pixels at `rgb`: a whole 64-byte load while it stays inside the row's `width - x`
// pixels, else a load masked to the 48 bytes (masked loads are slower on some processors).
inline __m512i load_pixels16(const uint8_t* rgb, int x, int width) {
  const uint8_t* p = rgb + 3 * x;
  return x + 22 <= width ? _mm512_loadu_si512(p) : _mm512_maskz_loadu_epi8(kPixels16, p);
}

struct Channels {
  __m512i r, g, b;
};

// R, G and B of 16 pixels (blue first in memory when `bgr`).
Channels channel_indices(bool bgr, int step, int period) {
  return {channel_index(bgr ? 2 : 0, step, period), channel_index(1, step, period),
          channel_index(bgr ? 0 : 2, step, period)};
}

inline __m512i take(const Channels& k, __m512i pixels, __m512i Channels::*c) {
  return _mm512_maskz_permutexvar_epi8(kLowBytes, k.*c, pixels);
}

// (r * cr + g * cg) + (b * cb + offset) >> 20, per lane.
inline __m512i weigh(__m512i r, __m512i g, __m512i b, __m512i cr, __m512i cg, __m512i cb,
                     __m512i offset) {
  const __m512i rg = _mm512_add_epi32(_mm512_mullo_epi32(r, cr), _mm512_mullo_epi32(g, cg));
  const __m512i bo = _mm512_add_epi32(_mm512_mullo_epi32(b, cb), offset);
  return _mm512_srai_epi32(_mm512_add_epi32(rg, bo), kYuvShift);
}

struct LumaRow {
  Channels index;
  __m512i r = _mm512_set1_epi32(kRToY), g = _mm512_set1_epi32(kGToY);
  __m512i b = _mm512_set1_epi32(kBToY), offset = _mm512_set1_epi32(kYOffset);
  explicit LumaRow(bool bgr) : index(channel_indices(bgr, 1, 16)) {}

  void run(__m512i pixels, uint8_t* y) const {
    const __m512i luma = weigh(take(index, pixels, &Channels::r), take(index, pixels, &Channels::g),
                               take(index, pixels, &Channels::b), r, g, b, offset);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(y), _mm512_cvtepi32_epi8(luma));
  }
};

}  // namespace

int rgb_to_luma_row_avx512(const uint8_t* rgb, uint8_t* y, int width, bool bgr) {
  const LumaRow luma(bgr);
  const int blocks = width & ~15;
  for (int x = 0; x < blocks; x += 16) {
    luma.run(load_pixels16(rgb, x, width), y + x);
  }
  return blocks;
}

int rgb_to_luma_chroma_row_avx512(const uint8_t* rgb, uint8_t* y, uint8_t* u, uint8_t* v, int step,
                                  int width, bool bgr) {
  const LumaRow luma(bgr);
  // The 8 blocks of 16 pixels: lanes 0-7 take the top-left pixels (0, 2, ..., 14) for U,
  // lanes 8-15 the same pixels again for V.
  const Channels index = channel_indices(bgr, 2, 8);
  auto pair = [](int32_t for_u, int32_t for_v) {
    return _mm512_mask_set1_epi32(_mm512_set1_epi32(for_u), 0xff00, for_v);
  };
  const __m512i cr = pair(kRToU, kRToV), cg = pair(kGToU, kGToV), cb = pair(kBToU, kBToV);
  const __m512i offset = _mm512_set1_epi32(kChromaOffset);
  // U0..U7 V0..V7 -> the stored order: U,V pairs or V,U pairs (planar outputs store halves).
  const __m128i order = u < v ? _mm_setr_epi8(0, 8, 1, 9, 2, 10, 3, 11, 4, 12, 5, 13, 6, 14, 7, 15)
                              : _mm_setr_epi8(8, 0, 9, 1, 10, 2, 11, 3, 12, 4, 13, 5, 14, 6, 15, 7);
  const int blocks = width & ~15;
  for (int x = 0; x < blocks; x += 16) {
    const __m512i pixels = load_pixels16(rgb, x, width);
    luma.run(pixels, y + x);
    const __m512i uv = weigh(take(index, pixels, &Channels::r), take(index, pixels, &Channels::g),
                             take(index, pixels, &Channels::b), cr, cg, cb, offset);
    const __m128i bytes = _mm512_cvtepi32_epi8(uv);
    if (step == 1) {
      _mm_storel_epi64(reinterpret_cast<__m128i*>(u + x / 2), bytes);
      _mm_storel_epi64(reinterpret_cast<__m128i*>(v + x / 2), _mm_unpackhi_epi64(bytes, bytes));
    } else {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(u < v ? u + x : v + x),
                       _mm_shuffle_epi8(bytes, order));
    }
  }
  return blocks;
}

int rgb_to_grey_row_avx512(const uint8_t* rgb, uint8_t* grey, int width, bool bgr) {
  // Bytes 0 and 1 of each pixel as the int16 pair of its lane, byte 2 alone: one multiply-add
  // each.
  const __m512i index01 =
      _mm512_or_si512(channel_index(0, 1, 16), _mm512_slli_epi32(channel_index(1, 1, 16), 16));
  const __m512i index2 = channel_index(2, 1, 16);
  constexpr __mmask64 kWordLowBytes = 0x5555555555555555;
  const GreyPairWeights w = grey_pair_weights(bgr);
  const __m512i weights01 = _mm512_set1_epi32(w.first), weights2 = _mm512_set1_epi32(w.last);
  const __m512i half = _mm512_set1_epi32(kGreyHalf);
  const int blocks = width & ~15;
  for (int x = 0; x < blocks; x += 16) {
    const __m512i pixels = load_pixels16(rgb, x, width);
    const __m512i s01 =
        _mm512_madd_epi16(_mm512_maskz_permutexvar_epi8(kWordLowBytes, index01, pixels), weights01);
    const __m512i s2 =
        _mm512_madd_epi16(_mm512_maskz_permutexvar_epi8(kLowBytes, index2, pixels), weights2);
    const __m512i sum =
        _mm512_srai_epi32(_mm512_add_epi32(_mm512_add_epi32(s01, s2), half), kGreyShift);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(grey + x), _mm512_cvtepi32_epi8(sum));
  }
  return blocks;
}

}  // namespace zarvel::aux::color
