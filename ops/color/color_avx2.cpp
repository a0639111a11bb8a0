// AVX2 rows of the colour conversions. Every row does whole blocks from pixel 0 and returns
// how many pixels (or pairs, or blocks) it did; the scalar row finishes the tail. Loads and
// stores stay inside the row: no over-read, no over-write. The arithmetic is the scalar one
// in 32-bit lanes (the sums fit int32, see color_kernels.h), so the bytes are identical.
#include <immintrin.h>

#include <cstdint>
#include <cstring>

#include "ops/color/color_kernels.h"

namespace zarvel::aux::color {
namespace {

inline __m128i load4(const uint8_t* p) {
  int32_t v;
  std::memcpy(&v, p, 4);
  return _mm_cvtsi32_si128(v);
}
inline __m128i load8(const uint8_t* p) {
  return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
}

// 24 bytes of 8 packed pixels: pixels 0-3 in the low 12 bytes of lane 0, pixels 4-7 in the
// low 12 bytes of lane 1.
inline __m256i load24_split(const uint8_t* p) {
  const __m128i lo = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  const __m128i hi = load8(p + 16);
  const __m256i all = _mm256_inserti128_si256(_mm256_castsi128_si256(lo), hi, 1);
  return _mm256_permutevar8x32_epi32(all, _mm256_setr_epi32(0, 1, 2, 0, 3, 4, 5, 0));
}

// The inverse: the low 12 bytes of each lane, back to back, as 24 bytes at p.
inline void store24_split(uint8_t* p, __m256i v) {
  const __m256i packed = _mm256_permutevar8x32_epi32(v, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm256_castsi256_si128(packed));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(p + 16), _mm256_extracti128_si256(packed, 1));
}

// Same shuffle in both lanes.
inline __m256i lane_mask(const int8_t (&m)[16]) {
  const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(m));
  return _mm256_broadcastsi128_si256(x);
}

// Eight int32 R, G, B values (any range) -> clamped bytes, packed R,G,B (or B,G,R) at out.
// packs (to int16) is exact for the range of the sums, and packus then clamps to 0..255.
template <bool kBgr>
inline void store_rgb8(uint8_t* out, __m256i r, __m256i g, __m256i b) {
  static constexpr int8_t kRgb[16] = {0, 4, 8, 1, 5, 9, 2, 6, 10, 3, 7, 11, -1, -1, -1, -1};
  static constexpr int8_t kBgrMask[16] = {8, 4, 0, 9, 5, 1, 10, 6, 2, 11, 7, 3, -1, -1, -1, -1};
  const __m256i rg = _mm256_packs_epi32(r, g);  // lane: R0-3 G0-3
  const __m256i bb = _mm256_packs_epi32(b, b);  // lane: B0-3 B0-3
  const __m256i bytes = _mm256_packus_epi16(rg, bb);
  store24_split(out, _mm256_shuffle_epi8(bytes, lane_mask(kBgr ? kBgrMask : kRgb)));
}

struct YuvConstants {
  __m256i gain, v_r, u_g, v_g, u_b, half, c128;
  __m128i sixteen;
  YuvConstants()
      : gain(_mm256_set1_epi32(kLumaGain)),
        v_r(_mm256_set1_epi32(kVToR)),
        u_g(_mm256_set1_epi32(kUToG)),
        v_g(_mm256_set1_epi32(kVToG)),
        u_b(_mm256_set1_epi32(kUToB)),
        half(_mm256_set1_epi32(kHalf)),
        c128(_mm256_set1_epi32(128)),
        sixteen(_mm_set1_epi8(16)) {}
};

template <bool kBgr>
inline void yuv_emit8(const YuvConstants& k, const uint8_t* y, uint8_t* out, __m256i r0, __m256i g0,
                      __m256i b0) {
  // max(Y - 16, 0) is the saturating byte subtraction.
  const __m128i yc = _mm_subs_epu8(load8(y), k.sixteen);
  const __m256i luma = _mm256_mullo_epi32(_mm256_cvtepu8_epi32(yc), k.gain);
  const __m256i r = _mm256_srai_epi32(_mm256_add_epi32(luma, r0), kYuvShift);
  const __m256i g = _mm256_srai_epi32(_mm256_add_epi32(luma, g0), kYuvShift);
  const __m256i b = _mm256_srai_epi32(_mm256_add_epi32(luma, b0), kYuvShift);
  store_rgb8<kBgr>(out, r, g, b);
}

// ---- 32 pixels a row pair ----
// Register layout: a byte register holds pixels 0-15 of the block in lane 0 and 16-31 in
// lane 1; unpacking it twice against zero gives four int32 registers with pixels
// {0-3 | 16-19}, {4-7 | 20-23}, {8-11 | 24-27} and {12-15 | 28-31}, and packing those back
// (packs, then packus) restores the byte layout, so no lane crossing is needed until the
// stores. Chroma unpacked the same way holds blocks {0-3 | 8-11} and {4-7 | 12-15}; pairing
// each int32 with itself lines the blocks up with those pixel registers.

struct Quad {
  __m256i v[4];
};

inline Quad widen(__m256i bytes) {
  const __m256i zero = _mm256_setzero_si256();
  const __m256i lo = _mm256_unpacklo_epi8(bytes, zero), hi = _mm256_unpackhi_epi8(bytes, zero);
  return {{_mm256_unpacklo_epi16(lo, zero), _mm256_unpackhi_epi16(lo, zero),
           _mm256_unpacklo_epi16(hi, zero), _mm256_unpackhi_epi16(hi, zero)}};
}

// (luma + chroma term) >> 20 for 32 pixels, clamped to bytes in the byte layout. The terms
// come per block ({0-3 | 8-11} in a, {4-7 | 12-15} in b) and are paired up with the pixels
// of each block here, one register at a time, to keep register pressure low.
inline __m256i channel32(const Quad& luma, __m256i a, __m256i b) {
  const __m256i term[4] = {_mm256_unpacklo_epi32(a, a), _mm256_unpackhi_epi32(a, a),
                           _mm256_unpacklo_epi32(b, b), _mm256_unpackhi_epi32(b, b)};
  __m256i s[4];
  for (int i = 0; i < 4; ++i) {
    s[i] = _mm256_srai_epi32(_mm256_add_epi32(luma.v[i], term[i]), kYuvShift);
  }
  return _mm256_packus_epi16(_mm256_packs_epi32(s[0], s[1]), _mm256_packs_epi32(s[2], s[3]));
}

// Byte j of the lane-local shuffle of channel c is the pixel that channel c contributes to
// position j of whichever of the three 16-byte output chunks holds channel c at j: chunk k
// holds channel (k + j) % 3 of pixel (16k + j) / 3.
struct ByteMask {
  int8_t m[16];
};
constexpr ByteMask interleave_pick(int c) {
  ByteMask mask{};
  for (int j = 0; j < 16; ++j) mask.m[j] = static_cast<int8_t>((16 * ((c - j + 18) % 3) + j) / 3);
  return mask;
}
constexpr ByteMask positions(int residue) {
  ByteMask mask{};
  for (int j = 0; j < 16; ++j) mask.m[j] = static_cast<int8_t>(j % 3 == residue ? -1 : 0);
  return mask;
}
constexpr ByteMask kPick[3] = {interleave_pick(0), interleave_pick(1), interleave_pick(2)};
constexpr ByteMask kSecond = positions(1), kThird = positions(2);

// Three channels of 32 pixels (byte layout) -> 96 bytes at out, channel a first.
inline void store_interleaved(uint8_t* out, __m256i a, __m256i b, __m256i c) {
  const __m256i s0 = _mm256_shuffle_epi8(a, lane_mask(kPick[0].m));
  const __m256i s1 = _mm256_shuffle_epi8(b, lane_mask(kPick[1].m));
  const __m256i s2 = _mm256_shuffle_epi8(c, lane_mask(kPick[2].m));
  const __m256i second = lane_mask(kSecond.m), third = lane_mask(kThird.m);
  const __m256i k0 = _mm256_blendv_epi8(_mm256_blendv_epi8(s0, s1, second), s2, third);
  const __m256i k1 = _mm256_blendv_epi8(_mm256_blendv_epi8(s1, s2, second), s0, third);
  const __m256i k2 = _mm256_blendv_epi8(_mm256_blendv_epi8(s2, s0, second), s1, third);
  auto* o = reinterpret_cast<__m256i*>(out);
  _mm256_storeu_si256(o, _mm256_permute2x128_si256(k0, k1, 0x20));
  _mm256_storeu_si256(o + 1, _mm256_permute2x128_si256(k2, k0, 0x30));
  _mm256_storeu_si256(o + 2, _mm256_permute2x128_si256(k1, k2, 0x31));
}

// U and V of 16 blocks: per lane, U of 8 blocks in bytes 0-7 and V in bytes 8-15.
template <Chroma kChroma>
inline __m256i chroma16(const YuvRowPair& rows, int x) {
  if (kChroma == Chroma::kYu12) {
    const __m128i u = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows.c1 + x / 2));
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows.c2 + x / 2));
    return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_unpacklo_epi64(u, v)),
                                   _mm_unpackhi_epi64(u, v), 1);
  }
  static constexpr int8_t kUv[16] = {0, 2, 4, 6, 8, 10, 12, 14, 1, 3, 5, 7, 9, 11, 13, 15};
  static constexpr int8_t kVu[16] = {1, 3, 5, 7, 9, 11, 13, 15, 0, 2, 4, 6, 8, 10, 12, 14};
  const __m256i pairs = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(rows.c1 + x));
  return _mm256_shuffle_epi8(pairs, lane_mask(kChroma == Chroma::kNv21 ? kVu : kUv));
}

// Whole 32-pixel blocks of a row pair; returns the pixels done.
template <Chroma kChroma, bool kBgr>
int yuv_to_rgb_rows32(const YuvRowPair& rows, int width) {
  const __m256i v_r = _mm256_set1_epi32(kVToR), v_g = _mm256_set1_epi32(kVToG);
  const __m256i u_g = _mm256_set1_epi32(kUToG), u_b = _mm256_set1_epi32(kUToB);
  const __m256i bias_r = _mm256_set1_epi32(kBiasR), bias_g = _mm256_set1_epi32(kBiasG);
  const __m256i bias_b = _mm256_set1_epi32(kBiasB);
  const __m256i gain = _mm256_set1_epi32(kLumaGain), sixteen = _mm256_set1_epi8(16);
  const int blocks = width & ~31;
  for (int x = 0; x < blocks; x += 32) {
    const __m256i uv = chroma16<kChroma>(rows, x);
    const __m256i zero = _mm256_setzero_si256();
    const __m256i u16 = _mm256_unpacklo_epi8(uv, zero), v16 = _mm256_unpackhi_epi8(uv, zero);
    const __m256i u[2] = {_mm256_unpacklo_epi16(u16, zero), _mm256_unpackhi_epi16(u16, zero)};
    const __m256i v[2] = {_mm256_unpacklo_epi16(v16, zero), _mm256_unpackhi_epi16(v16, zero)};
    __m256i r0[2], g0[2], b0[2];
    for (int h = 0; h < 2; ++h) {
      r0[h] = _mm256_add_epi32(_mm256_mullo_epi32(v[h], v_r), bias_r);
      g0[h] = _mm256_add_epi32(
          _mm256_add_epi32(_mm256_mullo_epi32(v[h], v_g), _mm256_mullo_epi32(u[h], u_g)), bias_g);
      b0[h] = _mm256_add_epi32(_mm256_mullo_epi32(u[h], u_b), bias_b);
    }
    for (int row = 0; row < 2; ++row) {
      const uint8_t* y = row == 0 ? rows.y0 : rows.y1;
      uint8_t* out = (row == 0 ? rows.d0 : rows.d1) + 3 * x;
      // max(Y - 16, 0) is the saturating byte subtraction.
      const __m256i yc =
          _mm256_subs_epu8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(y + x)), sixteen);
      Quad luma = widen(yc);
      for (__m256i& l : luma.v) l = _mm256_mullo_epi32(l, gain);
      const __m256i r = channel32(luma, r0[0], r0[1]);
      const __m256i g = channel32(luma, g0[0], g0[1]);
      const __m256i b = channel32(luma, b0[0], b0[1]);
      if (kBgr) {
        store_interleaved(out, b, g, r);
      } else {
        store_interleaved(out, r, g, b);
      }
    }
  }
  return blocks;
}

template <Chroma kChroma, bool kBgr>
int yuv_to_rgb_rows(const YuvRowPair& rows, int width) {
  const YuvConstants k;
  // Interleaved chroma bytes u0 v0 u1 v1 u2 v2 u3 v3 -> each U twice, then each V twice.
  const __m128i dup = kChroma == Chroma::kNv21
                          ? _mm_setr_epi8(1, 1, 3, 3, 5, 5, 7, 7, 0, 0, 2, 2, 4, 4, 6, 6)
                          : _mm_setr_epi8(0, 0, 2, 2, 4, 4, 6, 6, 1, 1, 3, 3, 5, 5, 7, 7);
  const int blocks = width & ~7;
  for (int x = yuv_to_rgb_rows32<kChroma, kBgr>(rows, width); x < blocks; x += 8) {
    __m128i pairs;
    if (kChroma == Chroma::kYu12) {
      pairs = _mm_unpacklo_epi8(load4(rows.c1 + x / 2), load4(rows.c2 + x / 2));
    } else {
      pairs = load8(rows.c1 + x);
    }
    const __m128i uv = _mm_shuffle_epi8(pairs, dup);
    const __m256i d = _mm256_sub_epi32(_mm256_cvtepu8_epi32(uv), k.c128);
    const __m256i e = _mm256_sub_epi32(_mm256_cvtepu8_epi32(_mm_srli_si128(uv, 8)), k.c128);
    const __m256i r0 = _mm256_add_epi32(_mm256_mullo_epi32(e, k.v_r), k.half);
    const __m256i g0 = _mm256_add_epi32(
        _mm256_add_epi32(_mm256_mullo_epi32(e, k.v_g), _mm256_mullo_epi32(d, k.u_g)), k.half);
    const __m256i b0 = _mm256_add_epi32(_mm256_mullo_epi32(d, k.u_b), k.half);
    yuv_emit8<kBgr>(k, rows.y0 + x, rows.d0 + 3 * x, r0, g0, b0);
    yuv_emit8<kBgr>(k, rows.y1 + x, rows.d1 + 3 * x, r0, g0, b0);
  }
  return blocks;
}

template <Chroma kChroma>
int yuv_to_rgb_rows_for(const YuvRowPair& rows, int width, bool bgr) {
  return bgr ? yuv_to_rgb_rows<kChroma, true>(rows, width)
             : yuv_to_rgb_rows<kChroma, false>(rows, width);
}

// Splits 8 packed pixels into int32 R, G and B (blue first in memory when `bgr`).
inline void unpack_rgb8(const uint8_t* p, bool bgr, __m256i* r, __m256i* g, __m256i* b) {
  static constexpr int8_t k0[16] = {0, -1, -1, -1, 3, -1, -1, -1, 6, -1, -1, -1, 9, -1, -1, -1};
  static constexpr int8_t k1[16] = {1, -1, -1, -1, 4, -1, -1, -1, 7, -1, -1, -1, 10, -1, -1, -1};
  static constexpr int8_t k2[16] = {2, -1, -1, -1, 5, -1, -1, -1, 8, -1, -1, -1, 11, -1, -1, -1};
  const __m256i v = load24_split(p);
  *r = _mm256_shuffle_epi8(v, lane_mask(bgr ? k2 : k0));
  *g = _mm256_shuffle_epi8(v, lane_mask(k1));
  *b = _mm256_shuffle_epi8(v, lane_mask(bgr ? k0 : k2));
}

// Eight int32 values in 0..255 -> 8 bytes at out.
inline void store_bytes8(uint8_t* out, __m256i v) {
  const __m256i w = _mm256_packs_epi32(v, v);   // lane: v0-3 v0-3 (int16)
  const __m256i b = _mm256_packus_epi16(w, w);  // lane: v0-3 repeated (bytes)
  const __m256i c = _mm256_permutevar8x32_epi32(b, _mm256_setr_epi32(0, 4, 0, 0, 0, 0, 0, 0));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(c));
}

struct LumaConstants {
  __m256i r = _mm256_set1_epi32(kRToY), g = _mm256_set1_epi32(kGToY);
  __m256i b = _mm256_set1_epi32(kBToY), offset = _mm256_set1_epi32(kYOffset);
};

inline __m256i luma8(const LumaConstants& k, __m256i r, __m256i g, __m256i b) {
  __m256i sum = _mm256_add_epi32(_mm256_mullo_epi32(r, k.r), _mm256_mullo_epi32(g, k.g));
  sum = _mm256_add_epi32(_mm256_add_epi32(sum, _mm256_mullo_epi32(b, k.b)), k.offset);
  return _mm256_srai_epi32(sum, kYuvShift);
}

enum class ChromaStore { kPlanar, kUFirst, kVFirst };

// Luma of 8 pixels and the chroma of their 4 blocks. The chroma sums run on all 8 lanes and
// the even lanes (the blocks' top-left pixels) are kept: cheaper than gathering them.
template <ChromaStore kStore>
int luma_chroma_row(const uint8_t* rgb, uint8_t* y, uint8_t* u, uint8_t* v, int width, bool bgr) {
  const LumaConstants k;
  const __m256i ur = _mm256_set1_epi32(kRToU), ug = _mm256_set1_epi32(kGToU);
  const __m256i ub = _mm256_set1_epi32(kBToU), vr = _mm256_set1_epi32(kRToV);
  const __m256i vg = _mm256_set1_epi32(kGToV), vb = _mm256_set1_epi32(kBToV);
  const __m256i offset = _mm256_set1_epi32(kChromaOffset);
  // Per lane after the packs: U0 U1 U2 U3 V0 V1 V2 V3; keep U0 U2 V0 V2.
  static constexpr int8_t kEven[16] = {0, 2, 4, 6, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1};
  const __m256i even = lane_mask(kEven);
  const __m256i lanes = _mm256_setr_epi32(0, 4, 0, 0, 0, 0, 0, 0);
  // U0 U2 V0 V2 U4 U6 V4 V6 -> the stored order.
  const __m128i order =
      kStore == ChromaStore::kPlanar
          ? _mm_setr_epi8(0, 1, 4, 5, 2, 3, 6, 7, -1, -1, -1, -1, -1, -1, -1, -1)
          : (kStore == ChromaStore::kUFirst
                 ? _mm_setr_epi8(0, 2, 1, 3, 4, 6, 5, 7, -1, -1, -1, -1, -1, -1, -1, -1)
                 : _mm_setr_epi8(2, 0, 3, 1, 6, 4, 7, 5, -1, -1, -1, -1, -1, -1, -1, -1));
  const int blocks = width & ~7;
  for (int x = 0; x < blocks; x += 8) {
    __m256i r, g, b;
    unpack_rgb8(rgb + 3 * x, bgr, &r, &g, &b);
    store_bytes8(y + x, luma8(k, r, g, b));
    __m256i su = _mm256_add_epi32(_mm256_mullo_epi32(r, ur), _mm256_mullo_epi32(g, ug));
    su = _mm256_add_epi32(_mm256_add_epi32(su, _mm256_mullo_epi32(b, ub)), offset);
    __m256i sv = _mm256_add_epi32(_mm256_mullo_epi32(r, vr), _mm256_mullo_epi32(g, vg));
    sv = _mm256_add_epi32(_mm256_add_epi32(sv, _mm256_mullo_epi32(b, vb)), offset);
    const __m256i w =
        _mm256_packs_epi32(_mm256_srai_epi32(su, kYuvShift), _mm256_srai_epi32(sv, kYuvShift));
    const __m256i picked = _mm256_shuffle_epi8(_mm256_packus_epi16(w, w), even);
    const __m128i eight =
        _mm_shuffle_epi8(_mm256_castsi256_si128(_mm256_permutevar8x32_epi32(picked, lanes)), order);
    if (kStore == ChromaStore::kPlanar) {
      const int32_t uu = _mm_cvtsi128_si32(eight), vv = _mm_extract_epi32(eight, 1);
      std::memcpy(u + x / 2, &uu, 4);
      std::memcpy(v + x / 2, &vv, 4);
    } else {
      _mm_storel_epi64(reinterpret_cast<__m128i*>((kStore == ChromaStore::kUFirst ? u : v) + x),
                       eight);
    }
  }
  return blocks;
}
}  // namespace

int yuv_to_rgb_rows_avx2(const YuvRowPair& rows, int width, Chroma chroma, bool bgr) {
  switch (chroma) {
    case Chroma::kNv12:
      return yuv_to_rgb_rows_for<Chroma::kNv12>(rows, width, bgr);
    case Chroma::kNv21:
      return yuv_to_rgb_rows_for<Chroma::kNv21>(rows, width, bgr);
    default:
      return yuv_to_rgb_rows_for<Chroma::kYu12>(rows, width, bgr);
  }
}

int rgb_to_luma_row_avx2(const uint8_t* rgb, uint8_t* y, int width, bool bgr) {
  const LumaConstants k;
  const int blocks = width & ~7;
  for (int x = 0; x < blocks; x += 8) {
    __m256i r, g, b;
    unpack_rgb8(rgb + 3 * x, bgr, &r, &g, &b);
    store_bytes8(y + x, luma8(k, r, g, b));
  }
  return blocks;
}

int rgb_to_luma_chroma_row_avx2(const uint8_t* rgb, uint8_t* y, uint8_t* u, uint8_t* v, int step,
                                int width, bool bgr) {
  if (step == 1) return luma_chroma_row<ChromaStore::kPlanar>(rgb, y, u, v, width, bgr);
  return u < v ? luma_chroma_row<ChromaStore::kUFirst>(rgb, y, u, v, width, bgr)
               : luma_chroma_row<ChromaStore::kVFirst>(rgb, y, u, v, width, bgr);
}

int rgb_to_grey_row_avx2(const uint8_t* rgb, uint8_t* grey, int width, bool bgr) {
  // Pairs (byte 0, byte 1) and (byte 2, 0) as int16, one multiply-add each.
  static constexpr int8_t k01[16] = {0, -1, 1, -1, 3, -1, 4, -1, 6, -1, 7, -1, 9, -1, 10, -1};
  static constexpr int8_t k2[16] = {2, -1, -1, -1, 5, -1, -1, -1, 8, -1, -1, -1, 11, -1, -1, -1};
  const GreyPairWeights w = grey_pair_weights(bgr);
  const __m256i weights01 = _mm256_set1_epi32(w.first), weights2 = _mm256_set1_epi32(w.last);
  const __m256i half = _mm256_set1_epi32(kGreyHalf);
  const int blocks = width & ~7;
  for (int x = 0; x < blocks; x += 8) {
    const __m256i v = load24_split(rgb + 3 * x);
    const __m256i s01 = _mm256_madd_epi16(_mm256_shuffle_epi8(v, lane_mask(k01)), weights01);
    const __m256i s2 = _mm256_madd_epi16(_mm256_shuffle_epi8(v, lane_mask(k2)), weights2);
    const __m256i sum = _mm256_add_epi32(_mm256_add_epi32(s01, s2), half);
    store_bytes8(grey + x, _mm256_srai_epi32(sum, kGreyShift));
  }
  return blocks;
}

// Output byte j of a 48-byte block of 16 pixels comes from input byte 3 * (j / 3) + 2 - j % 3.
// swap_mask(o, i) picks, for output register o, the bytes that lie in input register i.
struct SwapMask {
  int8_t m[16];
};
constexpr SwapMask swap_mask(int o, int i) {
  SwapMask mask{};
  for (int k = 0; k < 16; ++k) {
    const int j = 16 * o + k;
    const int from = 3 * (j / 3) + 2 - j % 3 - 16 * i;
    mask.m[k] = static_cast<int8_t>(from >= 0 && from < 16 ? from : -1);
  }
  return mask;
}

int swap_rb_row_avx2(const uint8_t* src, uint8_t* dst, int width) {
  static constexpr SwapMask kMasks[7] = {swap_mask(0, 0), swap_mask(0, 1), swap_mask(1, 0),
                                         swap_mask(1, 1), swap_mask(1, 2), swap_mask(2, 1),
                                         swap_mask(2, 2)};
  auto mask = [](int n) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(kMasks[n].m)); };
  const __m128i m00 = mask(0), m01 = mask(1), m10 = mask(2), m11 = mask(3), m12 = mask(4);
  const __m128i m21 = mask(5), m22 = mask(6);
  const int blocks = width & ~15;
  for (int x = 0; x < blocks; x += 16) {
    const __m128i* in = reinterpret_cast<const __m128i*>(src + 3 * x);
    const __m128i a = _mm_loadu_si128(in), b = _mm_loadu_si128(in + 1);
    const __m128i c = _mm_loadu_si128(in + 2);
    const __m128i o0 = _mm_or_si128(_mm_shuffle_epi8(a, m00), _mm_shuffle_epi8(b, m01));
    const __m128i o1 = _mm_or_si128(
        _mm_or_si128(_mm_shuffle_epi8(a, m10), _mm_shuffle_epi8(b, m11)), _mm_shuffle_epi8(c, m12));
    const __m128i o2 = _mm_or_si128(_mm_shuffle_epi8(b, m21), _mm_shuffle_epi8(c, m22));
    __m128i* out = reinterpret_cast<__m128i*>(dst + 3 * x);
    _mm_storeu_si128(out, o0);
    _mm_storeu_si128(out + 1, o1);
    _mm_storeu_si128(out + 2, o2);
  }
  return blocks;
}

int grey_to_rgb_row_avx2(const uint8_t* grey, uint8_t* rgb, int width) {
  // 16 grey bytes -> 48 bytes: three shuffles of the same register, three whole stores.
  const __m128i m0 = _mm_setr_epi8(0, 0, 0, 1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4, 4, 5);
  const __m128i m1 = _mm_setr_epi8(5, 5, 6, 6, 6, 7, 7, 7, 8, 8, 8, 9, 9, 9, 10, 10);
  const __m128i m2 = _mm_setr_epi8(10, 11, 11, 11, 12, 12, 12, 13, 13, 13, 14, 14, 14, 15, 15, 15);
  const int blocks = width & ~15;
  for (int x = 0; x < blocks; x += 16) {
    const __m128i g = _mm_loadu_si128(reinterpret_cast<const __m128i*>(grey + x));
    uint8_t* out = rgb + 3 * x;
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_shuffle_epi8(g, m0));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16), _mm_shuffle_epi8(g, m1));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 32), _mm_shuffle_epi8(g, m2));
  }
  return blocks;
}

int swap_pairs_row_avx2(const uint8_t* src, uint8_t* dst, int pairs) {
  const int blocks = pairs & ~15;
  for (int p = 0; p < blocks; p += 16) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + 2 * p));
    const __m256i swapped = _mm256_or_si256(_mm256_slli_epi16(v, 8), _mm256_srli_epi16(v, 8));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + 2 * p), swapped);
  }
  return blocks;
}

int grey16_map_row_avx2(const Grey16Bounds& b, const uint8_t* src, uint8_t* dst, int width) {
  // The scalar mapping on 8 samples a step: the same double products, truncated; then the
  // samples outside [low, high] replaced by 0 and 255.
  const __m256i low = _mm256_set1_epi32(b.low), high = _mm256_set1_epi32(b.high);
  const __m256d scale = _mm256_set1_pd(b.scale);
  const __m256i full = _mm256_set1_epi32(255);
  const int blocks = width & ~7;
  for (int x = 0; x < blocks; x += 8) {
    const __m256i v =
        _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 2 * x)));
    const __m256i d = _mm256_sub_epi32(v, low);
    const __m128i lo =
        _mm256_cvttpd_epi32(_mm256_mul_pd(_mm256_cvtepi32_pd(_mm256_castsi256_si128(d)), scale));
    const __m128i hi = _mm256_cvttpd_epi32(
        _mm256_mul_pd(_mm256_cvtepi32_pd(_mm256_extracti128_si256(d, 1)), scale));
    __m256i out = _mm256_inserti128_si256(_mm256_castsi128_si256(lo), hi, 1);
    out = _mm256_blendv_epi8(out, full, _mm256_cmpgt_epi32(v, high));
    out = _mm256_andnot_si256(_mm256_cmpgt_epi32(low, v), out);
    // Entries are 0..255 here: packs then packus keep them, lane by lane.
    const __m256i w = _mm256_packs_epi32(out, out);
    const __m256i bytes = _mm256_packus_epi16(w, w);
    const __m128i eight =
        _mm_unpacklo_epi32(_mm256_castsi256_si128(bytes), _mm256_extracti128_si256(bytes, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(dst + x), eight);
  }
  return blocks;
}

}  // namespace zarvel::aux::color
