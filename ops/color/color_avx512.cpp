// 512-bit rows of the colour conversions (need AVX-512 F, BW and VBMI), built with
// -mavx512f -mavx512bw -mavx512vbmi outside LTO. The arithmetic is the scalar one in 32-bit
// lanes, so the bytes are identical; byte permutes move pixels into lanes and back.
//
// Narrowing: a sum s whose result is s >> 20 lies in (-2^29, 2^30) (color_kernels.h), so its
// high word h = s >> 16 fits int16 and s >> 20 = h >> 4. Two registers of sums share one
// register of words: either the first one's high words shifted down and the second one's left
// in place (a word blend), or both picked by one two-register word permute. A multiply-high by
// 2^12 or an arithmetic word shift takes h >> 4 in every word, packus clamps the words of two
// such registers to 64 bytes, and a byte permute puts the bytes in their stored order. The
// rows choose the forms that spread their work best over the processor's units.
//
// Loads stay inside the row (masked near its end) and stores write only the row.
#include <immintrin.h>

#include <array>
#include <cstdint>

#include "ops/color/color_kernels.h"

namespace zarvel::aux::color {
namespace {

constexpr __mmask64 kPixels16 = (uint64_t{1} << 48) - 1;  // the 48 bytes of 16 pixels
constexpr __mmask64 kLowBytes = 0x1111111111111111;       // byte 0 of each int32 lane

struct Bytes64 {
  alignas(64) uint8_t b[64];
};
inline __m512i load_table(const Bytes64& t) { return _mm512_load_si512(t.b); }

// Byte indices that put byte `source(lane)` into byte 0 of each int32 lane (the other bytes
// of each lane are 0, and masked to zero by the permutes).
template <class Source>
constexpr Bytes64 lane_table(Source source) {
  Bytes64 t{};
  for (int lane = 0; lane < 16; ++lane) t.b[4 * lane] = static_cast<uint8_t>(source(lane));
  return t;
}

// Where packus(words(a0, a1), words(b0, b1)) puts lane k of register r (a0, a1, b0, b1 as
// 0..3): words(x, y) holds lane k of x in word 2k and of y in word 2k + 1, and packus takes
// words 8L..8L+7 of its first operand to bytes 16L..16L+7, those of its second to 16L+8.. .
constexpr int packed_at(int r, int k) {
  const int word = 2 * k + r % 2;
  return 16 * (word / 8) + word % 8 + 8 * (r / 2);
}

// The high words of a and b in one register, each taken >> 4: (s >> 16) >> 4 = s >> 20. On
// processors that run 512-bit operations as two halves (Zen 4), byte permutes, multiplies and
// shifts each have their own unit, taking about one 512-bit operation a cycle, and all of them
// together under two. The RGB -> YUV rows, which are heavy in permutes and shifts, take the
// >> 4 as a multiply-high by 2^12.
inline __m512i high_words_shifted(__m512i a, __m512i b) {
  const __m512i words = _mm512_mask_blend_epi16(0xAAAAAAAA, _mm512_srli_epi32(a, 16), b);
  return _mm512_mulhi_epi16(words, _mm512_set1_epi16(1 << 12));
}
// Four registers of sums -> 64 clamped bytes (s >> 20), lane k of register r at packed_at(r, k).
inline __m512i narrow_sums(__m512i s0, __m512i s1, __m512i s2, __m512i s3) {
  return _mm512_packus_epi16(high_words_shifted(s0, s1), high_words_shifted(s2, s3));
}

// The same words, picked by one word permute (word 2k: word 2k + 1 of a, word 2k + 1: word
// 2k + 1 of b) and shifted: one operation fewer than the shift and blend, for rows whose
// permute unit has room (YUV -> RGB: 290 us against 308 for a 1080p frame).
struct Words32 {
  alignas(64) uint16_t w[32];
};
constexpr Words32 high_words_table() {
  Words32 t{};
  for (int j = 0; j < 32; ++j) t.w[j] = static_cast<uint16_t>(j % 2 == 0 ? j + 1 : 32 + j);
  return t;
}
constexpr Words32 kHighWords = high_words_table();
inline __m512i high_words_permuted(__m512i a, __m512i b, __m512i high_words) {
  return _mm512_srai_epi16(_mm512_permutex2var_epi16(a, high_words, b), 4);
}

// (r * cr + g * cg) + (b * cb + offset), per lane.
inline __m512i weigh(__m512i r, __m512i g, __m512i b, __m512i cr, __m512i cg, __m512i cb,
                     __m512i offset) {
  const __m512i rg = _mm512_add_epi32(_mm512_mullo_epi32(r, cr), _mm512_mullo_epi32(g, cg));
  return _mm512_add_epi32(rg, _mm512_add_epi32(_mm512_mullo_epi32(b, cb), offset));
}

// ---- RGB24 / BGR24 -> YUV 4:2:0, 64 pixels a step ----
// The 192 bytes of 64 pixels come in three registers. Lane k of luma register j (0..3) takes
// pixel 16 j + k, lane k of chroma register j (0, 1) the top-left pixel of block 16 j + k, each
// channel with one two-register byte permute (registers j / 2 and j / 2 + 1 for luma, j and
// j + 1 for chroma).

// Byte `channel` (0 R, 1 G, 2 B) of pixel `step * (16 j + k)` into lane k, from the register
// pair that holds it.
constexpr Bytes64 pixel_table(int j, int channel, int step, bool bgr) {
  const int pair_start = 64 * (step == 1 ? j / 2 : j);
  return lane_table(
      [=](int k) { return 3 * step * (16 * j + k) + (bgr ? 2 - channel : channel) - pair_start; });
}
struct PixelTables {
  Bytes64 t[4][3];
};
constexpr PixelTables pixel_tables(int step, bool bgr) {
  PixelTables p{};
  for (int j = 0; j < (step == 1 ? 4 : 2); ++j) {
    for (int c = 0; c < 3; ++c) p.t[j][c] = pixel_table(j, c, step, bgr);
  }
  return p;
}
template <bool kBgr>
constexpr PixelTables kLumaPixels = pixel_tables(1, kBgr);
template <bool kBgr>
constexpr PixelTables kChromaPixels = pixel_tables(2, kBgr);

// Stored orders: 64 luma bytes; 32 U,V pairs (or V,U pairs); 32 U bytes then 32 V bytes.
enum class ChromaOrder { kUv, kVu, kPlanar };
constexpr Bytes64 luma_order() {
  Bytes64 t{};
  for (int p = 0; p < 64; ++p) t.b[p] = static_cast<uint8_t>(packed_at(p / 16, p % 16));
  return t;
}
constexpr Bytes64 chroma_order(ChromaOrder order) {
  Bytes64 t{};
  for (int b = 0; b < 32; ++b) {
    const auto u = static_cast<uint8_t>(packed_at(b / 16, b % 16));
    const auto v = static_cast<uint8_t>(packed_at(2 + b / 16, b % 16));
    if (order == ChromaOrder::kPlanar) {
      t.b[b] = u;
      t.b[32 + b] = v;
    } else {
      t.b[2 * b] = order == ChromaOrder::kUv ? u : v;
      t.b[2 * b + 1] = order == ChromaOrder::kUv ? v : u;
    }
  }
  return t;
}
constexpr Bytes64 kLumaOrder = luma_order();
constexpr Bytes64 kChromaOrder[3] = {chroma_order(ChromaOrder::kUv), chroma_order(ChromaOrder::kVu),
                                     chroma_order(ChromaOrder::kPlanar)};

struct Pixels64 {
  __m512i in[3];
  explicit Pixels64(const uint8_t* p)
      : in{_mm512_loadu_si512(p), _mm512_loadu_si512(p + 64), _mm512_loadu_si512(p + 128)} {}
  // Channel c of the lanes of `tables` row j, from registers first and first + 1.
  __m512i take(const PixelTables& tables, int j, int c, int first) const {
    return _mm512_maskz_permutex2var_epi8(kLowBytes, in[first], load_table(tables.t[j][c]),
                                          in[first + 1]);
  }
};

template <bool kBgr>
inline void luma64(const Pixels64& px, uint8_t* y) {
  const __m512i cr = _mm512_set1_epi32(kRToY), cg = _mm512_set1_epi32(kGToY);
  const __m512i cb = _mm512_set1_epi32(kBToY), offset = _mm512_set1_epi32(kYOffset);
  const PixelTables& t = kLumaPixels<kBgr>;
  __m512i s[4];
  for (int j = 0; j < 4; ++j) {
    s[j] = weigh(px.take(t, j, 0, j / 2), px.take(t, j, 1, j / 2), px.take(t, j, 2, j / 2), cr, cg,
                 cb, offset);
  }
  const __m512i bytes = narrow_sums(s[0], s[1], s[2], s[3]);
  _mm512_storeu_si512(y, _mm512_permutexvar_epi8(load_table(kLumaOrder), bytes));
}

template <bool kBgr>
int rgb_to_luma_row64(const uint8_t* rgb, uint8_t* y, int width) {
  const int blocks = width & ~63;
  for (int x = 0; x < blocks; x += 64) luma64<kBgr>(Pixels64(rgb + 3 * x), y + x);
  return blocks;
}

template <bool kBgr>
int rgb_to_luma_chroma_row64(const uint8_t* rgb, uint8_t* y, uint8_t* u, uint8_t* v, int step,
                             int width) {
  const __m512i ur = _mm512_set1_epi32(kRToU), ug = _mm512_set1_epi32(kGToU);
  const __m512i ub = _mm512_set1_epi32(kBToU), vr = _mm512_set1_epi32(kRToV);
  const __m512i vg = _mm512_set1_epi32(kGToV), vb = _mm512_set1_epi32(kBToV);
  const __m512i offset = _mm512_set1_epi32(kChromaOffset);
  const ChromaOrder order =
      step == 1 ? ChromaOrder::kPlanar : (u < v ? ChromaOrder::kUv : ChromaOrder::kVu);
  const __m512i stored = load_table(kChromaOrder[static_cast<int>(order)]);
  const PixelTables& t = kChromaPixels<kBgr>;
  const int blocks = width & ~63;
  // The luma of the whole row first, then the chroma from a second read of its pixels (in
  // cache by then): the two short loops run at about 25 + 22 cycles per 64 pixels,
  // one loop that did both at 53, its long chains of permutes and multiplies overlapping
  // less well (1080p RGB24 -> NV12: 328 us against 355).
  rgb_to_luma_row64<kBgr>(rgb, y, width);
  for (int x = 0; x < blocks; x += 64) {
    const Pixels64 px(rgb + 3 * x);
    __m512i su[2], sv[2];
    for (int j = 0; j < 2; ++j) {
      const __m512i r = px.take(t, j, 0, j), g = px.take(t, j, 1, j), b = px.take(t, j, 2, j);
      su[j] = weigh(r, g, b, ur, ug, ub, offset);
      sv[j] = weigh(r, g, b, vr, vg, vb, offset);
    }
    const __m512i bytes = _mm512_permutexvar_epi8(stored, narrow_sums(su[0], su[1], sv[0], sv[1]));
    if (order == ChromaOrder::kPlanar) {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(u + x / 2), _mm512_castsi512_si256(bytes));
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(v + x / 2),
                          _mm512_extracti64x4_epi64(bytes, 1));
    } else {
      _mm512_storeu_si512((u < v ? u : v) + x, bytes);
    }
  }
  return blocks;
}

// ---- RGB24 / BGR24 -> grey, 16 pixels a step ----

// Byte `channel` of pixel `lane` into lane `lane`.
constexpr Bytes64 grey_table(int channel) {
  return lane_table([=](int lane) { return 3 * lane + channel; });
}
constexpr Bytes64 kGreyPick[3] = {grey_table(0), grey_table(1), grey_table(2)};

// The 16 pixels at `rgb`: a whole 64-byte load while it stays inside the row's `width - x`
// pixels, else a load masked to the 48 bytes (masked loads are slower on some processors).
inline __m512i load_pixels16(const uint8_t* rgb, int x, int width) {
  const uint8_t* p = rgb + 3 * x;
  return x + 22 <= width ? _mm512_loadu_si512(p) : _mm512_maskz_loadu_epi8(kPixels16, p);
}

// ---- grey -> RGB24, 64 pixels a step: output register i takes bytes 64 i .. 64 i + 63 of
// the three copies of each grey byte ----
constexpr Bytes64 replicate_table(int i) {
  Bytes64 t{};
  for (int j = 0; j < 64; ++j) t.b[j] = static_cast<uint8_t>((64 * i + j) / 3);
  return t;
}
constexpr Bytes64 kReplicate[3] = {replicate_table(0), replicate_table(1), replicate_table(2)};

// ---- YUV 4:2:0 -> RGB24 / BGR24, 64 pixels of a row pair a step ----
// A register holds 16 blocks of a row: the even pixels of the blocks in one register, the odd
// pixels in another, so a block's chroma terms (one lane) meet its pixels without being
// duplicated. Six registers of sums narrow to three of words: (first channel, second) of the
// even pixels, (third, first) of the even and odd pixels, (second, third) of the odd ones.
// For each half h of the 64 pixels, P1[h] = packus(words 0, words 1); the third words of both
// halves share P2 = packus(words 2 of h = 0, words 2 of h = 1). The 192 output bytes come from
// P1[0], P1[1] and P2 by three two-register byte permutes: the middle one reads the high half of
// P1[0] and the low half of P1[1], which a qword blend puts into one register.
//
// Cost: 100 operations per step of 64 pixels of both rows (chroma terms 20, luma products 18,
// sums 24, narrowing and output permutes 38). Zen 4 issues two 512-bit operations a cycle, so a
// step takes about 50 cycles and a 1080p frame about 1.9 times a memcpy of its output bytes:
// the arithmetic, not memory, is the bound. Tried and not kept: sums in Q16, whose high word
// would be the result without the shift (no integer luma gain keeps G exact for every chroma
// value), multiply-adds of word pairs and dot-product accumulation (as many operations, more of
// them on the permute and multiply units), and the narrowing's shift as a multiply-high.

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

// Output byte j (0..191) is channel j % 3 of pixel j / 3. Its source: byte `at` of P1[h] for
// the first four word groups, of P2 for the last two (those of half h at registers 2 h, 2 h + 1).
struct PackedSource {
  int reg;  // 0: P1[0], 1: P1[1], 2: P2
  int at;
};
constexpr PackedSource packed_source(int j) {
  const int pixel = j / 3, h = pixel / 32, block = pixel % 32 / 2;
  const int q = 3 * (pixel % 2) + j % 3;  // the order of the word groups above
  if (q < 4) return {h, packed_at(q, block)};
  return {2, packed_at(q - 4 + 2 * h, block)};
}
// Output register o: its first table register (P1[0], the blend, P1[1]) at 0..63, P2 at 64..127.
constexpr Bytes64 output_table(int o) {
  Bytes64 t{};
  for (int i = 0; i < 64; ++i) {
    const PackedSource s = packed_source(64 * o + i);
    t.b[i] = static_cast<uint8_t>(s.at + (s.reg == 2 ? 64 : 0));
  }
  return t;
}
constexpr Bytes64 kOutputPick[3] = {output_table(0), output_table(1), output_table(2)};

// The chroma terms of 32 blocks (two registers per channel) and the luma products of their
// two rows (row, half, parity).
struct YuvTerms {
  __m512i r0[2], g0[2], b0[2];
  __m512i luma[2][2][2];
};

// The rows are software-pipelined: while the sums of step x are narrowed and stored, the
// chroma terms and luma products of step x + 64 are computed. Each step then starts with its
// operands ready instead of waiting on a chain of permutes and multiplies that the processor
// cannot reorder far enough to hide (1080p, hot rows: about 282 to 260 us).
template <Chroma kChroma, bool kBgr>
int yuv_to_rgb_rows64(const YuvRowPair& rows, int width) {
  const __m512i v_r = _mm512_set1_epi32(kVToR), v_g = _mm512_set1_epi32(kVToG);
  const __m512i u_g = _mm512_set1_epi32(kUToG), u_b = _mm512_set1_epi32(kUToB);
  const __m512i bias_r = _mm512_set1_epi32(kBiasR), bias_g = _mm512_set1_epi32(kBiasG);
  const __m512i bias_b = _mm512_set1_epi32(kBiasB);
  const __m512i gain = _mm512_set1_epi32(kLumaGain), sixteen = _mm512_set1_epi8(16);
  const __m512i out0 = load_table(kOutputPick[0]), out1 = load_table(kOutputPick[1]);
  const __m512i out2 = load_table(kOutputPick[2]);
  const __m512i high_words = _mm512_load_si512(kHighWords.w);
  const int blocks = width & ~63;
  if (blocks == 0) return 0;

  const auto chroma_terms = [&](int x, YuvTerms& t) {
    __m512i chroma;
    if (kChroma == Chroma::kYu12) {
      const auto* u = reinterpret_cast<const __m256i*>(rows.c1 + x / 2);
      const auto* v = reinterpret_cast<const __m256i*>(rows.c2 + x / 2);
      chroma = _mm512_inserti64x4(_mm512_castsi256_si512(_mm256_loadu_si256(u)),
                                  _mm256_loadu_si256(v), 1);
    } else {
      chroma = _mm512_loadu_si512(rows.c1 + x);
    }
    for (int h = 0; h < 2; ++h) {
      const __m512i u =
          _mm512_maskz_permutexvar_epi8(kLowBytes, load_table(kChromaPick<kChroma>[h][0]), chroma);
      const __m512i v =
          _mm512_maskz_permutexvar_epi8(kLowBytes, load_table(kChromaPick<kChroma>[h][1]), chroma);
      t.r0[h] = _mm512_add_epi32(_mm512_mullo_epi32(v, v_r), bias_r);
      t.g0[h] = _mm512_add_epi32(_mm512_mullo_epi32(v, v_g),
                                 _mm512_add_epi32(_mm512_mullo_epi32(u, u_g), bias_g));
      t.b0[h] = _mm512_add_epi32(_mm512_mullo_epi32(u, u_b), bias_b);
    }
  };
  const auto luma_products = [&](int x, int row, YuvTerms& t) {
    // max(Y - 16, 0) is the saturating byte subtraction.
    const __m512i y =
        _mm512_subs_epu8(_mm512_loadu_si512((row == 0 ? rows.y0 : rows.y1) + x), sixteen);
    for (int h = 0; h < 2; ++h) {
      for (int parity = 0; parity < 2; ++parity) {
        t.luma[row][h][parity] = _mm512_mullo_epi32(
            _mm512_maskz_permutexvar_epi8(kLowBytes, load_table(kLumaPick[h][parity]), y), gain);
      }
    }
  };
  const auto finish_row = [&](int x, int row, const YuvTerms& t) {
    __m512i p1[2], words2[2];
    for (int h = 0; h < 2; ++h) {
      __m512i first[2], second[2], third[2];
      for (int parity = 0; parity < 2; ++parity) {
        const __m512i luma = t.luma[row][h][parity];
        const __m512i r = _mm512_add_epi32(luma, t.r0[h]), b = _mm512_add_epi32(luma, t.b0[h]);
        first[parity] = kBgr ? b : r;
        second[parity] = _mm512_add_epi32(luma, t.g0[h]);
        third[parity] = kBgr ? r : b;
      }
      p1[h] = _mm512_packus_epi16(high_words_permuted(first[0], second[0], high_words),
                                  high_words_permuted(third[0], first[1], high_words));
      words2[h] = high_words_permuted(second[1], third[1], high_words);
    }
    const __m512i p2 = _mm512_packus_epi16(words2[0], words2[1]);
    const __m512i middle = _mm512_mask_blend_epi64(0xF0, p1[1], p1[0]);
    uint8_t* out = (row == 0 ? rows.d0 : rows.d1) + 3 * x;
    _mm512_storeu_si512(out, _mm512_permutex2var_epi8(p1[0], out0, p2));
    _mm512_storeu_si512(out + 64, _mm512_permutex2var_epi8(middle, out1, p2));
    _mm512_storeu_si512(out + 128, _mm512_permutex2var_epi8(p1[1], out2, p2));
  };

  YuvTerms current;
  chroma_terms(0, current);
  luma_products(0, 0, current);
  luma_products(0, 1, current);
  for (int x = 0; x + 64 < blocks; x += 64) {
    // Each row's narrowing followed by the next step's work for that row: of the orders tried,
    // the one that keeps the most operations ready.
    YuvTerms next;
    finish_row(x, 0, current);
    luma_products(x + 64, 0, next);
    chroma_terms(x + 64, next);
    finish_row(x, 1, current);
    luma_products(x + 64, 1, next);
    current = next;
  }
  finish_row(blocks - 64, 0, current);
  finish_row(blocks - 64, 1, current);
  return blocks;
}

template <Chroma kChroma>
int yuv_to_rgb_rows64_for(const YuvRowPair& rows, int width, bool bgr) {
  return bgr ? yuv_to_rgb_rows64<kChroma, true>(rows, width)
             : yuv_to_rgb_rows64<kChroma, false>(rows, width);
}

}  // namespace

int rgb_to_luma_row_avx512(const uint8_t* rgb, uint8_t* y, int width, bool bgr) {
  return bgr ? rgb_to_luma_row64<true>(rgb, y, width) : rgb_to_luma_row64<false>(rgb, y, width);
}

int rgb_to_luma_chroma_row_avx512(const uint8_t* rgb, uint8_t* y, uint8_t* u, uint8_t* v, int step,
                                  int width, bool bgr) {
  return bgr ? rgb_to_luma_chroma_row64<true>(rgb, y, u, v, step, width)
             : rgb_to_luma_chroma_row64<false>(rgb, y, u, v, step, width);
}

int rgb_to_grey_row_avx512(const uint8_t* rgb, uint8_t* grey, int width, bool bgr) {
  // Bytes 0 and 1 of each pixel as the int16 pair of its lane, byte 2 alone: one multiply-add
  // each.
  const __m512i index01 =
      _mm512_or_si512(load_table(kGreyPick[0]), _mm512_slli_epi32(load_table(kGreyPick[1]), 16));
  const __m512i index2 = load_table(kGreyPick[2]);
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

int grey_to_rgb_row_avx512(const uint8_t* grey, uint8_t* rgb, int width) {
  const __m512i m0 = load_table(kReplicate[0]), m1 = load_table(kReplicate[1]);
  const __m512i m2 = load_table(kReplicate[2]);
  const int blocks = width & ~63;
  for (int x = 0; x < blocks; x += 64) {
    const __m512i g = _mm512_loadu_si512(grey + x);
    uint8_t* out = rgb + 3 * x;
    _mm512_storeu_si512(out, _mm512_permutexvar_epi8(m0, g));
    _mm512_storeu_si512(out + 64, _mm512_permutexvar_epi8(m1, g));
    _mm512_storeu_si512(out + 128, _mm512_permutexvar_epi8(m2, g));
  }
  return blocks;
}

int grey16_map_row_avx512(const Grey16Bounds& b, const uint8_t* src, uint8_t* dst, int width) {
  // The scalar mapping on 16 samples a step: the same double products, truncated; then the
  // samples outside [low, high] replaced by 0 and 255.
  const __m512i low = _mm512_set1_epi32(b.low), high = _mm512_set1_epi32(b.high);
  const __m512d scale = _mm512_set1_pd(b.scale);
  const __m512i full = _mm512_set1_epi32(255);
  const int blocks = width & ~15;
  for (int x = 0; x < blocks; x += 16) {
    const __m512i v =
        _mm512_cvtepu16_epi32(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + 2 * x)));
    const __m512i d = _mm512_sub_epi32(v, low);
    const __m256i lo =
        _mm512_cvttpd_epi32(_mm512_mul_pd(_mm512_cvtepi32_pd(_mm512_castsi512_si256(d)), scale));
    const __m256i hi = _mm512_cvttpd_epi32(
        _mm512_mul_pd(_mm512_cvtepi32_pd(_mm512_extracti64x4_epi64(d, 1)), scale));
    __m512i out = _mm512_inserti64x4(_mm512_castsi256_si512(lo), hi, 1);
    out = _mm512_mask_mov_epi32(out, _mm512_cmpgt_epi32_mask(v, high), full);
    out = _mm512_maskz_mov_epi32(_mm512_cmpge_epi32_mask(v, low), out);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + x), _mm512_cvtepi32_epi8(out));
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
