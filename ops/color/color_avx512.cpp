// 512-bit rows of the colour conversions (need AVX-512 F, BW and VBMI). RGB -> YUV 4:2:0 and
// RGB -> grey: 16 pixels per step; one byte permute with a zeroing mask takes a channel of 16
// packed pixels straight into the low bytes of 16 int32 lanes, so the arithmetic is the scalar
// one in 32-bit lanes and the bytes are identical. YUV 4:2:0 -> RGB: 64 pixels of a row pair
// per step, lanes holding 2x2 blocks (see below). Loads stay inside the row (masked near its
// end) and stores write only the row. Built with -mavx512f -mavx512bw -mavx512vbmi, outside LTO.
#include <immintrin.h>

#include <array>
#include <cstdint>

#include "ops/color/color_kernels.h"

namespace zarvel::aux::color {
namespace {

constexpr __mmask64 kPixels16 = (uint64_t{1} << 48) - 1;  // the 48 bytes of 16 pixels
constexpr __mmask64 kLowBytes = 0x1111111111111111;       // byte 0 of each int32 lane

// Byte indices that put byte `source(lane)` into byte 0 of each int32 lane (the other bytes
// of each lane are 0, and masked to zero by the permutes).
template <class Source>
__m512i lane_index(Source source) {
  alignas(64) std::array<uint8_t, 64> index{};
  for (int lane = 0; lane < 16; ++lane) index[4 * lane] = static_cast<uint8_t>(source(lane));
  return _mm512_load_si512(index.data());
}

// Byte `channel` of packed pixel `step * (lane % period)` into lane `lane`.
__m512i channel_index(int channel, int step, int period) {
  return lane_index([=](int lane) { return 3 * step * (lane % period) + channel; });
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

// ---- YUV 4:2:0 -> RGB24 / BGR24 ----
// A register holds 16 blocks of a row: the even pixels of the blocks in one register, the odd
// pixels in another, so a block's chroma terms (one lane) meet its pixels without being
// duplicated. Each sum s = luma + term is an int32 in (-2^29, 2^30) (color_kernels.h), so its
// high word h = s >> 16 fits int16 and s >> 20 = h >> 4. Two sums share one int32 lane as two
// words: the first one's high word is shifted down, the second one's stays in place. A
// multiply-high by 2^12 takes h >> 4 in each word, packus clamps the words to bytes, and one
// two-register byte permute puts the 96 bytes of 32 pixels in their packed order.

struct Bytes64 {
  alignas(64) uint8_t b[64];
};

// Byte indices `source(lane)` into byte 0 of each int32 lane, as a constant table.
template <class Source>
constexpr Bytes64 lane_table(Source source) {
  Bytes64 t{};
  for (int lane = 0; lane < 16; ++lane) t.b[4 * lane] = static_cast<uint8_t>(source(lane));
  return t;
}

// Luma of 64 pixels: the even (parity 0) or odd pixels of blocks 16 h .. 16 h + 15.
constexpr Bytes64 luma_table(int h, int parity) {
  return lane_table([=](int k) { return 32 * h + 2 * k + parity; });
}
constexpr Bytes64 kLumaPick[2][2] = {{luma_table(0, 0), luma_table(0, 1)},
                                     {luma_table(1, 0), luma_table(1, 1)}};

// U or V of blocks 16 h .. 16 h + 15 from 64 bytes of chroma: 32 pairs (NV12, NV21), or the
// 32 U bytes followed by the 32 V bytes (YU12).
constexpr Bytes64 chroma_table(Chroma chroma, int h, bool v) {
  return lane_table([=](int k) {
    const int block = 16 * h + k;
    switch (chroma) {
      case Chroma::kNv12:
        return 2 * block + (v ? 1 : 0);
      case Chroma::kNv21:
        return 2 * block + (v ? 0 : 1);
      default:
        return block + (v ? 32 : 0);
    }
  });
}
template <Chroma kChroma>
constexpr Bytes64 kChromaPick[2][2] = {
    {chroma_table(kChroma, 0, false), chroma_table(kChroma, 0, true)},
    {chroma_table(kChroma, 1, false), chroma_table(kChroma, 1, true)}};

// The word pairs: (first channel, second) of the even pixels, (third, first) of the even and
// odd pixels, (second, third) of the odd ones; pair w packs into bytes 0-7 (w = 0, 2) or 8-15
// (w = 1) of each 16-byte lane of P1 = packus(pair 0, pair 1) and P2 = packus(pair 2, pair 2).
// Output byte j is channel j % 3 of pixel j / 3: its source byte in P1 (0..63) or P2 (64..127).
constexpr uint8_t packed_source(int j) {
  const int pixel = j / 3, channel = j % 3, block = pixel / 2, parity = pixel % 2;
  const int q = 3 * parity + channel, pair = q / 2, word = 2 * block + q % 2;
  const int byte = 16 * (word / 8) + word % 8;
  return static_cast<uint8_t>(pair == 0 ? byte : (pair == 1 ? byte + 8 : 64 + byte));
}
constexpr Bytes64 output_table(int first) {
  Bytes64 t{};
  for (int j = 0; j < 64 && first + j < 96; ++j) t.b[j] = packed_source(first + j);
  return t;
}
constexpr Bytes64 kOutputPick[2] = {output_table(0), output_table(64)};

inline __m512i load_table(const Bytes64& t) { return _mm512_load_si512(t.b); }

// The high words of a and b in one register, each taken >> 4: (s >> 16) >> 4 = s >> 20.
inline __m512i high_words_shifted(__m512i a, __m512i b, __m512i two_pow_12) {
  const __m512i words = _mm512_mask_blend_epi16(0xAAAAAAAA, _mm512_srli_epi32(a, 16), b);
  return _mm512_mulhi_epi16(words, two_pow_12);
}

template <Chroma kChroma, bool kBgr>
int yuv_to_rgb_rows64(const YuvRowPair& rows, int width) {
  // The -128 of d and e folded into the bias: r0 = kVToR * V + (kHalf - 128 kVToR), etc.
  const __m512i v_r = _mm512_set1_epi32(kVToR), v_g = _mm512_set1_epi32(kVToG);
  const __m512i u_g = _mm512_set1_epi32(kUToG), u_b = _mm512_set1_epi32(kUToB);
  const __m512i bias_r = _mm512_set1_epi32(kHalf - 128 * kVToR);
  const __m512i bias_g = _mm512_set1_epi32(kHalf - 128 * (kVToG + kUToG));
  const __m512i bias_b = _mm512_set1_epi32(kHalf - 128 * kUToB);
  const __m512i gain = _mm512_set1_epi32(kLumaGain), sixteen = _mm512_set1_epi8(16);
  const __m512i two_pow_12 = _mm512_set1_epi16(1 << 12);
  const __m512i out0 = load_table(kOutputPick[0]), out1 = load_table(kOutputPick[1]);
  const int blocks = width & ~63;
  for (int x = 0; x < blocks; x += 64) {
    __m512i chroma;
    if (kChroma == Chroma::kYu12) {
      const auto* u = reinterpret_cast<const __m256i*>(rows.c1 + x / 2);
      const auto* v = reinterpret_cast<const __m256i*>(rows.c2 + x / 2);
      chroma = _mm512_inserti64x4(_mm512_castsi256_si512(_mm256_loadu_si256(u)),
                                  _mm256_loadu_si256(v), 1);
    } else {
      chroma = _mm512_loadu_si512(rows.c1 + x);
    }
    __m512i r0[2], g0[2], b0[2];
    for (int h = 0; h < 2; ++h) {
      const __m512i u =
          _mm512_maskz_permutexvar_epi8(kLowBytes, load_table(kChromaPick<kChroma>[h][0]), chroma);
      const __m512i v =
          _mm512_maskz_permutexvar_epi8(kLowBytes, load_table(kChromaPick<kChroma>[h][1]), chroma);
      r0[h] = _mm512_add_epi32(_mm512_mullo_epi32(v, v_r), bias_r);
      g0[h] = _mm512_add_epi32(_mm512_mullo_epi32(v, v_g),
                               _mm512_add_epi32(_mm512_mullo_epi32(u, u_g), bias_g));
      b0[h] = _mm512_add_epi32(_mm512_mullo_epi32(u, u_b), bias_b);
    }
    for (int row = 0; row < 2; ++row) {
      // max(Y - 16, 0) is the saturating byte subtraction.
      const __m512i y =
          _mm512_subs_epu8(_mm512_loadu_si512((row == 0 ? rows.y0 : rows.y1) + x), sixteen);
      uint8_t* out = (row == 0 ? rows.d0 : rows.d1) + 3 * x;
      for (int h = 0; h < 2; ++h) {
        __m512i first[2], second[2], third[2];
        for (int parity = 0; parity < 2; ++parity) {
          const __m512i luma = _mm512_mullo_epi32(
              _mm512_maskz_permutexvar_epi8(kLowBytes, load_table(kLumaPick[h][parity]), y), gain);
          const __m512i r = _mm512_add_epi32(luma, r0[h]), b = _mm512_add_epi32(luma, b0[h]);
          first[parity] = kBgr ? b : r;
          second[parity] = _mm512_add_epi32(luma, g0[h]);
          third[parity] = kBgr ? r : b;
        }
        const __m512i p1 = _mm512_packus_epi16(high_words_shifted(first[0], second[0], two_pow_12),
                                               high_words_shifted(third[0], first[1], two_pow_12));
        const __m512i w2 = high_words_shifted(second[1], third[1], two_pow_12);
        const __m512i p2 = _mm512_packus_epi16(w2, w2);
        _mm512_storeu_si512(out + 96 * h, _mm512_permutex2var_epi8(p1, out0, p2));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 96 * h + 64),
                            _mm512_castsi512_si256(_mm512_permutex2var_epi8(p1, out1, p2)));
      }
    }
  }
  return blocks;
}

template <Chroma kChroma>
int yuv_to_rgb_rows64_for(const YuvRowPair& rows, int width, bool bgr) {
  return bgr ? yuv_to_rgb_rows64<kChroma, true>(rows, width)
             : yuv_to_rgb_rows64<kChroma, false>(rows, width);
}

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

int yuv_to_rgb_rows_avx512(const YuvRowPair& rows, int width, Chroma chroma, bool bgr) {
  switch (chroma) {
    case Chroma::kNv12:
      return yuv_to_rgb_rows64_for<Chroma::kNv12>(rows, width, bgr);
    case Chroma::kNv21:
      return yuv_to_rgb_rows64_for<Chroma::kNv21>(rows, width, bgr);
    default:
      return yuv_to_rgb_rows64_for<Chroma::kYu12>(rows, width, bgr);
  }
}

}  // namespace zarvel::aux::color
