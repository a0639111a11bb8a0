// 256-bit FMA warp kernels: eight output pixels per step, floored coordinates and Q16
// weights (see warp_kernels.h). Built with -mavx2 -mfma -frounding-math, outside LTO.
#include <immintrin.h>

#include <cfenv>
#include <cmath>
#include <cstddef>
#include <cstdint>
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

// Rows ahead whose input and output lines are prefetched.
constexpr int kPrefetchRows = 16;

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
// 16-bit blend. wTL = 2^16 only when fx = fy = 0, and then the other weights are 0; the
// unsigned saturating pack stores 2^16 - 1 instead, and (65535 TL + 2^15) >> 16 = TL is the
// same byte. With every weight w in [0, 2^16 - 1], w' = w - 2^15 fits int16, and
//   sum(w p) + 2^15 = sum(w' p) + 2^15 * (sum(p) + 1)
// exactly in 32 bits: two 16-bit multiply-adds on (left, right) neighbour pairs give
// sum(w' p), a third on the pair sums (TL + BL, TR + BR) gives -2^15 * sum(p). The total
// lies in [0, 2^24), so the result is byte 2 of each 32-bit lane.
struct PairWeights {
  __m256i top, bottom;  // per pixel: (w' left, w' right) as 16-bit pairs, pixel order
};

// Interleaves the two 4-word groups of each 128-bit half: (a0..a3, b0..b3) -> (a0, b0, ...).
constexpr char Z = static_cast<char>(0x80);
constexpr char kInterleave[16] = {0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15};

// The same byte shuffle in both 128-bit halves.
inline __m256i shuffle(__m256i v, const char (&m)[16]) {
  return _mm256_shuffle_epi8(
      v, _mm256_setr_epi8(m[0], m[1], m[2], m[3], m[4], m[5], m[6], m[7], m[8], m[9], m[10], m[11],
                          m[12], m[13], m[14], m[15], m[0], m[1], m[2], m[3], m[4], m[5], m[6],
                          m[7], m[8], m[9], m[10], m[11], m[12], m[13], m[14], m[15]));
}

inline PairWeights fast_weights(__m256 sx, __m256 sy, __m256i ix, __m256i iy) {
  const __m256 scale = _mm256_set1_ps(kWeightScale);
  const __m256 fxs = _mm256_mul_ps(_mm256_sub_ps(sx, _mm256_cvtepi32_ps(ix)), scale);
  const __m256 fy = _mm256_sub_ps(sy, _mm256_cvtepi32_ps(iy));
  const __m256 gxs = _mm256_sub_ps(scale, fxs);
  const __m256 gy = _mm256_sub_ps(_mm256_set1_ps(1.0f), fy);
  const __m256i tl = _mm256_cvtps_epi32(_mm256_mul_ps(gxs, gy));
  const __m256i tr = _mm256_cvtps_epi32(_mm256_mul_ps(fxs, gy));
  const __m256i bl = _mm256_cvtps_epi32(_mm256_mul_ps(gxs, fy));
  const __m256i br = _mm256_cvtps_epi32(_mm256_mul_ps(fxs, fy));
  const __m256i bias = _mm256_set1_epi16(static_cast<int16_t>(0x8000));
  return {_mm256_xor_si256(shuffle(_mm256_packus_epi32(tl, tr), kInterleave), bias),
          _mm256_xor_si256(shuffle(_mm256_packus_epi32(bl, br), kInterleave), bias)};
}

// One register of pairs: sum(w p) + 2^15 per 32-bit lane.
inline __m256i blend(__m256i top, __m256i bottom, __m256i w_top, __m256i w_bottom) {
  const __m256i biased =
      _mm256_add_epi32(_mm256_madd_epi16(top, w_top), _mm256_madd_epi16(bottom, w_bottom));
  const __m256i minus_sum = _mm256_madd_epi16(_mm256_add_epi16(top, bottom),
                                              _mm256_set1_epi16(static_cast<int16_t>(0x8000)));
  return _mm256_add_epi32(_mm256_sub_epi32(biased, minus_sum), _mm256_set1_epi32(kWeightRound));
}

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

inline __m256i load_dwords(const uint8_t* base, const int32_t offset[8], int32_t delta) {
  auto at = [&](int i) { return load<int32_t>(base + offset[i] + delta); };
  return _mm256_setr_epi32(at(0), at(1), at(2), at(3), at(4), at(5), at(6), at(7));
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
  if constexpr (C == 1) {
    const __m256i t = load_dwords(in, offset, 0), b = load_dwords(in, offset, stride - 2);
    static constexpr char kTop[16] = {0, Z, 1, Z, 4, Z, 5, Z, 8, Z, 9, Z, 12, Z, 13, Z};
    static constexpr char kBottom[16] = {2, Z, 3, Z, 6, Z, 7, Z, 10, Z, 11, Z, 14, Z, 15, Z};
    const __m256i s = blend(shuffle(t, kTop), shuffle(b, kBottom), w.top, w.bottom);
    static constexpr char kOut[16] = {2, 6, 10, 14, Z, Z, Z, Z, Z, Z, Z, Z, Z, Z, Z, Z};
    const __m256i p = shuffle(s, kOut);
    const __m128i r = _mm_unpacklo_epi32(_mm256_castsi256_si128(p), _mm256_extracti128_si256(p, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), r);
  } else if constexpr (C == 2) {
    const __m256i t = load_dwords(in, offset, 0), b = load_dwords(in, offset, stride);
    static constexpr char kFirst[16] = {0, Z, 2, Z, 4, Z, 6, Z, 8, Z, 10, Z, 12, Z, 14, Z};
    static constexpr char kSecond[16] = {1, Z, 3, Z, 5, Z, 7, Z, 9, Z, 11, Z, 13, Z, 15, Z};
    const __m256i s0 = blend(shuffle(t, kFirst), shuffle(b, kFirst), w.top, w.bottom);
    const __m256i s1 = blend(shuffle(t, kSecond), shuffle(b, kSecond), w.top, w.bottom);
    static constexpr char kOut0[16] = {2, Z, 6, Z, 10, Z, 14, Z, Z, Z, Z, Z, Z, Z, Z, Z};
    static constexpr char kOut1[16] = {Z, 2, Z, 6, Z, 10, Z, 14, Z, Z, Z, Z, Z, Z, Z, Z};
    const __m256i p = _mm256_or_si256(shuffle(s0, kOut0), shuffle(s1, kOut1));
    const __m128i r = _mm_unpacklo_epi64(_mm256_castsi256_si128(p), _mm256_extracti128_si256(p, 1));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), r);
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
    const __m256i rg_a =
        blend(shuffle(ta, kTopRg), shuffle(ba, kBottomRg), _mm256_unpacklo_epi32(w.top, w.top),
              _mm256_unpacklo_epi32(w.bottom, w.bottom));
    const __m256i rg_b =
        blend(shuffle(tb, kTopRg), shuffle(bb, kBottomRg), _mm256_unpackhi_epi32(w.top, w.top),
              _mm256_unpackhi_epi32(w.bottom, w.bottom));
    // Blue of all eight pixels in pixel order.
    static constexpr char kTopBa[16] = {2, Z, 5, Z, 10, Z, 13, Z, Z, Z, Z, Z, Z, Z, Z, Z};
    static constexpr char kTopBb[16] = {Z, Z, Z, Z, Z, Z, Z, Z, 2, Z, 5, Z, 10, Z, 13, Z};
    static constexpr char kBottomBa[16] = {4, Z, 7, Z, 12, Z, 15, Z, Z, Z, Z, Z, Z, Z, Z, Z};
    static constexpr char kBottomBb[16] = {Z, Z, Z, Z, Z, Z, Z, Z, 4, Z, 7, Z, 12, Z, 15, Z};
    const __m256i blue =
        blend(_mm256_or_si256(shuffle(ta, kTopBa), shuffle(tb, kTopBb)),
              _mm256_or_si256(shuffle(ba, kBottomBa), shuffle(bb, kBottomBb)), w.top, w.bottom);
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

// A block with a pixel whose neighbours are not all inside, or the last, partial block of
// a row: the weights of the formula, then pixel by pixel. Kept out of line so that the fast
// path keeps its registers.
template <int C, int32_t kMode>
__attribute__((noinline)) void border_block(const WarpJob& j, __m256 sx, __m256 sy, __m256i ix,
                                            __m256i iy, int32_t count, uint8_t* out) {
  const __m256 one = _mm256_set1_ps(1.0f), scale = _mm256_set1_ps(kWeightScale);
  const __m256 fx = _mm256_sub_ps(sx, _mm256_cvtepi32_ps(ix));
  const __m256 fy = _mm256_sub_ps(sy, _mm256_cvtepi32_ps(iy));
  const __m256 gx = _mm256_sub_ps(one, fx), gy = _mm256_sub_ps(one, fy);
  const __m256i w[4] = {
      _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_mul_ps(gx, gy), scale)),
      _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_mul_ps(fx, gy), scale)),
      _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_mul_ps(gx, fy), scale)),
      _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_mul_ps(fx, fy), scale)),
  };
  Lanes lanes;
  _mm256_store_si256(reinterpret_cast<__m256i*>(lanes.ix), ix);
  _mm256_store_si256(reinterpret_cast<__m256i*>(lanes.iy), iy);
  for (int k = 0; k < 4; ++k) _mm256_store_si256(reinterpret_cast<__m256i*>(lanes.w[k]), w[k]);
  for (int32_t lane = 0; lane < count; ++lane) blend_lane<C, kMode>(j, lanes, lane, out + lane * C);
}

// The inside test of a block (0 <= ix < in_width - 1 and 0 <= iy < in_height - 1 in every
// lane) and the byte offsets of the top-left neighbours.
//   Short planes (width and height at most 2^15, stride below 2^15): the coordinates are
//   packed to 16 bits with signed saturation, so that negative ones become at least 2^15
//   as unsigned words and large ones saturate to 2^15 - 1, both past any limit; an
//   unsigned saturating subtraction of the limits is zero exactly inside. The offsets come
//   from one multiply-add of the (ix, iy) word pairs with (C, stride).
//   Other planes: 32-bit compares and multiplications.
template <int C>
class BlockGeometry {
 public:
  BlockGeometry(const WarpJob& j)
      : short_(j.in_width <= 32768 && j.in_height <= 32768 && j.in_stride >= 0 &&
               j.in_stride < 32768),
        limits_(short_ ? _mm256_setr_epi16(kw(j), kw(j), kw(j), kw(j), kh(j), kh(j), kh(j), kh(j),
                                           kw(j), kw(j), kw(j), kw(j), kh(j), kh(j), kh(j), kh(j))
                       : _mm256_setzero_si256()),
        factors_(_mm256_set1_epi32(short_ ? C | j.in_stride * 65536 : 0)),
        x_end_(_mm256_set1_epi32(j.in_width - 1)),
        y_end_(_mm256_set1_epi32(j.in_height - 1)),
        stride_(_mm256_set1_epi32(j.in_stride)) {}

  // Returns true, with the offsets, when every lane is inside.
  bool inside(__m256i ix, __m256i iy, __m256i& offset) const {
    if (short_) {
      const __m256i packed = _mm256_packs_epi32(ix, iy);  // ix0..3 iy0..3 | ix4..7 iy4..7
      const __m256i excess = _mm256_subs_epu16(packed, limits_);
      if (!_mm256_testz_si256(excess, excess)) return false;
      offset = _mm256_madd_epi16(shuffle(packed, kInterleave), factors_);
      return true;
    }
    const __m256i minus_one = _mm256_set1_epi32(-1);
    const __m256i in = _mm256_and_si256(
        _mm256_and_si256(_mm256_cmpgt_epi32(ix, minus_one), _mm256_cmpgt_epi32(x_end_, ix)),
        _mm256_and_si256(_mm256_cmpgt_epi32(iy, minus_one), _mm256_cmpgt_epi32(y_end_, iy)));
    if (_mm256_movemask_ps(_mm256_castsi256_ps(in)) != 0xff) return false;
    offset = _mm256_add_epi32(_mm256_mullo_epi32(iy, stride_),
                              _mm256_mullo_epi32(ix, _mm256_set1_epi32(C)));
    return true;
  }

 private:
  static int16_t kw(const WarpJob& j) { return static_cast<int16_t>(j.in_width - 2); }
  static int16_t kh(const WarpJob& j) { return static_cast<int16_t>(j.in_height - 2); }

  bool short_;
  __m256i limits_, factors_, x_end_, y_end_, stride_;
};

template <int C, bool kPerspective, int32_t kMode>
void warp_rows(const WarpJob& j) {
  const RoundDownScope round_down;
  const float* m = j.m;
  const __m256 m0 = _mm256_set1_ps(m[0]), m3 = _mm256_set1_ps(m[3]);
  const __m256 m6 = _mm256_set1_ps(kPerspective ? m[6] : 0.0f);
  const __m256 lane_x = _mm256_setr_ps(0, 1, 2, 3, 4, 5, 6, 7);
  const __m256 one = _mm256_set1_ps(1.0f);
  // Block offsets are 32-bit, and the pair loads rely on rows that do not overlap; planes
  // with a single row or column have no inside block. Other planes take the per-lane path.
  const bool fast = j.in_width >= 2 && j.in_height >= 2 &&
                    int64_t{j.in_stride} >= int64_t{j.in_width} * C &&
                    int64_t{j.in_stride} * j.in_height + 8 < int64_t{INT32_MAX};
  const BlockGeometry<C> geometry(j);
  const uint8_t* const in = j.in;
  const int32_t in_stride = j.in_stride, out_width = j.out_width, out_height = j.out_height;
  uint8_t* const out_plane = j.out;
  const ptrdiff_t out_stride = j.out_stride;
  // Byte distances from a pixel's input neighbours and output bytes to those of the pixel
  // kPrefetchRows rows below (approximate: only the cache lines matter).
  const float ahead_x = m[1] * kPrefetchRows, ahead_y = m[4] * kPrefetchRows;
  const intptr_t in_ahead = std::fabs(ahead_x) < 1e6f && std::fabs(ahead_y) < 1e6f
                                ? static_cast<intptr_t>(std::lround(ahead_y)) * j.in_stride +
                                      static_cast<intptr_t>(std::lround(ahead_x)) * C
                                : 0;
  const intptr_t out_ahead = static_cast<intptr_t>(kPrefetchRows) * j.out_stride;
  // Block coordinates of output row y, columns x .. x + 7.
  const auto coordinates = [&](int32_t x, __m256 row_x, __m256 row_y, __m256 row_w, __m256& sx,
                               __m256& sy, __m256i& ix, __m256i& iy) {
    const __m256 xf = _mm256_add_ps(_mm256_set1_ps(static_cast<float>(x)), lane_x);
    sx = _mm256_fmadd_ps(m0, xf, row_x);
    sy = _mm256_fmadd_ps(m3, xf, row_y);
    if constexpr (kPerspective) {
      const __m256 inv_w = _mm256_rcp_ps(_mm256_fmadd_ps(m6, xf, row_w));
      sx = _mm256_mul_ps(sx, inv_w);
      sy = _mm256_mul_ps(sy, inv_w);
    }
    ix = _mm256_cvtps_epi32(sx);  // floor under the round-down mode
    iy = _mm256_cvtps_epi32(sy);
  };
  // The output is walked in column strips: a strip's rows read a narrow band of the input
  // that stays in cache, where whole rows of a rotated image would cross many input rows.
  // Each strip row takes two passes: the coordinates, inside tests, neighbour offsets and
  // weights of all its blocks first, then the loads and blends. The loads then find their
  // offsets long written, instead of waiting on each block's chain from the coordinates
  // through the offsets to the addresses.
  alignas(32) int32_t offsets[kStripWidth];
  PairWeights weights[kStripWidth / 8];
  bool inside[kStripWidth / 8];
  for (int32_t x0 = 0; x0 < out_width; x0 += kStripWidth) {
    const int32_t x1 = out_width - x0 < kStripWidth ? out_width : x0 + kStripWidth;
    for (int32_t y = 0; y < out_height; ++y) {
      uint8_t* out_row = out_plane + y * out_stride;
      const __m256 yf = _mm256_set1_ps(static_cast<float>(y));
      const __m256 row_x = _mm256_fmadd_ps(_mm256_set1_ps(m[1]), yf, _mm256_set1_ps(m[2]));
      const __m256 row_y = _mm256_fmadd_ps(_mm256_set1_ps(m[4]), yf, _mm256_set1_ps(m[5]));
      const __m256 row_w =
          kPerspective ? _mm256_fmadd_ps(_mm256_set1_ps(m[7]), yf, _mm256_set1_ps(m[8])) : one;
      for (int32_t x = x0; x < x1; x += 8) {
        const int32_t b = (x - x0) / 8;
        __m256 sx, sy;
        __m256i ix, iy, top_left;
        coordinates(x, row_x, row_y, row_w, sx, sy, ix, iy);
        inside[b] = fast && out_width - x >= 8 && geometry.inside(ix, iy, top_left);
        if (inside[b]) {
          _mm256_store_si256(reinterpret_cast<__m256i*>(offsets + 8 * b), top_left);
          weights[b] = fast_weights(sx, sy, ix, iy);
        }
      }
      for (int32_t x = x0; x < x1; x += 8) {
        const int32_t b = (x - x0) / 8;
        uint8_t* out = out_row + static_cast<ptrdiff_t>(x) * C;
        if (inside[b]) {
          const int32_t* offset = offsets + 8 * b;
          const uintptr_t ahead = reinterpret_cast<uintptr_t>(in) + offset[0] + in_ahead;
          _mm_prefetch(reinterpret_cast<const char*>(ahead), _MM_HINT_T0);
          _mm_prefetch(reinterpret_cast<const char*>(ahead + in_stride), _MM_HINT_T0);
          _mm_prefetch(reinterpret_cast<const char*>(reinterpret_cast<uintptr_t>(out) + out_ahead),
                       _MM_HINT_T0);
          fast_block<C>(in, in_stride, offset, weights[b], out);
          continue;
        }
        __m256 sx, sy;
        __m256i ix, iy;
        coordinates(x, row_x, row_y, row_w, sx, sy, ix, iy);
        border_block<C, kMode>(j, sx, sy, ix, iy, out_width - x < 8 ? out_width - x : 8, out);
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
