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

// The Q16 weights of a block split for 16-bit multiply-adds. For pixels inside the plane
// every weight w lies in [0, 2^16]; with w = 256 a + b (a in [0, 256], b in [0, 255]) both
// halves fit int16, and
//   sum(w p) = 256 * sum(a p) + sum(b p)
// exactly, so the blend equals the 32-bit formula bit for bit. Each register holds, per
// pixel, the pair (left weight, right weight) of one row.
struct PairWeights {
  __m256i hi_top, hi_bottom, lo_top, lo_bottom;
};

inline PairWeights split_weights(const __m256i w[4]) {
  const __m256i low_byte = _mm256_set1_epi32(0xff);
  auto pair = [](__m256i left, __m256i right) {
    return _mm256_or_si256(left, _mm256_slli_epi32(right, 16));
  };
  auto hi = [](__m256i v) { return _mm256_srli_epi32(v, 8); };
  auto lo = [low_byte](__m256i v) { return _mm256_and_si256(v, low_byte); };
  return {pair(hi(w[0]), hi(w[1])), pair(hi(w[2]), hi(w[3])), pair(lo(w[0]), lo(w[1])),
          pair(lo(w[2]), lo(w[3]))};
}

// One channel of eight pixels: `top` and `bottom` hold per pixel the 16-bit pairs
// (TL, TR) and (BL, BR). Returns the rounded blend in 32-bit lanes.
inline __m256i blend(__m256i top, __m256i bottom, const PairWeights& w) {
  const __m256i hi =
      _mm256_add_epi32(_mm256_madd_epi16(top, w.hi_top), _mm256_madd_epi16(bottom, w.hi_bottom));
  const __m256i lo =
      _mm256_add_epi32(_mm256_madd_epi16(top, w.lo_top), _mm256_madd_epi16(bottom, w.lo_bottom));
  const __m256i sum = _mm256_add_epi32(_mm256_slli_epi32(hi, 8), lo);
  return _mm256_srai_epi32(_mm256_add_epi32(sum, _mm256_set1_epi32(kWeightRound)), kWeightBits);
}

// Bytes i and j of each dword as a pair of 16-bit values.
inline __m256i dword_pair(__m256i v, char i, char j) {
  const char z = static_cast<char>(0x80);
  const __m256i m = _mm256_setr_epi8(
      i, z, j, z, static_cast<char>(i + 4), z, static_cast<char>(j + 4), z,
      static_cast<char>(i + 8), z, static_cast<char>(j + 8), z, static_cast<char>(i + 12), z,
      static_cast<char>(j + 12), z, i, z, j, z, static_cast<char>(i + 4), z,
      static_cast<char>(j + 4), z, static_cast<char>(i + 8), z, static_cast<char>(j + 8), z,
      static_cast<char>(i + 12), z, static_cast<char>(j + 12), z);
  return _mm256_shuffle_epi8(v, m);
}

// Bytes i and j of each 64-bit pixel of two registers as 16-bit pairs: the pixels of `v0`
// go to dwords 0 and 1 of each 128-bit half, those of `v1` to dwords 2 and 3.
inline __m256i qword_pair(__m256i v0, __m256i v1, char i, char j) {
  const char z = static_cast<char>(0x80);
  const char i8 = static_cast<char>(i + 8), j8 = static_cast<char>(j + 8);
  const __m256i m0 = _mm256_setr_epi8(i, z, j, z, i8, z, j8, z, z, z, z, z, z, z, z, z,  //
                                      i, z, j, z, i8, z, j8, z, z, z, z, z, z, z, z, z);
  const __m256i m1 = _mm256_setr_epi8(z, z, z, z, z, z, z, z, i, z, j, z, i8, z, j8, z,  //
                                      z, z, z, z, z, z, z, z, i, z, j, z, i8, z, j8, z);
  return _mm256_or_si256(_mm256_shuffle_epi8(v0, m0), _mm256_shuffle_epi8(v1, m1));
}

template <class T>
inline T load(const uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// Eight pixels whose four neighbours all lie inside the plane; `top` holds the byte offsets
// of their top-left neighbours. The neighbour pairs are read with scalar loads (vector
// gathers are slow on many processors) and blended channel by channel.
//   1 channel: the 2-byte top and bottom pairs, packed as TL TR BL BR in one word.
//   2 channels: the 4-byte top and bottom pairs.
//   3 channels: 8 bytes for each pair: the top one starts at TL and runs two bytes past TR
//   (into the next row, which exists), the bottom one ends at BR and starts two bytes before
//   BL (inside the row above). Pixels go to the two registers in the order 0 1 4 5 | 2 3 6 7,
//   so that a byte shuffle per 128-bit half puts each channel back in pixel order.
template <int C>
inline void blend_block(const uint8_t* in, int32_t stride, __m256i top, const PairWeights& w,
                        uint8_t* out) {
  alignas(32) int32_t offset[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(offset), top);
  if constexpr (C == 1) {
    alignas(32) uint32_t quad[8];
    for (int i = 0; i < 8; ++i) {
      const uint8_t* p = in + offset[i];
      quad[i] = load<uint16_t>(p) | static_cast<uint32_t>(load<uint16_t>(p + stride)) << 16;
    }
    const __m256i q = _mm256_load_si256(reinterpret_cast<const __m256i*>(quad));
    const __m256i r = blend(dword_pair(q, 0, 1), dword_pair(q, 2, 3), w);
    const __m256i p = _mm256_packus_epi16(_mm256_packus_epi32(r, r), _mm256_setzero_si256());
    const __m128i lo = _mm256_castsi256_si128(p), hi = _mm256_extracti128_si256(p, 1);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi32(lo, hi));
  } else if constexpr (C == 2) {
    alignas(32) uint32_t upper[8], lower[8];
    for (int i = 0; i < 8; ++i) {
      upper[i] = load<uint32_t>(in + offset[i]);
      lower[i] = load<uint32_t>(in + offset[i] + stride);
    }
    const __m256i t = _mm256_load_si256(reinterpret_cast<const __m256i*>(upper));
    const __m256i b = _mm256_load_si256(reinterpret_cast<const __m256i*>(lower));
    const __m256i r0 = blend(dword_pair(t, 0, 2), dword_pair(b, 0, 2), w);
    const __m256i r1 = blend(dword_pair(t, 1, 3), dword_pair(b, 1, 3), w);
    const __m256i pair = _mm256_or_si256(r0, _mm256_slli_epi32(r1, 8));
    const __m256i p = _mm256_permute4x64_epi64(_mm256_packus_epi32(pair, pair), 0xd8);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(p));
  } else {
    alignas(32) uint64_t upper[8], lower[8];
    constexpr int kSlot[8] = {0, 1, 4, 5, 2, 3, 6, 7};
    for (int i = 0; i < 8; ++i) {
      upper[kSlot[i]] = load<uint64_t>(in + offset[i]);
      lower[kSlot[i]] = load<uint64_t>(in + offset[i] + stride - 2);
    }
    const __m256i t0 = _mm256_load_si256(reinterpret_cast<const __m256i*>(upper));
    const __m256i t1 = _mm256_load_si256(reinterpret_cast<const __m256i*>(upper + 4));
    const __m256i b0 = _mm256_load_si256(reinterpret_cast<const __m256i*>(lower));
    const __m256i b1 = _mm256_load_si256(reinterpret_cast<const __m256i*>(lower + 4));
    const __m256i r0 = blend(qword_pair(t0, t1, 0, 3), qword_pair(b0, b1, 2, 5), w);
    const __m256i r1 = blend(qword_pair(t0, t1, 1, 4), qword_pair(b0, b1, 3, 6), w);
    const __m256i r2 = blend(qword_pair(t0, t1, 2, 5), qword_pair(b0, b1, 4, 7), w);
    const __m256i rgb =
        _mm256_or_si256(_mm256_or_si256(r0, _mm256_slli_epi32(r1, 8)), _mm256_slli_epi32(r2, 16));
    // Drop the fourth byte of each pixel: 12 bytes at the start of each 128-bit half.
    const __m256i pack = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1, 0,
                                          1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
    const __m256i p = _mm256_shuffle_epi8(rgb, pack);
    const __m128i hi = _mm256_extracti128_si256(p, 1);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(p));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 12), hi);
    const int32_t last = _mm_cvtsi128_si32(_mm_srli_si128(hi, 8));
    std::memcpy(out + 20, &last, 4);
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
        const __m256 fx = _mm256_sub_ps(sx, _mm256_cvtepi32_ps(ix));
        const __m256 fy = _mm256_sub_ps(sy, _mm256_cvtepi32_ps(iy));
        const __m256 gx = _mm256_sub_ps(one, fx), gy = _mm256_sub_ps(one, fy);
        const __m256i w[4] = {
            _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_mul_ps(gx, gy), scale)),
            _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_mul_ps(fx, gy), scale)),
            _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_mul_ps(gx, fy), scale)),
            _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_mul_ps(fx, fy), scale)),
        };
        const __m256i inside = _mm256_and_si256(
            _mm256_and_si256(_mm256_cmpgt_epi32(ix, minus_one), _mm256_cmpgt_epi32(x_end, ix)),
            _mm256_and_si256(_mm256_cmpgt_epi32(iy, minus_one), _mm256_cmpgt_epi32(y_end, iy)));
        uint8_t* out = out_row + static_cast<ptrdiff_t>(x) * C;
        const int32_t count = j.out_width - x < 8 ? j.out_width - x : 8;
        if (offsets_fit && count == 8 && _mm256_movemask_ps(_mm256_castsi256_ps(inside)) == 0xff) {
          const __m256i top = _mm256_add_epi32(_mm256_mullo_epi32(iy, in_stride),
                                               _mm256_mullo_epi32(ix, _mm256_set1_epi32(C)));
          blend_block<C>(j.in, j.in_stride, top, split_weights(w), out);
          continue;
        }
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
