// 256-bit FMA warp kernels: eight output pixels per step, floored coordinates and Q16
// weights (see warp_kernels.h). Built with -mavx2 -mfma -frounding-math, outside LTO.
#include <immintrin.h>

#include <cfenv>
#include <cstddef>
#include <cstring>
#include <type_traits>

#include "ops/warp/warp_kernels.h"

namespace zarvel::aux::warp {
namespace {

// Sets the round-down mode for the conversions to integers, and restores the caller's mode.
class RoundDownScope {
 public:
  RoundDownScope() : saved_(std::fegetround()) { std::fesetround(FE_DOWNWARD); }
  ~RoundDownScope() { std::fesetround(saved_); }
  RoundDownScope(const RoundDownScope&) = delete;
  RoundDownScope& operator=(const RoundDownScope&) = delete;

 private:
  int saved_;
};

// Output pixels per column strip (a multiple of 8).
constexpr int32_t kStripWidth = 128;

// The eight lanes of a block after the coordinate stage.
struct alignas(32) Lanes {
  int32_t ix[8];
  int32_t iy[8];
  int32_t w[4][8];  // TL, TR, BL, BR
};

// One pixel of a block whose neighbours are not all inside, with the block's integer
// coordinates and weights; the arithmetic wraps like the vector lanes.
template <int C, int32_t kMode>
inline void blend_lane(const WarpJob& j, const Lanes& l, int lane, uint8_t* out) {
  const int64_t in_w = j.in_width, in_h = j.in_height;
  int64_t c0 = l.ix[lane], c1 = int64_t{l.ix[lane]} + 1;
  int64_t r0 = l.iy[lane], r1 = int64_t{l.iy[lane]} + 1;
  const bool c0_in = c0 >= 0 && c0 < in_w, c1_in = c1 >= 0 && c1 < in_w;
  const bool r0_in = r0 >= 0 && r0 < in_h, r1_in = r1 >= 0 && r1 < in_h;
  if constexpr (kMode == kBorderTransparent) {
    if (!(c0_in && c1_in && r0_in && r1_in)) return;
  }
  if constexpr (kMode == kBorderReplicate) {
    auto clamp = [](int64_t v, int64_t hi) { return v < 0 ? 0 : (v > hi ? hi : v); };
    c0 = clamp(c0, in_w - 1);
    c1 = clamp(c1, in_w - 1);
    r0 = clamp(r0, in_h - 1);
    r1 = clamp(r1, in_h - 1);
  }
  const int64_t stride = j.in_stride;
  for (int ch = 0; ch < C; ++ch) {
    auto at = [&](int64_t row, int64_t col, bool inside) -> uint32_t {
      if (kMode == kBorderConstant && !inside) return j.border;
      return j.in[row * stride + col * C + ch];
    };
    const uint32_t sum = static_cast<uint32_t>(l.w[0][lane]) * at(r0, c0, r0_in && c0_in) +
                         static_cast<uint32_t>(l.w[1][lane]) * at(r0, c1, r0_in && c1_in) +
                         static_cast<uint32_t>(l.w[2][lane]) * at(r1, c0, r1_in && c0_in) +
                         static_cast<uint32_t>(l.w[3][lane]) * at(r1, c1, r1_in && c1_in) +
                         static_cast<uint32_t>(kWeightRound);
    out[ch] = static_cast<uint8_t>(sum >> kWeightBits);
  }
}

// The fast path: eight pixels whose four neighbours all lie inside the plane, so that
// 0 <= fx, fy < 1 and every weight lies in [0, 2^16].
//
// Weights. With fxs = fx * 2^16 and gxs = 2^16 - fxs (both exact: scaling by a power of two
// commutes with rounding in the normal range, and 1 - fx >= 2^-24 is normal), the products
// gxs * gy, fxs * gy, gxs * fy, fxs * fy round to 2^16 times the rounded products of the
// formula whenever those are normal; below that both floor to 0. So the four floored weights
// are the formula's, one multiplication each.
//
// 16-bit blend. wTL = 2^16 only when fx = fy = 0, and then the other weights are 0; storing
// 2^16 - 1 instead gives (65535 TL + 2^15) >> 16 = TL, the same byte. With every weight in
// [0, 2^16 - 1], w = 256 a + b with a, b in [0, 255], and
//   sum(w p) = 256 * sum(a p) + sum(b p)
// exactly in 32 bits, from 16-bit multiply-adds on (left, right) neighbour pairs. The sum plus
// 2^15 stays below 2^24, so the result is byte 2 of each 32-bit lane.
struct PairWeights {
  __m256i hi_top, lo_top, hi_bottom, lo_bottom;  // per pixel: (left, right) 16-bit pair
};

inline PairWeights fast_weights(__m256 sx, __m256 sy, __m256i ix, __m256i iy) {
  const __m256 scale = _mm256_set1_ps(kWeightScale);
  const __m256 fxs = _mm256_mul_ps(_mm256_sub_ps(sx, _mm256_cvtepi32_ps(ix)), scale);
  const __m256 fy = _mm256_sub_ps(sy, _mm256_cvtepi32_ps(iy));
  const __m256 gxs = _mm256_sub_ps(scale, fxs);
  const __m256 gy = _mm256_sub_ps(_mm256_set1_ps(1.0f), fy);
  const __m256i tl =
      _mm256_min_epu32(_mm256_cvtps_epi32(_mm256_mul_ps(gxs, gy)), _mm256_set1_epi32(0xffff));
  const __m256i tr = _mm256_cvtps_epi32(_mm256_mul_ps(fxs, gy));
  const __m256i bl = _mm256_cvtps_epi32(_mm256_mul_ps(gxs, fy));
  const __m256i br = _mm256_cvtps_epi32(_mm256_mul_ps(fxs, fy));
  const __m256i top = _mm256_or_si256(tl, _mm256_slli_epi32(tr, 16));
  const __m256i bottom = _mm256_or_si256(bl, _mm256_slli_epi32(br, 16));
  const __m256i low_bytes = _mm256_set1_epi16(0xff);
  return {_mm256_srli_epi16(top, 8), _mm256_and_si256(top, low_bytes), _mm256_srli_epi16(bottom, 8),
          _mm256_and_si256(bottom, low_bytes)};
}

// One channel register: `top` and `bottom` hold the 16-bit (left, right) neighbour pairs
// matching the weight pairs. Returns sum(w p) + 2^15 per 32-bit lane.
inline __m256i blend(__m256i top, __m256i bottom, __m256i hi_top, __m256i lo_top, __m256i hi_bottom,
                     __m256i lo_bottom) {
  const __m256i hi =
      _mm256_add_epi32(_mm256_madd_epi16(top, hi_top), _mm256_madd_epi16(bottom, hi_bottom));
  const __m256i lo =
      _mm256_add_epi32(_mm256_madd_epi16(top, lo_top), _mm256_madd_epi16(bottom, lo_bottom));
  return _mm256_add_epi32(_mm256_add_epi32(_mm256_slli_epi32(hi, 8), lo),
                          _mm256_set1_epi32(kWeightRound));
}

inline __m256i blend(__m256i top, __m256i bottom, const PairWeights& w) {
  return blend(top, bottom, w.hi_top, w.lo_top, w.hi_bottom, w.lo_bottom);
}

// The same byte shuffle in both 128-bit halves.
inline __m256i shuffle(__m256i v, const char (&m)[16]) {
  const __m128i h = _mm_loadu_si128(reinterpret_cast<const __m128i*>(m));
  return _mm256_shuffle_epi8(v, _mm256_broadcastsi128_si256(h));
}

constexpr char Z = static_cast<char>(0x80);

template <class T>
inline T load(const uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

inline __m256i load_qwords(const uint8_t* p0, const uint8_t* p1, const uint8_t* p2,
                           const uint8_t* p3) {
  const __m128i lo = _mm_set_epi64x(load<int64_t>(p1), load<int64_t>(p0));
  const __m128i hi = _mm_set_epi64x(load<int64_t>(p3), load<int64_t>(p2));
  return _mm256_inserti128_si256(_mm256_castsi128_si256(lo), hi, 1);
}

inline __m256i load_dwords(const uint8_t* const p[8]) {
  return _mm256_setr_epi32(load<int32_t>(p[0]), load<int32_t>(p[1]), load<int32_t>(p[2]),
                           load<int32_t>(p[3]), load<int32_t>(p[4]), load<int32_t>(p[5]),
                           load<int32_t>(p[6]), load<int32_t>(p[7]));
}

// Eight pixels of the fast path; `offset` holds the byte offsets of their top-left
// neighbours. The neighbours are read with scalar loads (vector gathers are slow on many
// processors), four bytes per row and pixel for one or two channels, eight for three:
//   1 channel: the top dword starts at TL and the bottom one ends at BR (it starts two bytes
//   before BL, inside the row above), so neither reads past the plane.
//   2 channels: the top and bottom dwords are exactly (TL, TR) and (BL, BR).
//   3 channels: the top qword starts at TL and runs two bytes past TR (into the next row,
//   which exists), the bottom one ends at BR and starts two bytes before BL.
template <int C>
inline void fast_block(const uint8_t* in, int32_t stride, const int32_t offset[8],
                       const PairWeights& w, uint8_t* out) {
  if constexpr (C == 1 || C == 2) {
    const uint8_t* top[8];
    const uint8_t* bottom[8];
    const int32_t back = C == 1 ? 2 : 0;
    for (int i = 0; i < 8; ++i) {
      top[i] = in + offset[i];
      bottom[i] = in + offset[i] + stride - back;
    }
    const __m256i t = load_dwords(top), b = load_dwords(bottom);
    if constexpr (C == 1) {
      static constexpr char kTop[16] = {0, Z, 1, Z, 4, Z, 5, Z, 8, Z, 9, Z, 12, Z, 13, Z};
      static constexpr char kBottom[16] = {2, Z, 3, Z, 6, Z, 7, Z, 10, Z, 11, Z, 14, Z, 15, Z};
      const __m256i s = blend(shuffle(t, kTop), shuffle(b, kBottom), w);
      static constexpr char kOut[16] = {2, 6, 10, 14, Z, Z, Z, Z, Z, Z, Z, Z, Z, Z, Z, Z};
      const __m256i p = shuffle(s, kOut);
      const __m128i r =
          _mm_unpacklo_epi32(_mm256_castsi256_si128(p), _mm256_extracti128_si256(p, 1));
      _mm_storel_epi64(reinterpret_cast<__m128i*>(out), r);
    } else {
      static constexpr char kFirst[16] = {0, Z, 2, Z, 4, Z, 6, Z, 8, Z, 10, Z, 12, Z, 14, Z};
      static constexpr char kSecond[16] = {1, Z, 3, Z, 5, Z, 7, Z, 9, Z, 11, Z, 13, Z, 15, Z};
      const __m256i s0 = blend(shuffle(t, kFirst), shuffle(b, kFirst), w);
      const __m256i s1 = blend(shuffle(t, kSecond), shuffle(b, kSecond), w);
      static constexpr char kOut0[16] = {2, Z, 6, Z, 10, Z, 14, Z, Z, Z, Z, Z, Z, Z, Z, Z};
      static constexpr char kOut1[16] = {Z, 2, Z, 6, Z, 10, Z, 14, Z, Z, Z, Z, Z, Z, Z, Z};
      const __m256i p = _mm256_or_si256(shuffle(s0, kOut0), shuffle(s1, kOut1));
      const __m128i r =
          _mm_unpacklo_epi64(_mm256_castsi256_si128(p), _mm256_extracti128_si256(p, 1));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out), r);
    }
  } else {
    // Pixels 0 1 | 4 5 in `ta`/`ba`, 2 3 | 6 7 in `tb`/`bb`: each 128-bit half then holds
    // the pixels whose weights sit in the same half of the weight registers.
    const uint8_t* p[8];
    for (int i = 0; i < 8; ++i) p[i] = in + offset[i];
    const __m256i ta = load_qwords(p[0], p[1], p[4], p[5]);
    const __m256i tb = load_qwords(p[2], p[3], p[6], p[7]);
    const int32_t down = stride - 2;
    const __m256i ba = load_qwords(p[0] + down, p[1] + down, p[4] + down, p[5] + down);
    const __m256i bb = load_qwords(p[2] + down, p[3] + down, p[6] + down, p[7] + down);
    // Red and green of two pixels per half, as (R, G, R, G) pairs: weights (w, w, w', w').
    static constexpr char kTopRg[16] = {0, Z, 3, Z, 1, Z, 4, Z, 8, Z, 11, Z, 9, Z, 12, Z};
    static constexpr char kBottomRg[16] = {2, Z, 5, Z, 3, Z, 6, Z, 10, Z, 13, Z, 11, Z, 14, Z};
    auto twice_lo = [](__m256i v) { return _mm256_unpacklo_epi32(v, v); };
    auto twice_hi = [](__m256i v) { return _mm256_unpackhi_epi32(v, v); };
    const __m256i rg_a = blend(shuffle(ta, kTopRg), shuffle(ba, kBottomRg), twice_lo(w.hi_top),
                               twice_lo(w.lo_top), twice_lo(w.hi_bottom), twice_lo(w.lo_bottom));
    const __m256i rg_b = blend(shuffle(tb, kTopRg), shuffle(bb, kBottomRg), twice_hi(w.hi_top),
                               twice_hi(w.lo_top), twice_hi(w.hi_bottom), twice_hi(w.lo_bottom));
    // Blue of all eight pixels in pixel order.
    static constexpr char kTopBa[16] = {2, Z, 5, Z, 10, Z, 13, Z, Z, Z, Z, Z, Z, Z, Z, Z};
    static constexpr char kTopBb[16] = {Z, Z, Z, Z, Z, Z, Z, Z, 2, Z, 5, Z, 10, Z, 13, Z};
    static constexpr char kBottomBa[16] = {4, Z, 7, Z, 12, Z, 15, Z, Z, Z, Z, Z, Z, Z, Z, Z};
    static constexpr char kBottomBb[16] = {Z, Z, Z, Z, Z, Z, Z, Z, 4, Z, 7, Z, 12, Z, 15, Z};
    const __m256i blue = blend(_mm256_or_si256(shuffle(ta, kTopBa), shuffle(tb, kTopBb)),
                               _mm256_or_si256(shuffle(ba, kBottomBa), shuffle(bb, kBottomBb)), w);
    // Byte 2 of each lane, in R G B order: 12 bytes per half.
    static constexpr char kOutA[16] = {2, 6, Z, 10, 14, Z, Z, Z, Z, Z, Z, Z, Z, Z, Z, Z};
    static constexpr char kOutB[16] = {Z, Z, Z, Z, Z, Z, 2, 6, Z, 10, 14, Z, Z, Z, Z, Z};
    static constexpr char kOutBlue[16] = {Z, Z, 2, Z, Z, 6, Z, Z, 10, Z, Z, 14, Z, Z, Z, Z};
    const __m256i rgb = _mm256_or_si256(_mm256_or_si256(shuffle(rg_a, kOutA), shuffle(rg_b, kOutB)),
                                        shuffle(blue, kOutBlue));
    const __m256i packed =
        _mm256_permutevar8x32_epi32(rgb, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(packed));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 16), _mm256_extracti128_si256(packed, 1));
  }
}

template <int C, bool kPerspective, int32_t kMode>
void warp_rows(const WarpJob& j) {
  const RoundDownScope round_down;
  const float* m = j.m;
  const __m256 m0 = _mm256_set1_ps(m[0]), m3 = _mm256_set1_ps(m[3]);
  const __m256 m6 = _mm256_set1_ps(kPerspective ? m[6] : 0.0f);
  const __m256 lane_x = _mm256_setr_ps(0, 1, 2, 3, 4, 5, 6, 7);
  const __m256 one = _mm256_set1_ps(1.0f), scale = _mm256_set1_ps(kWeightScale);
  // Inside: 0 <= ix < in_width - 1 and 0 <= iy < in_height - 1.
  const __m256i minus_one = _mm256_set1_epi32(-1);
  const __m256i x_end = _mm256_set1_epi32(j.in_width - 1);
  const __m256i y_end = _mm256_set1_epi32(j.in_height - 1);
  const __m256i in_stride = _mm256_set1_epi32(j.in_stride);
  // Block offsets are 32-bit, and the pair loads rely on rows that do not overlap: other
  // planes take the per-lane path.
  const bool offsets_fit = int64_t{j.in_stride} >= int64_t{j.in_width} * C &&
                           int64_t{j.in_stride} * j.in_height + 8 < int64_t{INT32_MAX};
  Lanes lanes;
  // The output is walked in column strips: a strip's rows read a narrow band of the input
  // that stays in cache, where whole rows of a rotated image would cross many input rows.
  for (int32_t x0 = 0; x0 < j.out_width; x0 += kStripWidth) {
    const int32_t x1 = j.out_width - x0 < kStripWidth ? j.out_width : x0 + kStripWidth;
    for (int32_t y = 0; y < j.out_height; ++y) {
      uint8_t* out_row = j.out + static_cast<ptrdiff_t>(y) * j.out_stride;
      const __m256 yf = _mm256_set1_ps(static_cast<float>(y));
      const __m256 row_x = _mm256_fmadd_ps(_mm256_set1_ps(m[1]), yf, _mm256_set1_ps(m[2]));
      const __m256 row_y = _mm256_fmadd_ps(_mm256_set1_ps(m[4]), yf, _mm256_set1_ps(m[5]));
      const __m256 row_w =
          kPerspective ? _mm256_fmadd_ps(_mm256_set1_ps(m[7]), yf, _mm256_set1_ps(m[8])) : one;
      for (int32_t x = x0; x < x1; x += 8) {
        const __m256 xf = _mm256_add_ps(_mm256_set1_ps(static_cast<float>(x)), lane_x);
        __m256 sx = _mm256_fmadd_ps(m0, xf, row_x);
        __m256 sy = _mm256_fmadd_ps(m3, xf, row_y);
        if constexpr (kPerspective) {
          const __m256 inv_w = _mm256_rcp_ps(_mm256_fmadd_ps(m6, xf, row_w));
          sx = _mm256_mul_ps(sx, inv_w);
          sy = _mm256_mul_ps(sy, inv_w);
        }
        const __m256i ix = _mm256_cvtps_epi32(sx);  // floor under the round-down mode
        const __m256i iy = _mm256_cvtps_epi32(sy);
        const __m256i inside = _mm256_and_si256(
            _mm256_and_si256(_mm256_cmpgt_epi32(ix, minus_one), _mm256_cmpgt_epi32(x_end, ix)),
            _mm256_and_si256(_mm256_cmpgt_epi32(iy, minus_one), _mm256_cmpgt_epi32(y_end, iy)));
        uint8_t* out = out_row + static_cast<ptrdiff_t>(x) * C;
        const int32_t count = j.out_width - x < 8 ? j.out_width - x : 8;
        if (offsets_fit && count == 8 && _mm256_movemask_ps(_mm256_castsi256_ps(inside)) == 0xff) {
          alignas(32) int32_t offset[8];
          _mm256_store_si256(reinterpret_cast<__m256i*>(offset),
                             _mm256_add_epi32(_mm256_mullo_epi32(iy, in_stride),
                                              _mm256_mullo_epi32(ix, _mm256_set1_epi32(C))));
          fast_block<C>(j.in, j.in_stride, offset, fast_weights(sx, sy, ix, iy), out);
          continue;
        }
        const __m256 fx = _mm256_sub_ps(sx, _mm256_cvtepi32_ps(ix));
        const __m256 fy = _mm256_sub_ps(sy, _mm256_cvtepi32_ps(iy));
        const __m256 gx = _mm256_sub_ps(one, fx), gy = _mm256_sub_ps(one, fy);
        const __m256i w[4] = {
            _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_mul_ps(gx, gy), scale)),
            _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_mul_ps(fx, gy), scale)),
            _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_mul_ps(gx, fy), scale)),
            _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_mul_ps(fx, fy), scale)),
        };
        _mm256_store_si256(reinterpret_cast<__m256i*>(lanes.ix), ix);
        _mm256_store_si256(reinterpret_cast<__m256i*>(lanes.iy), iy);
        for (int k = 0; k < 4; ++k)
          _mm256_store_si256(reinterpret_cast<__m256i*>(lanes.w[k]), w[k]);
        for (int32_t lane = 0; lane < count; ++lane)
          blend_lane<C, kMode>(j, lanes, lane, out + lane * C);
      }
    }
  }
}

template <bool kPerspective>
void warp_dispatch(const WarpJob& job, int channels) {
  for_channels_and_mode(channels, job.border_mode, [&job](auto c, auto mode) {
    warp_rows<decltype(c)::value, kPerspective, decltype(mode)::value>(job);
  });
}

}  // namespace

void warp_affine_fma(const WarpJob& job, int channels) { warp_dispatch<false>(job, channels); }
void warp_perspective_fma(const WarpJob& job, int channels) { warp_dispatch<true>(job, channels); }

}  // namespace zarvel::aux::warp
